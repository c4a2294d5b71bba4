#!/usr/bin/env bash
# qbsmtp-host under a memory checker: serve receives two mails over
# loopback and takes them apart, parse --exec hands them to a command that
# refuses them, and send delivers the files of a received message to a
# loopback relay. Each run must end cleanly with no memory
# error and no leak: under valgrind memcheck in a build without sanitizers
# (definite and indirect leaks, invalid reads and writes, uses of
# uninitialised bytes), under LeakSanitizer (with ASan) in the debug build.
# The ThreadSanitizer build has no leak checker: the test is skipped (77).
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"

sanitize=$(sed -n 's/^QBSMTP_SANITIZE:[A-Z]*=//p' "$QBSMTP_BUILD_DIR/CMakeCache.txt")
case "$sanitize" in
  address)
    # ASan's LeakSanitizer reports at exit and makes the status non-zero.
    export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:exitcode=99"
    checker=()
    ;;
  thread)
    echo "host_memcheck_test: skipped, no leak checker under ThreadSanitizer"
    exit 77
    ;;
  *)
    command -v valgrind >/dev/null || {
      echo "host_memcheck_test: skipped, valgrind is not installed (scripts/install-deps)"
      exit 77
    }
    checker=(valgrind --tool=memcheck --error-exitcode=99 --leak-check=full
      --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect
      --log-file="$WORK/memcheck.%p.log")
    ;;
esac
# checked_status STATUS NAME: 99 is the checker's verdict.
checked_status() {
  [ "$1" -ne 99 ] || fail "$2: memory errors or leaks: $(cat "$WORK"/memcheck.*.log 2>/dev/null)"
  [ "$1" -eq 0 ] || fail "$2 exited $1: $(cat "$WORK/$2.err")"
}

# --- serve: two mails in, taken apart, a clean stop -----------------------------
prefix="$WORK/prefix"
port=$("$PYTHON" "$PEER" free-port)
QBSMTP_PREFIX="$prefix" "${checker[@]}" "$HOST" serve --port "$port" --interval 100 \
  >"$WORK/serve.out" 2>"$WORK/serve.err" &
serve_pid=$!
started_pids+=("$serve_pid")
wait_until 60 grep -q "listening for SMTP on port $port" "$WORK/serve.err" ||
  fail "serve did not start: $(cat "$WORK/serve.err")"
make_pdf "$WORK/fattura.pdf"
timeout 60 "$PYTHON" "$PEER" deliver "$port" plain "$WORK/fattura.pdf" || fail "plain delivery refused"
timeout 60 "$PYTHON" "$PEER" deliver "$port" pdf "$WORK/fattura.pdf" || fail "PDF delivery refused"
wait_until 60 records_at_least 2 || fail "serve printed $(record_count) records: $(cat "$WORK/serve.err")"
"$PYTHON" "$PEER" check-records "$WORK/serve.out" "$WORK/fattura.pdf" || fail "records"
kill -TERM "$serve_pid"
wait_until 60 bash -c "! kill -0 $serve_pid 2>/dev/null" || fail "serve did not stop on SIGTERM"
status=0
wait "$serve_pid" || status=$?
checked_status "$status" serve

# --- parse --exec: the two messages again, refused by their command ------------
spool="$WORK/parse-spool"
mkdir -p "$spool"
cp "$prefix"/spool/done/*.822 "$spool/"
use_prefix "$WORK/parse-prefix"
status=0
timeout 300 "${checker[@]}" "$HOST" parse --spool "$spool" --exec 'cat >/dev/null; exit 1' \
  >"$WORK/parse.out" 2>"$WORK/parse.err" || status=$?
checked_status "$status" parse
[ "$(ls "$spool"/failed/*.822 | wc -l)" -eq 2 ] || fail "parse --exec: $(cat "$WORK/parse.err")"

# --- send: the received PDF message's files out to a loopback relay ------------
"$PYTHON" - "$WORK/serve.out" "$WORK/attachments.txt" <<'PY'
import json, sys
records = [json.loads(line) for line in open(sys.argv[1]) if line.strip()]
with_pdf = [r for r in records if any(a.endswith(".pdf") for a in r["attachments"])]
open(sys.argv[2], "w").write("\n".join(with_pdf[0]["attachments"]) + "\n")
PY
mapfile -t files <"$WORK/attachments.txt"
timeout 120 "$PYTHON" "$PEER" relay ok "$WORK/relay.port" "$WORK/relay.transcript" &
relay_pid=$!
started_pids+=("$relay_pid")
wait_until 10 test -s "$WORK/relay.port" || fail "relay did not start"
status=0
QBSMTP_PREFIX="$WORK/send-prefix" timeout 300 "${checker[@]}" "$HOST" send --relay 127.0.0.1 \
  --port "$(cat "$WORK/relay.port")" --from anna@example.org --to out@example.net \
  --subject "Back out" "${files[@]}" >"$WORK/send.out" 2>"$WORK/send.err" || status=$?
checked_status "$status" send
wait "$relay_pid" || fail "relay failed"
grep -qx '{"delivered":true,"temporary_failure":false}' "$WORK/send.out" ||
  fail "send said $(cat "$WORK/send.out")"
"$PYTHON" "$PEER" check-transcript "$WORK/relay.transcript" "$WORK/fattura.pdf" || fail "relay transcript"

echo "host_memcheck_test: ok (${checker[0]:-LeakSanitizer})"

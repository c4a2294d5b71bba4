#!/usr/bin/env bash
# The installed tree end to end: cmake --install into a temporary prefix,
# the pkg-config and CMake package files, then the installed qbsmtp-host
# (finding the installed module by itself) receives two mails over
# loopback, one plain and one with a PDF, prints their records and files,
# sends one back out to a scripted relay, and maps the relay's refusals to
# its exit statuses.
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"

# --- install -------------------------------------------------------------------
root="$WORK/root"
cmake --install "$QBSMTP_BUILD_DIR" --prefix "$root" >"$WORK/install.log" ||
  fail "cmake --install: $(cat "$WORK/install.log")"
HOST="$root/bin/qbsmtp-host"
module=$(find "$root" -name QBSMTP.so -path '*/qbsmtp/*')
unit=$(find "$root" -path '*/systemd/system/qbsmtp.service')
pc=$(find "$root" -name qbsmtp.pc)
for file in "$HOST" "$module" "$root/include/qbsmtp/qbsmtp.h" "$unit" "$pc"; do
  [ -f "$file" ] || fail "not installed: the host, the module, the header, the unit or qbsmtp.pc"
done
# A man page for the host and one for each subcommand its help lists; the completion.
for page in qbsmtp-host $("$HOST" --help | awk '/^Subcommands:/ { s = 1; next } s && NF { print "qbsmtp-host-" $1 }'); do
  [ -f "$root/share/man/man1/$page.1" ] || fail "no man page $page.1"
done
[ -f "$root/share/bash-completion/completions/qbsmtp-host" ] || fail "no bash completion"
grep -qx "ExecStart=$root/bin/qbsmtp-host serve" "$unit" || fail "unit runs $(grep ExecStart "$unit")"

# pkg-config names the installed module, wherever the tree was put.
if command -v pkg-config >/dev/null; then
  pc_module=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable=module qbsmtp)
  [ "$(realpath "$pc_module")" = "$(realpath "$module")" ] || fail "pkg-config module: $pc_module"
  PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags qbsmtp | grep -q -- "-I" || fail "pkg-config --cflags"
else
  echo "installed_tree_test: pkg-config not installed, qbsmtp.pc only checked for presence" >&2
fi

# find_package(qbsmtp): a host built against the installed package loads
# the module its target names and calls into it.
cp -r "$QBSMTP_SOURCE_DIR/tests/data/scripts/consumer" "$WORK/consumer"
# A module built with sanitizers loads only into a program built with them.
sanitize=$(sed -n 's/^QBSMTP_SANITIZE:[A-Z]*=//p' "$QBSMTP_BUILD_DIR/CMakeCache.txt")
flags=""
[ "$sanitize" != address ] || flags="-fsanitize=address,undefined"
[ "$sanitize" != thread ] || flags="-fsanitize=thread"
(cd "$WORK/consumer" && cmake -S . -B build -G Ninja -DCMAKE_PREFIX_PATH="$root" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$WORK/consumer.log" 2>&1 &&
  cmake --build build >>"$WORK/consumer.log" 2>&1) || fail "find_package consumer: $(cat "$WORK/consumer.log")"
QBSMTP_PREFIX="$WORK/consumer-prefix" "$WORK/consumer/build/consumer" || fail "consumer could not call the module"

# --- two mails in ------------------------------------------------------------
prefix="$WORK/prefix"
port=$("$PYTHON" "$PEER" free-port)
start_serve "$prefix" "$port"
grep -q "module $module" "$WORK/serve.err" || fail "serve loaded another module: $(cat "$WORK/serve.err")"
make_pdf "$WORK/fattura.pdf"
timeout 30 "$PYTHON" "$PEER" deliver "$port" plain "$WORK/fattura.pdf" || fail "plain mail refused"
timeout 30 "$PYTHON" "$PEER" deliver "$port" pdf "$WORK/fattura.pdf" || fail "PDF mail refused"
wait_until 30 records_at_least 2 || fail "serve printed $(record_count) records: $(cat "$WORK/serve.err")"
stop_serve
"$PYTHON" "$PEER" check-records "$WORK/serve.out" "$WORK/fattura.pdf" >"$WORK/attachments" ||
  fail "records: $(cat "$WORK/serve.out")"
[ -z "$(compgen -G "$prefix/spool/*.822")" ] || fail "spool files left after printing"
[ "$(find "$prefix/spool/done" -name '*.822' | wc -l)" -eq 2 ] || fail "done/ does not hold both messages"

# --- one mail out, to a scripted relay per row of relay_outcomes.txt -----------
mapfile -t files <"$WORK/attachments"
grep -v '^#' "$QBSMTP_SOURCE_DIR/tests/data/scripts/relay_outcomes.txt" >"$WORK/outcomes"
while read -r mode status outcome <&4; do
  rm -f "$WORK/relay.port"
  timeout 60 "$PYTHON" "$PEER" relay "$mode" "$WORK/relay.port" "$WORK/relay.transcript" &
  relay_pid=$!
  started_pids+=("$relay_pid")
  wait_until 10 test -s "$WORK/relay.port" || fail "relay did not start"
  send_status=0
  QBSMTP_PREFIX="$WORK/send-prefix" timeout 60 "$HOST" send --relay 127.0.0.1 --port "$(cat "$WORK/relay.port")" \
    --from anna@example.org --to out@example.net --subject "Back out" "${files[@]}" \
    >"$WORK/send.out" 2>"$WORK/send.err" || send_status=$?
  wait "$relay_pid" || fail "relay $mode failed"
  [ "$send_status" -eq "$status" ] || fail "relay $mode: exit $send_status, not $status: $(cat "$WORK/send.err")"
  grep -qxF "$outcome" "$WORK/send.out" || fail "relay $mode: send said $(cat "$WORK/send.out")"
  [ "$mode" != ok ] || "$PYTHON" "$PEER" check-transcript "$WORK/relay.transcript" "$WORK/fattura.pdf" ||
    fail "relay transcript"
done 4<"$WORK/outcomes"
[ ! -e "$WORK/send-prefix/services" ] || fail "send --port left its port in the prefix"
QBSMTP_PREFIX="$WORK/send-prefix" "$HOST" events | grep -q "0xC0004EFB" || fail "no event for the unintelligible reply"
echo "installed_tree_test: ok"

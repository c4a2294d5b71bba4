#!/usr/bin/env bash
# qbsmtp-host serve from the build tree: its start-up line and port file,
# a mail received over loopback into the spool, the session events in the
# log and through "events", and a clean stop on SIGTERM that closes the
# port.
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"

# --- serve: one mail in, its events, a clean stop ------------------------------
prefix="$WORK/prefix"
port=$("$PYTHON" "$PEER" free-port)
start_serve "$prefix" "$port" --mask 0x80000000
grep -qx "smtp $port/tcp" "$prefix/services" || fail "--port not written to services"
grep -q "spool $prefix/spool" "$WORK/serve.err" || fail "start-up line names no spool"
grep -q "events $prefix/events.jsonl" "$WORK/serve.err" || fail "start-up line names no event log"

make_pdf "$WORK/fattura.pdf"
timeout 30 "$PYTHON" "$PEER" deliver "$port" plain "$WORK/fattura.pdf" || fail "delivery refused"
spooled() { compgen -G "$prefix/spool/*.822" >/dev/null || compgen -G "$prefix/spool/done/*.822" >/dev/null; }
wait_until 20 spooled || fail "no spool file after the delivery"
wait_until 20 grep -qs '"0x40004EAB"' "$prefix/events.jsonl" || fail "no end-of-session event"
QBSMTP_PREFIX="$prefix" timeout 10 "$HOST" events >"$WORK/events.txt"
grep -q "information  0x40004EA3  Inizio sessione ricezione$" "$WORK/events.txt" ||
  fail "events does not show the session start: $(cat "$WORK/events.txt")"

stop_serve
wait_until 10 port_is_closed "$port" || fail "port $port still open after the stop"

# --- a port held by a silent listener: serve says why and exits 69 ---------------
use_prefix "$WORK/held"
printf '%s\r\n' REGEDIT4 '[HKEY_LOCAL_MACHINE\SOFTWARE\KELTO\Quillbox32\SM]' \
  '"ProbeTimeout"=dword:00000001' >"$QBSMTP_PREFIX/registry.reg"
"$PYTHON" -c 'import socket, sys, time
s = socket.socket(); s.bind(("0.0.0.0", int(sys.argv[1]))); s.listen(5)
open(sys.argv[2], "w").close(); time.sleep(60)' "$(read_smtp_port)" "$WORK/held.ready" &
started_pids+=($!)
wait_until 10 test -e "$WORK/held.ready" || fail "the holder did not start"
QBSMTP_PREFIX="$WORK/held" timeout 10 "$HOST" check >"$WORK/check.out" && fail "check passed a held port"
grep -q "^PROBLEM  port $(read_smtp_port): held by pid $! (python3)" "$WORK/check.out" ||
  fail "check: $(cat "$WORK/check.out")"
status=0
timeout 30 "$HOST" serve >/dev/null 2>"$WORK/held.err" || status=$?
[ "$status" -eq 69 ] || fail "serve on a held port exited $status: $(cat "$WORK/held.err")"
grep -q "reception is off.*0xC00027D9" "$WORK/held.err" || fail "serve did not say why: $(cat "$WORK/held.err")"
! grep -q "listening for SMTP" "$WORK/held.err" || fail "serve said it listens"
echo "host_serve_test: ok"

#!/usr/bin/env bash
# A gateway restarted at once on its port takes it back, although the last
# sessions left TIME_WAIT ends there; a port on which another server
# listens is still not taken (the port-in-use warning and the probe's
# verdict, as ever). Two processes of qbsmtp-host serve, one after the other.
set -euo pipefail
HOST="$QBSMTP_BUILD_DIR/qbsmtp-host"
WORK=$(mktemp -d /tmp/qbsmtp-restart-XXXXXX)
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null; rm -rf "$WORK" || true' EXIT
fail() { echo "FAIL: $*" >&2; tail -n 5 "$WORK"/*.err "$WORK"/*/events.jsonl >&2; exit 1; }
# wait_until SECONDS COMMAND...: polls until COMMAND succeeds.
wait_until() {
  local deadline=$((SECONDS + $1)); shift
  until "$@"; do [ "$SECONDS" -lt "$deadline" ] || return 1; sleep 0.1; done
}
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
deliver() {  # deliver PORT: one message through smtplib; the server closes after QUIT
  timeout 30 python3 -c 'import smtplib,sys
with smtplib.SMTP("127.0.0.1", int(sys.argv[1]), timeout=20) as s:
    s.sendmail("a@example.org", ["12345@fax.example"], "Subject: restart\r\n\r\nbody\r\n")' "$1"
}
serve() {  # serve PREFIX PORT: in the background
  QBSMTP_PREFIX="$1" "$HOST" serve --port "$2" >>"$1.out" 2>>"$1.err" &
  pids+=($!)
}
taken() { [ "$(find "$1/spool/done" -name "*.822" 2>/dev/null | wc -l)" -eq "$2" ]; }
has_event() { grep -qs "\"id\":\"$2\"" "$1/events.jsonl"; }
accepting() { python3 -c 'import socket,sys; socket.create_connection(("127.0.0.1",int(sys.argv[1])),1).close()' "$1" 2>/dev/null; }

port=$(free_port)
serve "$WORK/a" "$port"
wait_until 20 accepting "$port" || fail "the first gateway never listened"
deliver "$port" || fail "the first gateway refused the message"
wait_until 20 taken "$WORK/a" 1 || fail "the first message was not taken"
kill -TERM "${pids[-1]}"; wait "${pids[-1]}" || true
ss -tan state time-wait "( sport = :$port )" | grep -q ":$port" || fail "no TIME_WAIT end on port $port"

serve "$WORK/a" "$port"
wait_until 20 accepting "$port" || fail "the restarted gateway never listened"
deliver "$port" || fail "the restarted gateway refused the message"
wait_until 20 taken "$WORK/a" 2 || fail "the second message was not taken"
! has_event "$WORK/a" 0x800027D8 || fail "the restart found its port in use: $(cat "$WORK/a/events.jsonl")"

# Another server answers on the port: warned about, probed, left alone.
other=$(free_port)
python3 -c 'import socket,sys
s=socket.socket(); s.setsockopt(socket.SOL_SOCKET,socket.SO_REUSEADDR,1); s.bind(("0.0.0.0",int(sys.argv[1]))); s.listen(8)
while True:
    c,_=s.accept()
    try: c.sendall(b"220 another server\r\n"); c.recv(100)
    except OSError: pass  # the readiness check resets its connection
    c.close()' "$other" &
pids+=($!)
wait_until 20 accepting "$other" || fail "the other server never listened"
serve "$WORK/b" "$other"
wait_until 60 has_event "$WORK/b" 0xC00027D9 || fail "no probe verdict: $(cat "$WORK/b/events.jsonl" 2>&1)"
has_event "$WORK/b" 0x800027D8 || fail "no port-in-use warning"
echo "reception_restart_test: ok"

# host_test_lib.sh: helpers of the qbsmtp-host script tests (sourced).
# Every wait has a deadline, every peer stays on 127.0.0.1, and whatever a
# test starts in the background is stopped by its PID when the test ends.

PYTHON=/usr/bin/python3
PEER="$(dirname "${BASH_SOURCE[0]}")/smtp_peer.py" HOST="$QBSMTP_BUILD_DIR/qbsmtp-host"
WORK=$(mktemp -d /tmp/qbsmtp-host-test-XXXXXX)  # no dot: paths stay free of extra dots
started_pids=()

cleanup() {
  local pid
  for pid in "${started_pids[@]}"; do
    kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  done
  rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
[ -x "$HOST" ] || fail "no host program at $HOST"

# use_prefix DIR: makes DIR the prefix of every later run, with a port that
# was free a moment ago (parse starts the listener for a moment).
use_prefix() {
  export QBSMTP_PREFIX=$1
  mkdir -p "$1"
  echo "smtp $("$PYTHON" "$PEER" free-port)/tcp" >"$1/services"
}

# read_smtp_port: the port of the prefix's services file.
read_smtp_port() { sed -n 's|^smtp \([0-9]*\)/tcp$|\1|p' "$QBSMTP_PREFIX/services"; }

# wait_until SECONDS COMMAND...: polls COMMAND every 0.1 s until it succeeds.
wait_until() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

# expect_usage_error PATTERN ARGS...: the host refuses the command line with
# the usage status 64 and a message matching PATTERN, and does not crash.
expect_usage_error() {
  local pattern=$1 status=0
  shift
  timeout 10 "$HOST" "$@" >"$WORK/usage.out" 2>"$WORK/usage.err" || status=$?
  [ "$status" -eq 64 ] || fail "qbsmtp-host $* exited $status, expected 64: $(cat "$WORK/usage.err")"
  grep -q -- "$pattern" "$WORK/usage.err" ||
    fail "qbsmtp-host $*: no \"$pattern\" in: $(cat "$WORK/usage.err")"
}

# start_serve PREFIX PORT [ARGS...]: runs serve in the background with
# stdout in $WORK/serve.out and stderr in $WORK/serve.err, and waits for
# its start-up line.
start_serve() {
  local prefix=$1 port=$2
  shift 2
  QBSMTP_PREFIX="$prefix" "$HOST" serve --port "$port" "$@" >"$WORK/serve.out" 2>"$WORK/serve.err" &
  serve_pid=$!
  started_pids+=("$serve_pid")
  wait_until 20 grep -q "listening for SMTP on port $port" "$WORK/serve.err" ||
    fail "serve did not start: $(cat "$WORK/serve.err")"
}

# stop_serve: SIGTERM, then serve must end on its own, with status 0.
stop_serve() {
  local status=0
  kill -TERM "$serve_pid"
  wait_until 15 bash -c "! kill -0 $serve_pid 2>/dev/null" || fail "serve did not stop on SIGTERM"
  wait "$serve_pid" || status=$?
  [ "$status" -eq 0 ] || fail "serve exited $status after SIGTERM: $(cat "$WORK/serve.err")"
  grep -q "stopped" "$WORK/serve.err" || fail "serve did not say it stopped"
}

# port_is_closed PORT: nobody accepts on 127.0.0.1:PORT any more.
port_is_closed() {
  ! "$PYTHON" -c "import socket,sys; socket.create_connection(('127.0.0.1', int(sys.argv[1])), 2)" "$1" 2>/dev/null
}


# record_count: lines serve has printed so far; records_at_least N.
record_count() { grep -c . "$WORK/serve.out" 2>/dev/null || true; }
records_at_least() { [ "$(record_count)" -ge "$1" ]; }

# make_pdf FILE: a small PDF with every byte value in a stream, so that a
# change anywhere on the way shows.
make_pdf() {
  "$PYTHON" - "$1" <<'PY'
import sys
body = bytes(range(256)) * 4
pdf = (b"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj\n<< /Length " + str(len(body)).encode()
       + b" >>\nstream\n" + body + b"\nendstream\nendobj\ntrailer\n<< >>\n%%EOF\n")
open(sys.argv[1], "wb").write(pdf)
PY
}

#!/usr/bin/env bash
# qbsmtp-host from the build tree: help, version and usage errors, and the
# first-run port of the default prefix.
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"

# --- help and version ------------------------------------------------------
"$HOST" --help | grep -q "serve" || fail "--help does not list serve"
"$HOST" --version | grep -Eq "^qbsmtp-host [0-9]+\.[0-9]+\.[0-9]+$" || fail "--version"
for command in serve parse send events check; do
  "$HOST" "$command" --help >/dev/null || fail "$command --help"
done

# --- malformed command lines -------------------------------------------------
touch "$WORK/file.txt"
expect_usage_error "subcommand is required"
expect_usage_error "subcommand is required" frobnicate
expect_usage_error "not in range" serve --port 0
expect_usage_error "port" serve --port twenty
expect_usage_error "not a 32-bit mask" serve --mask 0x1FFFFFFFF
expect_usage_error "unknown subtype" parse --prefer html,bogus
expect_usage_error "not a duration" serve --exec true --exec-timeout 5x
expect_usage_error "at least one second" parse --exec true --exec-timeout 0
expect_usage_error "relay" send --to a@x.example "$WORK/file.txt"
expect_usage_error "does not exist" send --relay 127.0.0.1 --to a@x.example "$WORK/missing.pdf"
expect_usage_error "empty address" send --relay 127.0.0.1 --to "" "$WORK/file.txt"
expect_usage_error "files" send --relay 127.0.0.1 --to a@x.example

# --- the default prefix gets an unprivileged port on its first run ----------
mkdir -p "$WORK/home"
status=0
env -u QBSMTP_PREFIX HOME="$WORK/home" "$HOST" serve --module "$WORK/none.so" \
  >/dev/null 2>"$WORK/first.err" || status=$?
[ "$status" -eq 1 ] || fail "serve with a missing module exited $status"
grep -q "no module found" "$WORK/first.err" || fail "missing module not named: $(cat "$WORK/first.err")"
grep -qx "smtp 2525/tcp" "$WORK/home/.qbsmtp/services" || fail "first run wrote no port 2525"
# ... and only the default one: an explicit prefix keeps the system's port.
mkdir -p "$WORK/explicit"
QBSMTP_PREFIX="$WORK/explicit" "$HOST" serve --module "$WORK/none.so" 2>/dev/null && fail "no module, yet 0"
[ ! -e "$WORK/explicit/services" ] || fail "an explicit prefix got a services file"

echo "host_cli_test: ok"

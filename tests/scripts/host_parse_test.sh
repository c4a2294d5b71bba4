#!/usr/bin/env bash
# qbsmtp-host parse from the build tree: one batch pass over a spool that
# is not being served, the record it prints, the host's preference among
# the parts of a multipart/alternative (default and --prefer), and what
# becomes of the spool file (kept in done/, or deleted with --delete).
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"
HOST="$QBSMTP_BUILD_DIR/qbsmtp-host"
[ -x "$HOST" ] || fail "no host program at $HOST"

spool="$WORK/parse-spool"
mkdir -p "$spool" "$WORK/parse-prefix"
# parse starts the listener for a moment: give it a port nobody uses.
echo "smtp $("$PYTHON" "$PEER" free-port)/tcp" >"$WORK/parse-prefix/services"
alternative() {
  printf '%s\r\n' "Return-Path: <anna@example.org>" "From: Anna Rossi <anna@example.org>" \
    "To: 7/desk@fax.example" "Date: Wed, 01 May 2024 09:30:00 +0200" \
    "Subject: =?iso-8859-1?q?Caff=E8?=" "MIME-Version: 1.0" \
    "Content-Type: multipart/alternative; boundary=\"b\"" "" \
    "--b" "Content-Type: text/html" "" "<p>html version</p>" \
    "--b" "Content-Type: text/plain" "" "plain version" "--b--" >"$spool/$1"
}
# parse_once ARGS...: one parse run that must print one record with one
# file; the file's text goes to $WORK/kept.txt.
parse_once() {
  QBSMTP_PREFIX="$WORK/parse-prefix" timeout 30 "$HOST" parse --spool "$spool" "$@" >"$WORK/parse.out" ||
    fail "parse $* failed"
  [ "$(grep -c . "$WORK/parse.out")" -eq 1 ] || fail "parse printed: $(cat "$WORK/parse.out")"
  "$PYTHON" - "$WORK/parse.out" "$WORK/kept.txt" <<'PY' || fail "record: $(cat "$WORK/parse.out")"
import json, sys
record = json.load(open(sys.argv[1]))
expected = {"sender": "anna@example.org", "sender_name": "Anna Rossi",
            "date": "2024-05-01T07:30:00Z", "subject": "Caff\u00e8",
            "to": [{"address": "7@desk", "name": "7/desk@fax.example"}], "cc": [], "ok": True}
for key, value in expected.items():
    assert record[key] == value, (key, record[key])
assert len(record["attachments"]) == 1, record["attachments"]
open(sys.argv[2], "w").write(open(record["attachments"][0]).read())
PY
}
alternative rx000001.822
parse_once
grep -q "plain version" "$WORK/kept.txt" || fail "the default preference did not keep the plain part"
[ -f "$spool/done/rx000001.822" ] || fail "parse did not keep the spool file in done/"
alternative rx000002.822
parse_once --prefer html --delete
grep -q "html version" "$WORK/kept.txt" || fail "--prefer html did not keep the HTML part"
[ ! -e "$spool/rx000002.822" ] && [ ! -e "$spool/done/rx000002.822" ] || fail "--delete left the spool file"
# An empty spool is a pass with nothing to print.
QBSMTP_PREFIX="$WORK/parse-prefix" timeout 30 "$HOST" parse --spool "$spool" >"$WORK/parse.out" || fail "empty parse"
[ ! -s "$WORK/parse.out" ] || fail "an empty spool printed: $(cat "$WORK/parse.out")"

echo "host_parse_test: ok"

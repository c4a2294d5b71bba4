#!/usr/bin/env bash
# qbsmtp-host parse from the build tree: one batch pass over a spool that
# is not being served, the record it prints, the host's preference among
# the parts of a multipart/alternative (default and --prefer), what
# becomes of the spool file (kept in done/, or deleted with --delete), and
# subjects and names as a person reads them (tests/data/host/encoded_words.txt).
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"

spool="$WORK/parse-spool"
use_prefix "$WORK/parse-prefix"
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
  timeout 30 "$HOST" parse --spool "$spool" "$@" >"$WORK/parse.out" || fail "parse $* failed"
  "$PYTHON" - "$WORK/parse.out" "$WORK/kept.txt" <<'PY' || fail "record: $(cat "$WORK/parse.out")"
import json, sys
(record,) = [json.loads(line) for line in open(sys.argv[1])]
expected = {"sender": "anna@example.org", "sender_name": "Anna Rossi",
            "date": "2024-05-01T07:30:00Z", "subject": "Caff\u00e8", "cc": [], "ok": True,
            "to": [{"address": "7@desk", "name": "7/desk@fax.example",
                    "name_raw": "7/desk@fax.example"}]}
for key, value in expected.items():
    assert record[key] == value, (key, record[key])
(attachment,) = record["attachments"]
open(sys.argv[2], "w").write(open(attachment).read())
PY
}
mkdir -p "$spool/done"
echo earlier >"$spool/done/rx000001.822"
alternative rx000001.822
parse_once
grep -q "plain version" "$WORK/kept.txt" || fail "the default preference did not keep the plain part"
grep -q "^--b--" "$spool/done/rx000001.822.1" || fail "parse did not keep the spool file in done/ under a free name"
alternative rx000002.822
parse_once --prefer html --delete
grep -q "html version" "$WORK/kept.txt" || fail "--prefer html did not keep the HTML part"
[ ! -e "$spool/rx000002.822" ] && [ ! -e "$spool/done/rx000002.822" ] || fail "--delete left the spool file"
timeout 30 "$HOST" parse --spool "$spool" >"$WORK/parse.out" || fail "empty parse"
[ ! -s "$WORK/parse.out" ] || fail "an empty spool printed: $(cat "$WORK/parse.out")"
# A file that can't be moved stops parse, which would take it again and again.
rm -r "$spool/done" && echo "in the way" >"$spool/done" && alternative rx000003.822
timeout 30 "$HOST" parse --spool "$spool" >"$WORK/parse.out" 2>&1 && fail "parse went on past a stuck file"
[ "$(grep -c '"file"' "$WORK/parse.out")" -eq 1 ] && rm "$spool/done" "$spool/rx000003.822" || fail "stuck"

# --- encoded words: one message a case, the text as subject and as sender name ---
"$PYTHON" - "$QBSMTP_SOURCE_DIR/tests/data/host/encoded_words.txt" "$spool" <<'PY'
import sys
cases = [l.rstrip("\n").split("\t") for l in open(sys.argv[1], encoding="utf-8") if not l.startswith("#")]
for n, (text, _) in enumerate(cases, 1):
    raw = text.encode("utf-8").decode("unicode_escape").encode("latin-1")
    open("%s/rx%06d.822" % (sys.argv[2], n), "wb").write(
        b"From: " + raw + b" <a@example.org>\r\nSubject: " + raw + b"\r\n\r\nbody\r\n")
PY
timeout 60 "$HOST" parse --spool "$spool" --delete >"$WORK/parse.out" || fail "parse of the encoded words"
"$PYTHON" - "$QBSMTP_SOURCE_DIR/tests/data/host/encoded_words.txt" "$WORK/parse.out" <<'PY' || fail "encoded words"
import json, os, sys
from email.header import decode_header, make_header
cases = [l.rstrip("\n").split("\t") for l in open(sys.argv[1], encoding="utf-8") if not l.startswith("#")]
records = {os.path.basename(r["file"]): r for r in map(json.loads, open(sys.argv[2]))}
bad = 0
for n, (text, expected) in enumerate(cases, 1):
    if expected == "=":
        expected = str(make_header(decode_header(text.encode().decode("unicode_escape"))))
    record = records["rx%06d.822" % n]
    raw = text.encode().decode("unicode_escape")
    # The module reads a name up to its line end: a folded one is cut there.
    for field in ("subject",) + (("sender_name",) if "\\r" not in text else ()):
        if record[field] != expected:
            print("case %d %s: %r, expected %r" % (n, field, record[field], expected)); bad += 1
    # Words of other charsets reach the host as they came, kept in subject_raw.
    if "iso-8859-1" not in text and "\\x" not in text and record["subject_raw"] != raw:
        print("case %d: subject_raw %r" % (n, record["subject_raw"])); bad += 1
sys.exit(bad > 0)
PY
echo "host_parse_test: ok"

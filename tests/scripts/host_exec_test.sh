#!/usr/bin/env bash
# qbsmtp-host --exec: the exit status of the command decides each
# message's fate (tests/data/host/exec_outcomes.txt); a message deferred
# once comes back with the same record and ends in done/, also across a
# restart of serve; 200 messages with a command that fails at random all
# end in done/ or failed/, each exactly once.
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"
spool="$WORK/spool"
use_prefix "$WORK/prefix"
mkdir -p "$spool"
# message N SUBJECT: a spool file with two recipients and a text.
message() {
  printf '%s\r\n' "From: Anna <anna@example.org>" "To: 7/desk@fax.example, 8/desk@fax.example" \
    "Subject: $2" "" "testo" >"$spool/rx$(printf %06d "$1").822"
}
# --- the table of outcomes, in one parse pass ----------------------------------
n=0
while IFS=$'\t' read -r command place; do
  [[ $command == \#* ]] || { n=$((n + 1)); message "$n" "$command"; }
done <"$QBSMTP_SOURCE_DIR/tests/data/host/exec_outcomes.txt"
timeout 60 "$HOST" parse --spool "$spool" --exec 'eval "$QBSMTP_SUBJECT"' --exec-timeout 1 \
  >"$WORK/parse.out" 2>"$WORK/parse.err" || fail "parse --exec: $(cat "$WORK/parse.err")"
n=0
while IFS=$'\t' read -r command place; do
  [[ $command == \#* ]] && continue
  n=$((n + 1))
  name=rx$(printf %06d "$n").822
  [ -f "$spool/$place/$name" ] || fail "\"$command\" did not end in $place: $(cd "$spool" && find . -name "$name*")"
  case $place in
    deferred) [ -f "$spool/deferred/$name.json" ] || fail "no sidecar for \"$command\"" ;;
    failed) [ -f "$spool/failed/$name.files/$(ls "$spool/failed/$name.files")" ] || fail "no text kept for \"$command\""
      grep -q "$name failed" "$WORK/parse.err" || fail "no line on stderr for \"$command\"" ;;
  esac
done <"$QBSMTP_SOURCE_DIR/tests/data/host/exec_outcomes.txt"
grep -q '"0xC0010004"' "$QBSMTP_PREFIX/events.jsonl" || fail "no host event for a failed message"
[ ! -s "$WORK/parse.out" ] || fail "the host printed records beside the command: $(cat "$WORK/parse.out")"
rm -rf "$spool"/*

# --- 75 once, then 0: the same record twice, then done/; again across a restart ---
message 1 "once"
start_serve "$QBSMTP_PREFIX" "$(read_smtp_port)" --spool "$spool" --retry-first 1 \
  --exec "cat >>'$WORK/records'; [ -e '$WORK/seen' ] && exit 0; touch '$WORK/seen'; exit 75"
wait_until 30 test -f "$spool/done/rx000001.822" || fail "the deferred message did not end in done/"
"$PYTHON" - "$WORK/records" <<'PY' || fail "records differ: $(cat "$WORK/records")"
import json, sys
first, second = map(json.loads, open(sys.argv[1]))
assert first.pop("file").endswith("/rx000001.822") and second.pop("file").endswith("/deferred/rx000001.822")
assert first == second and first["subject"] == "once"
PY
stop_serve
message 2 "restart"
start_serve "$QBSMTP_PREFIX" "$(read_smtp_port)" --spool "$spool" --retry-first 1 --exec 'exit 75'
wait_until 30 test -f "$spool/deferred/rx000002.822.json" || fail "not deferred"
stop_serve
start_serve "$QBSMTP_PREFIX" "$(read_smtp_port)" --spool "$spool" --retry-first 1 --exec 'exit 0'
wait_until 30 test -f "$spool/done/rx000002.822" || fail "the deferred message was not retried after the restart"
stop_serve
rm -rf "$spool"/*

# --- 200 messages, a command that fails at random: none lost, none twice ---------
for n in $(seq 1 200); do message "$n" "m-$n"; done
start_serve "$QBSMTP_PREFIX" "$(read_smtp_port)" --spool "$spool" --retry-first 1 --retry-max 3 \
  --exec "r=\$(od -An -N1 -tu1 /dev/urandom); c=1; [ \$r -lt 215 ] && c=75; [ \$r -lt 150 ] && c=0
          echo \"\$QBSMTP_SUBJECT \$c\" >>'$WORK/runs'; exit \$c"
ended() { [ "$(find "$spool/done" "$spool/failed" -name 'rx*.822' 2>/dev/null | wc -l)" -ge 200 ]; }
wait_until 120 ended || fail "not all 200 messages ended: $(find "$spool" -name 'rx*.822' | wc -l) files"
stop_serve
"$PYTHON" - "$spool" "$WORK/runs" <<'PY' || fail "messages lost or doubled"
import glob, re, sys
last = {}
for line in open(sys.argv[2]):
    subject, status = line.split()
    last[subject] = status
ends = {}
for place in ("done", "failed"):
    for path in glob.glob(sys.argv[1] + "/%s/rx*.822" % place):
        subject = re.search(rb"Subject: (\S+)", open(path, "rb").read()).group(1).decode()
        assert subject not in ends, subject + " twice"
        ends[subject] = place
assert sorted(ends) == sorted("m-%d" % n for n in range(1, 201)), len(ends)
for subject, place in ends.items():
    assert (place == "done") == (last[subject] == "0"), (subject, place, last[subject])
assert not glob.glob(sys.argv[1] + "/*.822") and not glob.glob(sys.argv[1] + "/deferred/*")
PY
echo "host_exec_test: ok"

#!/usr/bin/env bash
# qbsmtp-host send through aiosmtpd relays that want TLS and AUTH, with a CA
# and certificates made here by openssl (tests/support/make_certs.sh). Each
# row: the relay's certificate, its mode, a mechanism it leaves out, the
# send options, the exit status wanted (0 delivered, 75 failed for now, 1
# failed for good), the event id wanted in the log, and the mechanism the
# relay saw ("-": nothing delivered). No secret may reach the output, the
# event log or the settings file.
set -euo pipefail
python=/usr/bin/python3
"$python" -c 'import aiosmtpd' 2>/dev/null || { echo "SKIP: python3-aiosmtpd missing"; exit 77; }
"$QBSMTP_BUILD_DIR/qbsmtp-host" send --help | grep -q -- --security || { echo "SKIP"; exit 77; }
work=$(mktemp -d /tmp/qbsmtp-tls-XXXXXXXX)
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
cd "$work"
sh "$QBSMTP_SOURCE_DIR/tests/support/make_certs.sh" "$work"
# A certificate of the trusted CA for another name only.
openssl req -newkey rsa:2048 -nodes -keyout wrong.key -out wrong.csr -subj /CN=other.test 2>/dev/null
printf 'subjectAltName=DNS:other.test\n' >wrong.ext
openssl x509 -req -in wrong.csr -CA ca.pem -CAkey ca.key -days 1 -extfile wrong.ext -out wrong.pem 2>/dev/null
printf 'pw-Secret-1\n' >password; printf 'wrong-Secret-3\n' >badpassword; printf 'tok-Secret-2\n' >token
printf 'Hello\n' >body.txt

# relay CERT KEY MODE EXCLUDE: starts one, sets port.
relay() {
  mkdir -p "got.$1.$3.$4"
  exec 3< <(exec "$python" "$QBSMTP_SOURCE_DIR/tests/scripts/tls_relay.py" "$1" "$2" "$3" "got.$1.$3.$4" $4 2>>relay.err)
  pids+=($!)
  read -r -t 20 port <&3 || fail "relay did not start"
}

# A prefix whose settings others can read gets a warning; its debug texts
# (DebugLog) must not show the secret either.
mkdir -p p1
printf 'REGEDIT4\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM]\n"DebugLog"=dword:00000001\n' >p1/registry.reg
chmod 644 p1/registry.reg
n=0
while IFS='|' read -r cert mode exclude options want event mechanism; do
  [[ $cert == \#* || -z $cert ]] && continue
  n=$((n + 1))
  key=key.pem; [[ $cert == wrong.pem ]] && key=wrong.key
  relay "$cert" "$key" "$mode" "$exclude"
  mkdir -p "p$n"
  status=0
  QBSMTP_PREFIX=$work/p$n timeout 60 "$QBSMTP_BUILD_DIR/qbsmtp-host" send --relay 127.0.0.1 \
    --port "$port" --from fax@gw.test --to one@example.test $options body.txt >"out$n" 2>&1 || status=$?
  [[ $status == "$want" ]] || fail "case $n ($options): exit $status, wanted $want: $(cat "out$n")"
  grep -q "\"$event\"" "p$n/events.jsonl" 2>/dev/null || [[ $event == - ]] ||
    fail "case $n: no event $event in $(cat "p$n/events.jsonl" 2>/dev/null)"
  got=$(cat "got.$cert.$mode.$exclude"/*.env 2>/dev/null | awk '{print $3}' | tail -1 || true)
  [[ ${got:--} == "$mechanism" ]] || fail "case $n: relay saw ${got:--}, wanted $mechanism"
  ! grep -rq 'Secret' "p$n" "out$n" || fail "case $n: a secret was written: $(grep -r Secret "p$n" "out$n")"
  rm -rf "got.$cert.$mode.$exclude"
done <<'CASES'
# cert | mode | exclude | options | exit | event | mechanism seen
good.pem|starttls|-|--security require-starttls --ca-file ca.pem --user fax --password-file password|0|-|PASSWORD
good.pem|starttls|PLAIN|--security starttls --ca-file ca.pem --user fax --password-file password|0|-|PASSWORD
good.pem|starttls|-|--security starttls --ca-file ca.pem --user fax --token-file token|0|-|XOAUTH2
good.pem|tls|-|--security tls --ca-file ca.pem --user fax --password-file password|0|-|PASSWORD
wrong.pem|starttls|-|--security require-starttls --ca-file ca.pem --user fax --password-file password|1|0xC0004F07|-
expired.pem|tls|-|--security tls --ca-file ca.pem --user fax --password-file password|1|0xC0004F07|-
stranger.pem|tls|-|--security tls --user fax --password-file password|1|0xC0004F07|-
stranger.pem|tls|-|--security tls --no-verify --user fax --password-file password|0|0x80004F06|PASSWORD
good.pem|starttls|-|--security require-starttls --ca-file ca.pem --user fax --password-file badpassword|1|0xC0004F09|-
good.pem|starttls|-|--security require-starttls --ca-file ca.pem --user fax --token-file password|1|0xC0004F09|-
CASES
grep -q 'readable by other users' out1 || fail "no warning for a readable registry.reg"
grep -q 'AUTH PLAIN' p1/events.jsonl || fail "no debug texts in case 1, so none was checked"
echo "ok: $n cases"

#!/usr/bin/env bash
# qbsmtp-host serve with STARTTLS: Python's smtplib and swaks deliver over
# STARTTLS, trusting the test CA made here by openssl (make_certs.sh), and
# each spool file's Received line says ESMTPS (RFC 3848). With
# --require-tls, a MAIL in plain text gets RFC 3207's 530. A key that is
# not the certificate's gives warning event 0x80004EAF and an EHLO reply
# without STARTTLS (--esmtp still answers EHLO).
set -euo pipefail
source "$(dirname "$0")/host_test_lib.sh"
command -v swaks >/dev/null && command -v openssl >/dev/null && perl -MNet::SSLeay -e1 2>/dev/null ||
  { echo "SKIP: swaks, its TLS (libnet-ssleay-perl) or openssl missing"; exit 77; }
sh "$QBSMTP_SOURCE_DIR/tests/support/make_certs.sh" "$WORK"
cd "$WORK"

# client PORT MODE: smtplib as a client of serve; prints what it saw.
client() {
  "$PYTHON" - "$@" <<'PY'
import smtplib, ssl, sys
port, mode = int(sys.argv[1]), sys.argv[2]
with smtplib.SMTP("127.0.0.1", port, local_hostname="py.example", timeout=20) as s:
    s.ehlo()
    print("offers", " ".join(sorted(s.esmtp_features)))
    print("size", s.esmtp_features.get("size", "-"))
    if mode == "tls":
        print("plain MAIL", s.mail("py@example.test")[0])
        s.starttls(context=ssl.create_default_context(cafile="ca.pem"))
        s.ehlo()
        print("after", " ".join(sorted(s.esmtp_features)))
        s.sendmail("py@example.test", ["fax@example.test"], "Subject: py\r\n\r\nvia smtplib\r\n")
        print("sent")
PY
}

port=$("$PYTHON" "$PEER" free-port)
start_serve "$WORK/p1" "$port" --mask 0x80000000 --tls-cert good.pem --tls-key key.pem --require-tls
if grep -q "not part of this build" "$WORK/serve.err"; then echo "SKIP: a build without TLS"; exit 77; fi
client "$port" tls >py.out || fail "smtplib: $(cat py.out)"
# Expected from RFC 3207 and the extensions offered: STARTTLS before, not
# after; SIZE bare without a limit (RFC 1870).
grep -qx "offers 8bitmime pipelining size starttls" py.out || fail "EHLO before TLS: $(cat py.out)"
grep -qx "size " py.out || fail "SIZE with a value and no limit: $(cat py.out)"
grep -qx "plain MAIL 530" py.out || fail "plain MAIL not refused: $(cat py.out)"
grep -qx "after 8bitmime pipelining size" py.out || fail "EHLO under TLS: $(cat py.out)"
timeout 30 swaks --server 127.0.0.1 --port "$port" --tls --tls-verify --tls-ca-path ca.pem \
  --helo swaks.example --from sw@example.test --to fax@example.test --body "via swaks" \
  >swaks.out 2>&1 || fail "swaks: $(cat swaks.out)"
received() { grep -qs "^Received: from $1 by .* with ESMTPS ; " "$WORK"/p1/spool/done/*.822; }
wait_until 20 received py.example || fail "no ESMTPS message from smtplib"
wait_until 20 received swaks.example || fail "no ESMTPS message from swaks"
stop_serve

port=$("$PYTHON" "$PEER" free-port)
# The limits' options reach the module too: SIZE shows the limit, and the
# allowed range lets the client in.
start_serve "$WORK/p2" "$port" --tls-cert good.pem --tls-key ca.key --esmtp --max-message-size 100 \
  --allow 127.0.0.0/8 --max-sessions 5
grep -q "0x80004EAF  Certificato TLS .*good.pem o chiave .*ca.key non utilizzabili" "$WORK/serve.err" ||
  fail "no event for the mismatched key: $(cat "$WORK/serve.err")"
client "$port" plain >py.out || fail "smtplib: $(cat py.out)"
grep -qx "offers 8bitmime pipelining size" py.out || fail "EHLO with a bad key: $(cat py.out)"
grep -qx "size 100" py.out || fail "SIZE without --max-message-size's value: $(cat py.out)"
stop_serve

# check: the pair loads and matches, with the end date openssl itself reads.
settings() {
  printf '%s\r\n' REGEDIT4 '[HKEY_LOCAL_MACHINE\SOFTWARE\KELTO\Quillbox32\SM]' \
    "\"TlsCertificateFile\"=\"$WORK/good.pem\"" "\"TlsKeyFile\"=\"$WORK/$1\"" >"$WORK/p2/registry.reg"
  QBSMTP_PREFIX="$WORK/p2" timeout 20 "$HOST" check | grep "TLS certificate" || true
}
until=$(openssl x509 -enddate -noout -in good.pem | sed 's/^notAfter=//')
settings key.pem | grep -qx "ok       TLS certificate: $WORK/good.pem and its key load and match; valid until $until" ||
  fail "check with a good pair: $(settings key.pem)"
settings ca.key | grep -q "^PROBLEM  TLS certificate: $WORK/ca.key does not load or is not the certificate's key" ||
  fail "check with a mismatched key: $(settings ca.key)"
echo "reception_tls_test: ok"

#!/usr/bin/env bash
# qbsmtp-host send delivers a message through QBSMTP.so to an SMTP server
# nobody here wrote (aiosmtpd, on loopback); Python's email package finds the
# text body unchanged and every attachment byte for byte in what arrived.
set -euo pipefail
python=/usr/bin/python3  # Debian's, which has python3-aiosmtpd
peer=$QBSMTP_SOURCE_DIR/tests/scripts/smtp_peer.py
"$python" -c 'import aiosmtpd' 2>/dev/null || { echo "SKIP: python3-aiosmtpd missing"; exit 77; }
work=$(mktemp -d /tmp/qbsmtp-interop-XXXXXXXX)  # no dot: the text body is told by its first dot
sink_pid=
trap '[[ -z $sink_pid ]] || kill "$sink_pid"; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# From tests/data/scripts/interop: a text body with dots, blank lines, bytes
# above 127 and a long line, an empty file, a text attachment, and a registry
# that knows the type .qbtype. Made here: binary attachments around the
# 54-byte blocks of base64.
files=$work/files
cp -r "$QBSMTP_SOURCE_DIR/tests/data/scripts/interop" "$files"
mkdir -p "$work/sink" "$work/prefix"
mv "$files/registry.reg" "$work/prefix"
head -c 100000 /dev/urandom >"$files/scan.tif"
head -c 55 /dev/urandom >"$files/doc.pdf"
head -c 5401 /dev/urandom >"$files/data.qbtype"
attachments=("$files/scan.tif" "$files/doc.pdf" "$files/empty.dcx" "$files/data.qbtype" "$files/notes.txt")

# The sink prints its port once it listens.
exec 3< <(exec "$python" "$peer" sink "$work/sink")
sink_pid=$!
read -r -t 20 port <&3 || fail "aiosmtpd did not start"

# send --to RECIPIENT...: the message (all recipients in one RCPT, joined by
# ","); sets status.
send() {
  status=0
  QBSMTP_PREFIX=$work/prefix timeout 60 "$QBSMTP_BUILD_DIR/qbsmtp-host" send --relay 127.0.0.1 \
    --port "$port" --from fax@gw.test "$@" --subject 'Interop 1' "$files/body.txt" \
    "${attachments[@]}" >"$work/send.out" 2>&1 || status=$?
}

# The sink has saved the message before its 250, so it is there once send returns.
send --to one@example.test
[[ $status == 0 ]] || fail "send exited $status: $(cat "$work/send.out")"
[[ $(cat "$work/sink/001.env") == $'fax@gw.test\none@example.test' ]] || fail "envelope $(cat "$work/sink/001.env")"
"$python" "$peer" check-delivered "$work/sink/001.eml" fax@gw.test one@example.test 'Interop 1' \
  "$files/body.txt" "${attachments[@]}"

# aiosmtpd checks a path's syntax and refuses the joined one (553): failed for now.
send --to one@example.test --to two@example.test
[[ $status == 75 ]] || fail "joined recipients gave exit $status, not 75: $(cat "$work/send.out")"
[[ ! -e $work/sink/002.env ]] || fail "a refused message arrived"
echo "ok: delivered to aiosmtpd"

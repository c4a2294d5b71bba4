#!/usr/bin/env bash
# Delivers messages with QBSMTP.so to SMTP servers that nobody here wrote
# (aiosmtpd, and Postfix's smtp-sink when it is installed), on loopback,
# and checks with Python's email package that what arrived holds the text
# body unchanged and every attachment byte for byte.
set -euo pipefail

build=${QBSMTP_BUILD_DIR:?QBSMTP_BUILD_DIR must name the build tree}
source_dir=${QBSMTP_SOURCE_DIR:?QBSMTP_SOURCE_DIR must name the source tree}
driver=$build/qbsmtp_send_driver
module=$build/QBSMTP.so
scripts=$source_dir/tests/scripts
python=/usr/bin/python3  # Debian's, which has python3-aiosmtpd

# No dot in the directory: the text body is recognised by the first dot of
# its whole path.
work=$(mktemp -d /tmp/qbsmtp-interop-XXXXXXXX)
server_pid=
cleanup() {
    if [[ -n $server_pid ]]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

free_port() {
    "$python" -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Waits until something listens on port (at most 10 s).
wait_for_port() {
    "$python" - "$1" <<'PY'
import socket, sys, time
deadline = time.time() + 10
while time.time() < deadline:
    try:
        socket.create_connection(("127.0.0.1", int(sys.argv[1])), 0.5).close()
        sys.exit(0)
    except OSError:
        time.sleep(0.05)
sys.exit("nothing listens on port " + sys.argv[1])
PY
}

# Waits until a file matching the glob exists (at most 10 s); prints it.
wait_for_file() {
    for _ in $(seq 200); do
        for f in $1; do [[ -e $f ]] && { echo "$f"; return 0; }; done
        sleep 0.05
    done
    echo "no file $1" >&2
    return 1
}

# The files of one message: a text body with dots, blank lines, bytes
# above 127 and a long line; binary attachments of sizes around the
# 54-byte base64 blocks; a type that only the registry knows.
files=$work/files
mkdir -p "$files"
{
    printf 'Dear reader,\r\n\r\n.a line that starts with a dot\r\n.\r\n..\r\n'
    printf 'Caff\xe8 and \xff bytes\r\n'
    head -c 900 /dev/zero | tr '\0' 'x'; printf '\r\n'
    printf 'last line without end'
} > "$files/body.txt"
head -c 100000 /dev/urandom > "$files/scan.tif"
head -c 55 /dev/urandom > "$files/doc.pdf"
head -c 0 /dev/urandom > "$files/empty.dcx"
head -c 5401 /dev/urandom > "$files/data.qbtype"
printf 'notes\n.dot\n' > "$files/notes.txt"
attachments=("$files/scan.tif" "$files/doc.pdf" "$files/empty.dcx" "$files/data.qbtype" "$files/notes.txt")

# Sends the message to 127.0.0.1:port with a fresh prefix, to the
# recipients given (all in one RCPT, joined by ",").
send_to() {
    local port=$1 prefix=$work/prefix-$1
    shift
    local recipients=()
    for r in "$@"; do recipients+=(-t "$r"); done
    mkdir -p "$prefix"
    printf 'smtp %s/tcp\n' "$port" > "$prefix/services"
    printf 'REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM]\r\n"HostName"="gw.test"\r\n"SendTimeout"=dword:0000000a\r\n\r\n[HKEY_CLASSES_ROOT\\.qbtype]\r\n"Content Type"="application/x-qb-test"\r\n' > "$prefix/registry.reg"
    QBSMTP_PREFIX=$prefix "$driver" "$module" 127.0.0.1 -f 'fax@gw.test' "${recipients[@]}" \
        -s 'Interop 1' "$files/body.txt" "${attachments[@]}"
}

# check MESSAGE TO-HEADER
check() {
    "$python" "$scripts/check_delivered_message.py" "$1" 'fax@gw.test' "$2" 'Interop 1' \
        "$files/body.txt" "${attachments[@]}"
}

# ---- aiosmtpd -----------------------------------------------------------
port=$(free_port)
mkdir -p "$work/aiosmtpd"
PYTHONPATH=$scripts "$python" -m aiosmtpd -n -l "127.0.0.1:$port" \
    -c interop_save_handler.SaveToDirectory "$work/aiosmtpd" &
server_pid=$!
wait_for_port "$port"
send_to "$port" one@example.test
wait_for_file "$work/aiosmtpd/001.env" >/dev/null
envelope=$(cat "$work/aiosmtpd/001.env")
[[ $envelope == $'fax@gw.test\none@example.test' ]] || { echo "FAIL: envelope $envelope"; exit 1; }
check "$work/aiosmtpd/001.eml" one@example.test
# Several recipients go in one RCPT, joined by ","; a relay that checks the
# path's syntax, as aiosmtpd does, refuses it (553): failed for now.
status=0
send_to "$port" one@example.test two@example.test || status=$?
[[ $status == 1 ]] || { echo "FAIL: joined recipients gave status $status, not 1"; exit 1; }
[[ ! -e $work/aiosmtpd/002.env ]] || { echo "FAIL: a refused message arrived"; exit 1; }
kill "$server_pid"; wait "$server_pid" 2>/dev/null || true; server_pid=

# ---- Postfix smtp-sink ------------------------------------------------------
sink=$(command -v smtp-sink || echo /usr/sbin/smtp-sink)
if [[ ! -x $sink ]]; then
    echo "SKIP: smtp-sink not installed (Debian package postfix)"
    exit 0
fi
port=$(free_port)
mkdir -p "$work/sink"
chmod 755 "$work"  # smtp-sink writes as nobody
chmod 777 "$work/sink"
sink_user=()
[[ $(id -u) == 0 ]] && sink_user=(-u nobody)
"$sink" "${sink_user[@]}" -d "$work/sink/%H%M%S." "127.0.0.1:$port" 5 &
server_pid=$!
wait_for_port "$port"
send_to "$port" one@example.test two@example.test
dump=$(wait_for_file "$work/sink/*")
sleep 0.2  # the dump is written while the sink answers; let it finish
# smtp-sink puts its own X- lines about the session before the message.
"$python" - "$dump" "$work/sink.eml" <<'PY'
import sys
data = open(sys.argv[1], "rb").read()
lines = data.split(b"\n")
while lines and lines[0].startswith(b"X-"):
    lines.pop(0)
open(sys.argv[2], "wb").write(b"\n".join(lines))
PY
check "$work/sink.eml" one@example.test,two@example.test
echo "ok: delivered to aiosmtpd and smtp-sink"

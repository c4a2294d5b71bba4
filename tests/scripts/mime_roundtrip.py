#!/usr/bin/python3
# Round trip of generated MIME messages: the files `qbsmtp-host parse` makes
# of each spool file against the payloads Python's email package decodes from
# the same file.
#
#     mime_roundtrip.py HOST WORK_DIR [COUNT]
#
# Messages: single parts and multipart trees (mixed, alternative inside mixed,
# mixed inside mixed) with random binary attachments of 0 to 2 MB in base64,
# and quoted-printable texts whose encoded lines run from 10 to 300 characters
# with soft breaks anywhere. Some come from our own generator (to reach long
# lines), some from the email package's.
#
# What the module keeps of a tree: each leaf of a mixed level in order, and the
# plain text of an alternative level (parse prefers plain; it comes first in
# every alternative here). A quoted-printable file ends with the line end of
# its last line unless that line is a soft break; the email package leaves
# the line end in front of a boundary out of the payload.
import base64
import email
import email.policy
import json
import os
import pathlib
import random
import socket
import subprocess
import sys
from email.message import EmailMessage

def qp_encode(text, rng):
    # Encoded lines of random length, soft breaks anywhere but inside an
    # escape, no trailing white space, no line that opens with a dash.
    out = []
    for line in text.split(b"\r\n"):
        pieces, length, limit = [], 0, rng.randint(10, 300)
        for i, byte in enumerate(line):
            plain = 33 <= byte <= 126 and byte != ord("=") or byte in (9, 32) and i < len(line) - 1
            token = bytes([byte]) if plain else b"=%02X" % byte
            if length + len(token) > limit:
                pieces.append(b"=\r\n")
                length, limit = 0, rng.randint(10, 300)
            if length == 0 and token in (b"-", b" ", b"\t"):
                token = b"=%02X" % byte  # a blank here could end up trailing
            pieces.append(token)
            length += len(token)
        out.append(b"".join(pieces).replace(b" =\r\n", b"=20=\r\n").replace(b"\t=\r\n", b"=09=\r\n"))
    return b"\r\n".join(out)


def random_text(rng, lines):
    words = [b"alpha", b"beta", b"=", b"caf\xc3\xa9", b"--x", b"\t", b"  ", b"end.", b"\xff"]
    return b"\r\n".join(b" ".join(rng.choice(words) for _ in range(rng.choice([0, 1, 5, 20, 60, 150])))
                        for _ in range(lines))


def leaf(ctype, cte, body, name=None):
    header = b"Content-Type: " + ctype.encode() + (b'; name="%s"' % name.encode() if name else b"")
    return header + b"\r\nContent-Transfer-Encoding: " + cte.encode() + b"\r\n\r\n" + body


def multi(subtype, parts, boundary):
    b = boundary.encode()
    text = b'Content-Type: multipart/%s; boundary="%s"\r\n\r\nThis is a preamble.\r\n' % (subtype.encode(), b)
    return text + b"".join(b"--" + b + b"\r\n" + part + b"\r\n" for part in parts) + b"--" + b + b"--\r\nepilogue\r\n"


def attachment(rng, index):
    data = rng.randbytes(rng.choice([0, 1, 2, 3, 1000, rng.randint(0, 2 << 20)]))
    encoded = base64.b64encode(data)
    width = rng.choice([76, 64, 1000])
    body = b"\r\n".join(encoded[i:i + width] for i in range(0, len(encoded), width))
    ctype, extension = rng.choice([("application/octet-stream", "bin"), ("image/gif", "gif"),
                                   ("application/pdf", "pdf")])
    return leaf(ctype, "base64", body, "file%d.%s" % (index, extension) if rng.random() < 0.7 else None)


def qp_text(rng, subtype="plain"):
    return leaf("text/" + subtype, "quoted-printable", qp_encode(random_text(rng, rng.randint(1, 30)), rng))


def own_message(rng, index):
    boundaries = ("=_b%d_%d_%x" % (index, n, rng.getrandbits(32)) for n in range(1000))
    if index % 4 < 2:
        body = attachment(rng, 0) if index % 4 == 0 else qp_text(rng)
    elif index % 4 == 2:
        body = multi("mixed", [qp_text(rng)] + [attachment(rng, i) for i in range(rng.randint(1, 3))],
                     next(boundaries))
    else:
        alternative = multi("alternative", [qp_text(rng), qp_text(rng, "html")], next(boundaries))
        inner = multi("mixed", [attachment(rng, 1), attachment(rng, 2)], next(boundaries))
        body = multi("mixed", [alternative, inner, attachment(rng, 3),
                               leaf("text/plain", "7bit", b"seven bit\r\ntext")], next(boundaries))
    return b"From: a@example.org\r\nMIME-Version: 1.0\r\n" + body


def library_message(rng, index):
    msg = EmailMessage(policy=email.policy.SMTP)
    msg["From"] = "a@example.org"
    msg["Subject"] = "library message %d" % index
    text = random_text(rng, 20).decode("latin-1").replace("\r\n", "\n")
    msg.set_content(text, cte="quoted-printable")
    msg.add_alternative("<p>" + text[:200] + "</p>", subtype="html", cte="quoted-printable")
    for i in range(rng.randint(0, 2)):
        msg.add_attachment(rng.randbytes(rng.randint(0, 2 << 20)), maintype="application",
                           subtype="octet-stream", filename="lib%d.dat" % i)
    return msg.as_bytes()


def expected_files(part):
    # What the module keeps of a parsed message, as (payload, extension).
    if part.is_multipart():
        children = part.get_payload()[:1 if part.get_content_subtype() == "alternative" else None]
        return [f for child in children for f in expected_files(child)]
    payload = part.get_payload(decode=True)
    if part.get("Content-Transfer-Encoding", "").lower() == "quoted-printable":
        if not part.get_payload().split("\n")[-1].rstrip(" \t\r").endswith("="):
            payload += b"\r\n"
    name = part.get_param("name")
    return [(payload, os.path.splitext(name)[1] if name else None)]


def main():
    host, work = sys.argv[1], pathlib.Path(sys.argv[2])
    count = int(sys.argv[3]) if len(sys.argv) > 3 else 16
    rng = random.Random(20261118)
    spool = work / "spool"
    spool.mkdir(parents=True)
    expected = {}
    for index in range(count):
        message = own_message(rng, index) if index % 3 else library_message(rng, index)
        data = b"Return-Path: <a@example.org>\r\nReceived: from x by y with SMTP\r\n" + message
        data = data[:-2] if data.endswith(b"\r\n") else data  # a spool file has no last line end
        path = spool / ("rx%06d.822" % index)
        path.write_bytes(data)
        expected[str(path)] = expected_files(email.message_from_bytes(data, policy=email.policy.compat32))
    with socket.socket() as s:  # parse starts and stops the listener on the port of smtp
        s.bind(("127.0.0.1", 0))
        (work / "services").write_text("smtp %d/tcp\n" % s.getsockname()[1])
    output = subprocess.run([host, "parse", "--spool", str(spool), "--delete"], check=True, timeout=600,
                            capture_output=True, env=dict(os.environ, QBSMTP_PREFIX=str(work))).stdout
    records = {r["file"]: r for r in map(json.loads, output.splitlines())}
    problems = [] if set(records) == set(expected) else ["records for %s" % sorted(records)]
    for file, record in records.items():
        got = [(pathlib.Path(path).read_bytes(), path) for path in record["attachments"]]
        wanted = expected.get(file, [])
        if not record["ok"] or [g for g, _ in got] != [w for w, _ in wanted]:
            problems.append("%s: the files %s differ from the email package's" % (file, record["attachments"]))
        problems += ["%s does not end in %s" % (path, extension)
                     for (_, path), (_, extension) in zip(got, wanted) if extension and not path.endswith(extension)]
    print("\n".join(problems) or "%d messages: all files equal" % count)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

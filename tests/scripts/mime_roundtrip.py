#!/usr/bin/env python3
"""Round trip of generated MIME messages: SMTPRecvNext (through the
spool_parse_driver) against the payloads that Python's email package
decodes from the same spool file.

    mime_roundtrip.py <driver> <work-dir> [count]

Messages: single parts and multipart trees (mixed, alternative inside
mixed, mixed inside mixed) with random binary attachments of 0 to 2 MB in
base64, and quoted-printable texts whose encoded lines run from 10 to 300
characters with soft breaks anywhere. Some are made by our own generator
(to reach long lines), some by the email package's.

What the module keeps of a tree: each leaf of a mixed level in order, and
the first leaf of an alternative level (the driver gives no rank table).
A quoted-printable file ends with the line end of its last line unless
that line is a soft break; the email package leaves the line end in front
of a boundary (or at the end) out of the payload.
"""
import email
import email.policy
import os
import pathlib
import random
import shutil
import subprocess
import sys
from email.message import EmailMessage

MB = 1024 * 1024


def qp_encode(text, rng):
    """Quoted-printable of bytes whose lines end in CR LF: encoded lines of
    random length (10 to 300), soft breaks anywhere but inside an escape,
    no trailing white space, and no line that opens with a dash."""
    out = []
    lines = text.split(b"\r\n")
    for n, line in enumerate(lines):
        tokens = []
        for i, byte in enumerate(line):
            last = i == len(line) - 1
            if (33 <= byte <= 126 and byte != ord("=")) or (byte in (9, 32) and not last):
                tokens.append(bytes([byte]))
            else:
                tokens.append(b"=%02X" % byte)
        encoded_line = []
        length = 0
        limit = rng.randint(10, 300)
        for token in tokens:
            if length + len(token) > limit:
                encoded_line.append(b"=\r\n")
                length = 0
                limit = rng.randint(10, 300)
            if length == 0 and token == b"-":
                token = b"=2D"
            if length == 0 and token in (b" ", b"\t"):
                # A blank at the start of a piece could end up trailing.
                token = b"=%02X" % token[0]
            encoded_line.append(token)
            length += len(token)
        # A blank before a soft break would be trailing white space.
        joined = b"".join(encoded_line)
        joined = joined.replace(b" =\r\n", b"=20=\r\n").replace(b"\t=\r\n", b"=09=\r\n")
        out.append(joined)
    return b"\r\n".join(out)


def random_text(rng, lines):
    words = [b"alpha", b"beta", b"=", b"caf\xc3\xa9", b"--x", b"\t", b"  ", b"end.", b"\xff"]
    result = []
    for _ in range(lines):
        n = rng.choice([0, 1, 5, 20, 60, 150])
        result.append(b" ".join(rng.choice(words) for _ in range(n)))
    return b"\r\n".join(result)


def b64_body(data, rng):
    encoded = __import__("base64").b64encode(data)
    width = rng.choice([76, 64, 1000])
    return b"\r\n".join(encoded[i:i + width] for i in range(0, len(encoded), width)) or b""


class Leaf:
    def __init__(self, ctype, cte, body, name=None):
        self.ctype, self.cte, self.body, self.name = ctype, cte, body, name

    def render(self):
        header = b"Content-Type: " + self.ctype.encode()
        if self.name:
            header += b'; name="' + self.name.encode() + b'"'
        header += b"\r\nContent-Transfer-Encoding: " + self.cte.encode() + b"\r\n\r\n"
        return header + self.body


class Multi:
    def __init__(self, subtype, parts, boundary):
        self.subtype, self.parts, self.boundary = subtype, parts, boundary

    def render(self):
        b = self.boundary.encode()
        text = b"Content-Type: multipart/" + self.subtype.encode() + b'; boundary="' + b + b'"\r\n\r\n'
        text += b"This is a preamble.\r\n"
        for part in self.parts:
            text += b"--" + b + b"\r\n" + part.render() + b"\r\n"
        return text + b"--" + b + b"--\r\nepilogue\r\n"


def attachment(rng, index):
    size = rng.choice([0, 1, 2, 3, 1000, rng.randint(0, 2 * MB)])
    data = rng.randbytes(size)
    kind = rng.choice([("application/octet-stream", "bin"), ("image/gif", "gif"),
                       ("application/pdf", "pdf")])
    name = "file%d.%s" % (index, kind[1]) if rng.random() < 0.7 else None
    return Leaf(kind[0], "base64", b64_body(data, rng), name)


def qp_text(rng, subtype="plain"):
    return Leaf("text/" + subtype, "quoted-printable", qp_encode(random_text(rng, rng.randint(1, 30)), rng))


def own_message(rng, index):
    counter = iter(range(1000))
    boundary = lambda: "=_b%d_%d_%x" % (index, next(counter), rng.getrandbits(32))
    shape = index % 4
    if shape == 0:
        body = attachment(rng, 0)
    elif shape == 1:
        body = qp_text(rng)
    elif shape == 2:
        body = Multi("mixed", [qp_text(rng)] + [attachment(rng, i) for i in range(rng.randint(1, 3))],
                     boundary())
    else:
        alternative = Multi("alternative", [qp_text(rng), qp_text(rng, "html")], boundary())
        inner = Multi("mixed", [attachment(rng, 1), attachment(rng, 2)], boundary())
        body = Multi("mixed", [alternative, inner, attachment(rng, 3), Leaf("text/plain", "7bit", b"seven bit\r\ntext")],
                     boundary())
    return b"From: a@example.org\r\nMIME-Version: 1.0\r\n" + body.render()


def library_message(rng, index):
    msg = EmailMessage(policy=email.policy.SMTP)
    msg["From"] = "a@example.org"
    msg["Subject"] = "library message %d" % index
    text = random_text(rng, 20).decode("latin-1").replace("\r\n", "\n")
    msg.set_content(text, cte="quoted-printable")
    msg.add_alternative("<p>" + text[:200] + "</p>", subtype="html", cte="quoted-printable")
    for i in range(rng.randint(0, 2)):
        data = rng.randbytes(rng.randint(0, 2 * MB))
        msg.add_attachment(data, maintype="application", subtype="octet-stream",
                           filename="lib%d.dat" % i)
    return msg.as_bytes(policy=email.policy.SMTP)


def expected_files(part):
    """What the module keeps of a parsed message, as (payload, extension)."""
    if part.is_multipart():
        children = part.get_payload()
        if part.get_content_subtype() == "alternative":
            children = children[:1]
        return [f for child in children for f in expected_files(child)]
    payload = part.get_payload(decode=True)
    if part.get("Content-Transfer-Encoding", "").lower() == "quoted-printable":
        raw = part.get_payload().encode("latin-1") if isinstance(part.get_payload(), str) else part.get_payload()
        last = raw.split(b"\n")[-1].rstrip(b" \t\r")
        if not last.endswith(b"="):
            payload += b"\r\n"
    name = part.get_param("name")
    return [(payload, os.path.splitext(name)[1] if name else None)]


def run_one(driver, work, index, message):
    spool = work / ("m%02d" % index)
    shutil.rmtree(spool, ignore_errors=True)
    spool.mkdir(parents=True)
    spool_bytes = b"Return-Path: <a@example.org>\r\nReceived: from x by y with SMTP\r\n" + message
    if spool_bytes.endswith(b"\r\n"):
        spool_bytes = spool_bytes[:-2]
    (spool / "rx000001.822").write_bytes(spool_bytes)

    output = subprocess.run([driver, str(spool)], check=True, capture_output=True,
                            env=dict(os.environ, QBSMTP_PREFIX=str(spool))).stdout.decode()
    lines = output.splitlines()
    files = [line[len("attachment "):] for line in lines if line.startswith("attachment ")]
    parsed = email.message_from_bytes(spool_bytes, policy=email.policy.compat32)
    expected = expected_files(parsed)

    problems = []
    if "result 1" not in lines:
        problems.append("result: " + output)
    if len(files) != len(expected):
        problems.append("%d files, expected %d" % (len(files), len(expected)))
    for n, (path, (payload, extension)) in enumerate(zip(files, expected)):
        got = pathlib.Path(path).read_bytes()
        if got != payload:
            at = next((i for i in range(min(len(got), len(payload))) if got[i] != payload[i]),
                      min(len(got), len(payload)))
            problems.append("file %d: %d bytes, expected %d; first difference at %d: %r / %r"
                            % (n, len(got), len(payload), at, got[at:at + 20], payload[at:at + 20]))
        if extension and not path.endswith(extension):
            problems.append("file %d: %s does not end in %s" % (n, path, extension))
    if problems:
        print("message %d (%s):\n  %s" % (index, spool, "\n  ".join(problems)))
        return None
    shutil.rmtree(spool)
    return len(files), sum(len(payload) for payload, _ in expected)


def main():
    driver, work = sys.argv[1], pathlib.Path(sys.argv[2])
    count = int(sys.argv[3]) if len(sys.argv) > 3 else 16
    rng = random.Random(20261118)
    ok = True
    files = size = 0
    for index in range(count):
        message = own_message(rng, index) if index % 3 else library_message(rng, index)
        outcome = run_one(driver, work, index, message)
        if outcome is None:
            ok = False
        else:
            files, size = files + outcome[0], size + outcome[1]
    print("%d messages, %d files, %d bytes: %s"
          % (count, files, size, "all equal" if ok else "DIFFERENCES"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())

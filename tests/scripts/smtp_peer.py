#!/usr/bin/python3
# smtp_peer.py: loopback SMTP peers and checks for the script tests.
#
#   free-port                         a TCP port on 127.0.0.1 that was free a moment ago
#   deliver PORT plain|pdf PDF_FILE   delivers one test message with smtplib
#   relay MODE PORT_FILE TRANSCRIPT   a one-shot scripted relay: writes its port to PORT_FILE,
#                                     serves one connection and writes what it received to
#                                     TRANSCRIPT. MODE ok replies 220/250/250/250/354/250/221,
#                                     tempfail greets with 421, garbage with a line no SMTP
#                                     server sends.
#   sink DIR                          an aiosmtpd server until stopped: prints its port once it
#                                     listens; saves each message as DIR/NNN.eml (dots undone)
#                                     and its envelope as NNN.env (MAIL FROM, then each RCPT TO)
#                                     before its 250
#   check-records RECORDS PDF_FILE    the JSON records serve printed for the two deliveries,
#                                     against tests/data/scripts/delivered_records.json; prints
#                                     the files of the PDF message, one a line
#   check-transcript TRANSCRIPT PDF_FILE   the message the relay received
#   check-delivered MESSAGE SENDER TO SUBJECT TEXT [FILE...]   a message sent from the text
#                                     body TEXT and attachments FILE: every part byte for byte
#
# Every socket has a time-out, so no step can hang a test.
import asyncio
import email
import email.policy
import itertools
import json
import os
import smtplib
import socket
import sys
from email.message import EmailMessage

TIMEOUT = 20
DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "scripts")


def expect(condition, message):
    condition or sys.exit("smtp_peer: " + message)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        print(s.getsockname()[1])


def deliver(port, kind, pdf_file):
    plain = kind == "plain"
    message = EmailMessage()
    message["From"] = "Anna Rossi <anna@example.org>"
    message["Date"] = "Wed, 01 May 2024 09:30:00 +0200"
    message["To"] = "bob@example.org" if plain else "Ufficio Fax <12345/office@fax.example>"
    message["Subject"] = "SUBJECT"  # set below: the library would encode it in UTF-8
    message.set_content("Una riga di testo.\n" if plain else "La fattura in allegato.\n")
    if not plain:
        message["Cc"] = "carla@example.org"
        message.add_attachment(read(pdf_file), maintype="application", subtype="pdf",
                               filename="fattura.pdf")
    # CR LF line ends, as SMTP wants them: sendmail sends bytes unchanged.
    data = message.as_bytes(policy=message.policy.clone(linesep="\r\n")).replace(
        b"Subject: SUBJECT", b"Subject: " + (b"Prova semplice" if plain else b"=?iso-8859-1?q?Fattura_caff=E8?="))
    recipients = ["bob@example.org"] if plain else ["12345/office@fax.example", "carla@example.org"]
    with smtplib.SMTP("127.0.0.1", int(port), timeout=TIMEOUT) as client:
        refused = client.sendmail("anna@example.org", recipients, data)
        expect(not refused, "recipients refused: %r" % refused)


def relay(mode, port_file, transcript_file):
    listener = socket.create_server(("127.0.0.1", 0))
    listener.settimeout(TIMEOUT)
    with open(port_file + ".new", "w") as f:
        f.write("%d\n" % listener.getsockname()[1])
    os.rename(port_file + ".new", port_file)
    connection, _ = listener.accept()
    connection.settimeout(TIMEOUT)
    connection.sendall({"ok": b"220 relay ready\r\n", "tempfail": b"421 busy, try later\r\n",
                        "garbage": b"hello there\r\n"}[mode])
    received = pending = b""
    in_data = False
    while chunk := connection.recv(65536):
        received += chunk
        pending += chunk
        while mode == "ok":  # else the client is to give up on its own
            end = pending.find(b"\r\n.\r\n" if in_data else b"\r\n")
            if end < 0:
                break
            line, pending = pending[:end], pending[end + (5 if in_data else 2):]
            verb = b"" if in_data else line[:4].upper()
            in_data = verb == b"DATA"
            connection.sendall({b"DATA": b"354 go ahead\r\n", b"QUIT": b"221 bye\r\n"}.get(
                verb, b"250 queued\r\n" if not verb else b"250 ok\r\n"))
        if received.endswith(b"QUIT\r\n"):
            break
    connection.close()
    with open(transcript_file, "wb") as f:
        f.write(received)


def sink(directory):
    from aiosmtpd.smtp import SMTP

    numbers = itertools.count(1)

    class Save:
        async def handle_DATA(self, server, session, envelope):
            stem = os.path.join(directory, "%03d" % next(numbers))
            with open(stem + ".env", "w") as f:
                f.write("\n".join([envelope.mail_from] + envelope.rcpt_tos) + "\n")
            with open(stem + ".eml", "wb") as f:
                f.write(envelope.original_content)
            return "250 OK saved"

    loop = asyncio.new_event_loop()
    server = loop.run_until_complete(loop.create_server(lambda: SMTP(Save()), "127.0.0.1", 0))
    print(server.sockets[0].getsockname()[1], flush=True)
    loop.run_forever()


def check_records(records_file, pdf_file):
    expected = json.loads(read(os.path.join(DATA, "delivered_records.json")))["records"]
    records = [json.loads(line) for line in read(records_file).splitlines() if line.strip()]
    expect(sorted(r["subject"] for r in records) == sorted(expected), "records: %r" % records)
    for record in records:
        want = dict(expected[record["subject"]], subject=record["subject"])
        files = want.pop("files")
        expect(record["file"].endswith(".822"), "file: %r" % record["file"])
        got = {key: record[key] for key in record if key not in ("file", "attachments")}
        expect(got == want, "record %r, expected %r" % (got, want))
        contents = [read(path) for path in record["attachments"]]
        expect(len(contents) == len(files), "files: %r" % record["attachments"])
        for content, file in zip(contents, files):
            expect(content == read(pdf_file) if file == "PDF" else file.encode() in content,
                   "a file differs from %r" % file)
        if "PDF" in files:
            print("\n".join(record["attachments"]))


def check_transcript(transcript_file, pdf_file):
    transcript = read(transcript_file)
    for line in b"MAIL FROM:<anna@example.org>\r\n", b"RCPT TO:<out@example.net>\r\n":
        expect(line in transcript, "no %r" % line)
    expect(transcript.endswith(b"QUIT\r\n"), "no QUIT at the end")
    start = transcript.index(b"DATA\r\n") + len(b"DATA\r\n")
    message = email.message_from_bytes(transcript[start:transcript.index(b"\r\n.\r\n", start)],
                                       policy=email.policy.default)
    expect(message["Subject"] == "Back out", "Subject: %r" % message["Subject"])
    pdfs = [p for p in message.walk() if p.get_content_type() == "application/pdf"]
    expect(len(pdfs) == 1, "expected one application/pdf part, got %d" % len(pdfs))
    expect(pdfs[0].get_payload(decode=True) == read(pdf_file), "the PDF sent differs")


def check_delivered(message_file, sender, recipients, subject, text_file, *files):
    message = email.message_from_bytes(read(message_file), policy=email.policy.compat32)
    expect(not message.defects, "message defects: %r" % message.defects)
    for name, value in (("From", sender), ("To", recipients), ("Subject", subject)):
        expect(message[name] == value, "%s is %r, not %r" % (name, message[name], value))
    expect(message.get_content_type() == "multipart/mixed", message.get_content_type())
    parts = message.get_payload()
    expect(len(parts) == 1 + len(files), "%d parts for %d files" % (len(parts), len(files)))
    first = (parts[0].get_content_type(), parts[0].get_param("name"))
    expect(first == ("text/plain", "message body"), "first part: %r" % (first,))
    lines = lambda data: data.replace(b"\r\n", b"\n")  # a 7bit text may change its line ends
    expect(lines(parts[0].get_payload(decode=True)) == lines(read(text_file)), "text body differs")
    for part, path in zip(parts[1:], files):
        name = os.path.basename(path)
        expect(part.get_filename() == name, "part %r where %r was sent" % (part.get_filename(), name))
        same = lines if part["Content-Transfer-Encoding"] == "7bit" else lambda data: data
        expect(same(part.get_payload(decode=True)) == same(read(path)), name + " differs")
    print("ok: %s, %d attachments" % (message_file, len(files)))


if __name__ == "__main__":
    {"free-port": free_port, "deliver": deliver, "relay": relay, "sink": sink,
     "check-records": check_records, "check-transcript": check_transcript,
     "check-delivered": check_delivered}[sys.argv[1]](*sys.argv[2:])

#!/usr/bin/python3
"""Loopback SMTP peers for the host's script tests.

  smtp_peer.py free-port
      prints a TCP port on 127.0.0.1 that was free a moment ago
  smtp_peer.py deliver PORT plain|pdf PDF_FILE
      delivers one test message with smtplib
  smtp_peer.py relay MODE PORT_FILE TRANSCRIPT
      a one-shot scripted relay: writes its port to PORT_FILE, serves one
      connection and writes what it received to TRANSCRIPT. MODE ok replies
      220/250/250/250/354/250/221, tempfail greets with 421, garbage greets
      with a line no SMTP server sends.
  smtp_peer.py check-records RECORDS_FILE PDF_FILE
      checks the two JSON records serve printed for the two deliveries
  smtp_peer.py check-transcript TRANSCRIPT PDF_FILE
      checks the message the relay received

Every socket has a time-out, so no step can hang a test.
"""
import email
import email.policy
import json
import os
import smtplib
import socket
import sys
from email.message import EmailMessage

TIMEOUT = 20
PLAIN_SUBJECT = "Prova semplice"
PDF_SUBJECT_RAW = "=?iso-8859-1?q?Fattura_caff=E8?="
PDF_SUBJECT = "Fattura caff\u00e8"


def fail(message):
    print("smtp_peer: " + message, file=sys.stderr)
    sys.exit(1)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        print(s.getsockname()[1])


def deliver(port, kind, pdf_file):
    message = EmailMessage()
    message["From"] = "Anna Rossi <anna@example.org>"
    message["Date"] = "Wed, 01 May 2024 09:30:00 +0200"
    if kind == "plain":
        message["To"] = "bob@example.org"
        message["Subject"] = PLAIN_SUBJECT
        message.set_content("Una riga di testo.\n")
        recipients = ["bob@example.org"]
    else:
        message["To"] = "Ufficio Fax <12345/office@fax.example>"
        message["Cc"] = "carla@example.org"
        message["Subject"] = "SUBJECT-PLACEHOLDER"  # the library would re-encode it in UTF-8
        message.set_content("La fattura in allegato.\n")
        with open(pdf_file, "rb") as f:
            message.add_attachment(f.read(), maintype="application", subtype="pdf",
                                   filename="fattura.pdf")
        recipients = ["12345/office@fax.example", "carla@example.org"]
    # CR LF line ends, as SMTP wants them: sendmail sends bytes unchanged.
    data = message.as_bytes(policy=message.policy.clone(linesep="\r\n"))
    data = data.replace(b"SUBJECT-PLACEHOLDER", PDF_SUBJECT_RAW.encode())
    with smtplib.SMTP("127.0.0.1", int(port), timeout=TIMEOUT) as client:
        refused = client.sendmail("anna@example.org", recipients, data)
        if refused:
            fail("recipients refused: %r" % refused)


def relay(mode, port_file, transcript_file):
    listener = socket.socket()
    listener.settimeout(TIMEOUT)
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)
    with open(port_file + ".new", "w") as f:
        f.write("%d\n" % listener.getsockname()[1])
    os.rename(port_file + ".new", port_file)
    connection, _ = listener.accept()
    connection.settimeout(TIMEOUT)
    received = bytearray()
    greeting = {"ok": b"220 relay ready\r\n", "tempfail": b"421 busy, try later\r\n",
                "garbage": b"hello there\r\n"}[mode]
    connection.sendall(greeting)
    buffer = b""
    in_data = False
    done = False
    while not done:
        chunk = connection.recv(65536)
        if not chunk:
            break
        received += chunk
        if mode != "ok":
            continue  # the client is to give up on its own
        buffer += chunk
        while not done:
            if in_data:
                end = buffer.find(b"\r\n.\r\n")
                if end < 0:
                    break
                buffer = buffer[end + 5:]
                in_data = False
                connection.sendall(b"250 queued\r\n")
                continue
            if b"\r\n" not in buffer:
                break
            line, buffer = buffer.split(b"\r\n", 1)
            verb = line[:4].upper()
            if verb == b"DATA":
                connection.sendall(b"354 go ahead\r\n")
                in_data = True
            elif verb == b"QUIT":
                connection.sendall(b"221 bye\r\n")
                done = True
            else:
                connection.sendall(b"250 ok\r\n")
    connection.close()
    listener.close()
    with open(transcript_file, "wb") as f:
        f.write(received)


def expect(condition, message):
    if not condition:
        fail(message)


def check_records(records_file, pdf_file):
    with open(records_file) as f:
        records = [json.loads(line) for line in f if line.strip()]
    expect(len(records) == 2, "expected 2 records, got %d" % len(records))
    by_subject = {r["subject"]: r for r in records}
    expect(set(by_subject) == {PLAIN_SUBJECT, PDF_SUBJECT}, "subjects: %r" % list(by_subject))
    keys = ["file", "sender", "sender_name", "sender_name_raw", "date", "to", "cc", "bcc",
            "subject", "subject_raw", "attachments", "ok"]
    for record in records:
        expect(list(record) == keys, "fields: %r" % list(record))
        expect(record["ok"] is True, "ok: %r" % record)
        expect(record["file"].endswith(".822"), "file: %r" % record["file"])
        expect(record["sender"] == "anna@example.org", "sender: %r" % record["sender"])
        expect(record["sender_name"] == "Anna Rossi", "sender_name: %r" % record["sender_name"])
        expect(record["date"] == "2024-05-01T07:30:00Z", "date: %r" % record["date"])
        expect(record["bcc"] == [], "bcc: %r" % record["bcc"])
        for path in record["attachments"]:
            expect(os.path.isfile(path), "attachment file missing: " + path)

    for record in records:  # the module's own names here carry no encoded words
        for entry in record["to"] + record["cc"]:
            expect(entry.pop("name_raw") == entry["name"], "name_raw: %r" % entry)
    plain = by_subject[PLAIN_SUBJECT]
    # An ordinary recipient loses its domain; the name keeps the address.
    expect(plain["to"] == [{"address": "bob", "name": "bob@example.org"}], "to: %r" % plain["to"])
    expect(plain["cc"] == [], "cc: %r" % plain["cc"])
    expect(len(plain["attachments"]) == 1, "plain attachments: %r" % plain["attachments"])
    with open(plain["attachments"][0], "rb") as f:
        expect(b"Una riga di testo." in f.read(), "plain text body not in its file")

    pdf = by_subject[PDF_SUBJECT]
    expect(pdf["to"] == [{"address": "12345@office", "name": "Ufficio Fax"}], "to: %r" % pdf["to"])
    expect(pdf["cc"] == [{"address": "carla", "name": "carla@example.org"}], "cc: %r" % pdf["cc"])
    expect(len(pdf["attachments"]) == 2, "pdf attachments: %r" % pdf["attachments"])
    contents = []
    for path in pdf["attachments"]:
        with open(path, "rb") as f:
            contents.append(f.read())
    with open(pdf_file, "rb") as f:
        original = f.read()
    expect(b"La fattura in allegato." in contents[0], "text part is not the first file")
    expect(contents[1] == original, "the PDF file differs from the one sent")
    print(json.dumps(pdf["attachments"]))


def check_transcript(transcript_file, pdf_file):
    with open(transcript_file, "rb") as f:
        transcript = f.read()
    expect(b"MAIL FROM:<anna@example.org>\r\n" in transcript, "MAIL FROM missing")
    expect(b"RCPT TO:<out@example.net>\r\n" in transcript, "RCPT TO missing")
    expect(transcript.endswith(b"QUIT\r\n"), "no QUIT at the end")
    start = transcript.index(b"DATA\r\n") + len(b"DATA\r\n")
    end = transcript.index(b"\r\n.\r\n", start)
    message = email.message_from_bytes(transcript[start:end], policy=email.policy.default)
    expect(message["Subject"] == "Back out", "Subject: %r" % message["Subject"])
    pdfs = [part for part in message.walk() if part.get_content_type() == "application/pdf"]
    expect(len(pdfs) == 1, "expected one application/pdf part, got %d" % len(pdfs))
    with open(pdf_file, "rb") as f:
        expect(pdfs[0].get_payload(decode=True) == f.read(), "PDF sent differs from the original")


def main():
    command, arguments = sys.argv[1], sys.argv[2:]
    {"free-port": free_port, "deliver": deliver, "relay": relay,
     "check-records": check_records, "check-transcript": check_transcript}[command](*arguments)


if __name__ == "__main__":
    main()

"""smtplib_send.py: the Python side of bench/compare's sending rows. Sends
COUNT messages, one connection each, one after the other, each built with
the email package: a text body from a .txt file, or an attachment.

    python3 smtplib_send.py PORT COUNT FILE
"""
import mimetypes
import os
import smtplib
import sys
from email.message import EmailMessage
from email.utils import formatdate


def build(path):
    m = EmailMessage()
    m["From"] = "fax@bench.example"
    m["To"] = "someone@bench.example"
    m["Subject"] = "Benchmark"
    m["Date"] = formatdate()
    with open(path, "rb") as f:
        data = f.read()
    if path.endswith(".txt"):
        m.set_content(data.decode("latin-1"))
    else:
        kind = mimetypes.guess_type(path)[0] or "application/octet-stream"
        maintype, subtype = kind.split("/", 1)
        m.add_attachment(data, maintype=maintype, subtype=subtype,
                         filename=os.path.basename(path))
    return m


def main():
    port, count, path = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
    for _ in range(count):
        message = build(path)
        with smtplib.SMTP("127.0.0.1", port, local_hostname="bench.example") as s:
            s.send_message(message)


if __name__ == "__main__":
    main()

"""Checks a delivered message against the files it was made from.

usage: check_delivered_message.py MESSAGE SENDER RECIPIENTS SUBJECT TEXT [FILE...]

MESSAGE is the message as the server received it (CR LF or LF line ends).
RECIPIENTS is the comma-joined list as it stands in the To header. TEXT is
the text body file (the part named "message body"); FILEs are the other
attachments, each of which must arrive byte for byte under its own name.
"""
import email
import email.policy
import os
import sys


def fail(text):
    print("FAIL: " + text)
    sys.exit(1)


def lines(data):
    return data.replace(b"\r\n", b"\n")


def main():
    message_path, sender, recipients, subject, text_path = sys.argv[1:6]
    files = sys.argv[6:]
    with open(message_path, "rb") as f:
        message = email.message_from_bytes(f.read(), policy=email.policy.compat32)
    if message.defects:
        fail("message defects: %r" % message.defects)
    for name, expected in (("From", sender), ("To", recipients), ("Subject", subject)):
        if message[name] != expected:
            fail("%s is %r, not %r" % (name, message[name], expected))
    if message.get_content_type() != "multipart/mixed":
        fail("content type %s" % message.get_content_type())
    parts = message.get_payload()
    if len(parts) != 1 + len(files):
        fail("%d parts for %d files" % (len(parts), 1 + len(files)))

    with open(text_path, "rb") as f:
        text = f.read()
    body = parts[0]
    if body.get_param("name") != "message body" or body.get_content_type() != "text/plain":
        fail("first part: %s name=%r" % (body.get_content_type(), body.get_param("name")))
    if lines(body.get_payload(decode=True)) != lines(text):
        fail("text body differs:\n%r\n%r" % (body.get_payload(decode=True)[:200], text[:200]))

    for part, path in zip(parts[1:], files):
        name = os.path.basename(path)
        if part.get_filename() != name:
            fail("part named %r where %r was sent" % (part.get_filename(), name))
        with open(path, "rb") as f:
            original = f.read()
        if part["Content-Transfer-Encoding"] == "7bit":
            received = lines(part.get_payload(decode=True))
            original = lines(original)
        else:
            received = part.get_payload(decode=True)
        if received != original:
            fail("%s differs: %d bytes received, %d sent" % (name, len(received), len(original)))
    print("ok: %s, %d attachments" % (message_path, len(files)))


main()

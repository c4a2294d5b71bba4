"""What Python's email package makes of a spool file, for the golden cases
of tests/data/decomposition (called by decomposition_cases_test.cpp).

  email_oracle.py part SPOOL N   the decoded payload of the Nth part that is
                                 not multipart (1-based, in walk order)
  email_oracle.py sha256 FILE    the SHA-256 of a file, in hex
"""
import email
import hashlib
import sys


def main():
    command, path = sys.argv[1], sys.argv[2]
    with open(path, "rb") as f:
        if command == "sha256":
            print(hashlib.sha256(f.read()).hexdigest())
            return
        message = email.message_from_binary_file(f)
    leaves = [part for part in message.walk() if not part.is_multipart()]
    sys.stdout.buffer.write(leaves[int(sys.argv[3]) - 1].get_payload(decode=True))


main()

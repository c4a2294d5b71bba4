"""email_parts.py: the Python side of bench/compare's decomposition rows.
Parses each message file (or each file of a directory) with the email
package and writes every leaf part, decoded, to a file of its own.

    python3 email_parts.py OUTDIR FILE-OR-DIR...

Prints the seconds the parsing and writing took (start-up excluded).
"""
import email
import email.policy
import os
import sys
import time


def main():
    out, count = sys.argv[1], 0
    start = time.perf_counter()
    paths = []
    for arg in sys.argv[2:]:
        if os.path.isdir(arg):
            paths += [os.path.join(arg, n) for n in os.listdir(arg)]
        else:
            paths.append(arg)
    for path in paths:
        with open(path, "rb") as f:
            message = email.message_from_binary_file(f, policy=email.policy.default)
        for part in message.walk():
            if part.is_multipart():
                continue
            with open(os.path.join(out, "%08d.part" % count), "wb") as f:
                f.write(part.get_payload(decode=True) or b"")
            count += 1
    print("%.6f" % (time.perf_counter() - start))


if __name__ == "__main__":
    main()

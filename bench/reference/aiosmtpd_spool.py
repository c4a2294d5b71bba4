"""aiosmtpd_spool.py: the asyncio SMTP server of bench/compare's reception
rows. Writes each message to a spool file of its own, then replies 250.

    python3 aiosmtpd_spool.py PORT SPOOLDIR

Listens on 127.0.0.1:PORT until SIGTERM. The host name is fixed, so no
name lookup happens per connection.
"""
import asyncio
import os
import signal
import sys

from aiosmtpd.smtp import SMTP


class SpoolHandler:
    def __init__(self, spool):
        self.spool = spool
        self.count = 0

    async def handle_DATA(self, server, session, envelope):
        self.count += 1
        path = os.path.join(self.spool, "m%07d.eml" % self.count)
        with open(path, "wb") as f:
            f.write(envelope.original_content)
        return "250 OK"


def main():
    port, spool = int(sys.argv[1]), sys.argv[2]
    handler = SpoolHandler(spool)
    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    server = loop.run_until_complete(
        loop.create_server(lambda: SMTP(handler, hostname="sink.bench.example"),
                           "127.0.0.1", port))
    loop.add_signal_handler(signal.SIGTERM, loop.stop)
    loop.run_forever()
    server.close()


if __name__ == "__main__":
    main()

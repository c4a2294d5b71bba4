"""aiosmtpd_spool.py: the asyncio SMTP server of bench/compare's reception
rows. Writes each message to a spool file of its own, then replies 250.

    python3 aiosmtpd_spool.py PORT SPOOLDIR [--fsync]

Listens on 127.0.0.1:PORT until SIGTERM. The host name is fixed, so no
name lookup happens per connection. With --fsync each message is stored
the way a careful spool does it before its 250: written under a temporary
name, the file synced, renamed, the directory synced. The writes run in
a thread pool as wide as the sessions can be, so one session's flush does
not hold up the others (as a thread per session would not).
"""
import asyncio
import concurrent.futures
import os
import signal
import sys

from aiosmtpd.smtp import SMTP


def store_synced(spool, name, data):
    temporary = os.path.join(spool, name + ".tmp")
    with open(temporary, "wb") as f:
        f.write(data)
        f.flush()
        os.fsync(f.fileno())
    os.rename(temporary, os.path.join(spool, name))
    directory = os.open(spool, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(directory)
    finally:
        os.close(directory)


class SpoolHandler:
    def __init__(self, spool, fsync):
        self.spool = spool
        self.fsync = fsync
        self.count = 0

    async def handle_DATA(self, server, session, envelope):
        self.count += 1
        name = "m%07d.eml" % self.count
        if self.fsync:
            await asyncio.get_running_loop().run_in_executor(
                None, store_synced, self.spool, name, envelope.original_content)
        else:
            with open(os.path.join(self.spool, name), "wb") as f:
                f.write(envelope.original_content)
        return "250 OK"


def main():
    port, spool = int(sys.argv[1]), sys.argv[2]
    handler = SpoolHandler(spool, "--fsync" in sys.argv[3:])
    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    loop.set_default_executor(concurrent.futures.ThreadPoolExecutor(max_workers=256))
    server = loop.run_until_complete(
        loop.create_server(lambda: SMTP(handler, hostname="sink.bench.example"),
                           "127.0.0.1", port, backlog=4096))
    loop.add_signal_handler(signal.SIGTERM, loop.stop)
    loop.run_forever()
    server.close()


if __name__ == "__main__":
    main()

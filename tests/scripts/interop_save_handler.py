"""An aiosmtpd handler for the interop tests: each message that arrives is
saved as NNN.eml (the content as received, dots undone) beside NNN.env
(the envelope: MAIL FROM on the first line, one RCPT TO per line after).

    python3 -m aiosmtpd -n -l 127.0.0.1:PORT -c interop_save_handler.SaveToDirectory DIR
"""
import os


class SaveToDirectory:
    def __init__(self, directory):
        self.directory = directory
        self.count = 0

    @classmethod
    def from_cli(cls, parser, *args):
        if len(args) != 1:
            parser.error("SaveToDirectory takes the output directory")
        return cls(args[0])

    async def handle_DATA(self, server, session, envelope):
        self.count += 1
        stem = os.path.join(self.directory, "%03d" % self.count)
        with open(stem + ".env.tmp", "w") as out:
            out.write("\n".join([envelope.mail_from] + list(envelope.rcpt_tos)) + "\n")
        with open(stem + ".eml", "wb") as out:
            out.write(envelope.original_content)
        os.rename(stem + ".env.tmp", stem + ".env")  # the .env says the message is complete
        return "250 OK saved"

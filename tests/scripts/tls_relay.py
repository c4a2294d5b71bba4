#!/usr/bin/python3
# tls_relay.py CERT KEY MODE DIR [EXCLUDE]: an aiosmtpd relay on loopback that
# wants TLS (MODE starttls: STARTTLS required; tls: TLS from the first byte)
# and AUTH before MAIL: user "fax", password "pw-Secret-1" (PLAIN, LOGIN) or
# bearer token "tok-Secret-2" (XOAUTH2, RFC-less but as Google and Microsoft
# document it). EXCLUDE: a mechanism not offered. Prints its port once it
# listens; saves each message's envelope as DIR/NNN.env with the mechanism
# that authenticated it.
import asyncio
import base64
import itertools
import os
import ssl
import sys

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword

cert, key, mode, directory = sys.argv[1:5]
exclude = sys.argv[5:]
numbers = itertools.count(1)


def authenticator(server, session, envelope, mechanism, data):
    ok = isinstance(data, LoginPassword) and (data.login, data.password) == (b"fax", b"pw-Secret-1")
    return AuthResult(success=ok, handled=False)


class Relay(SMTP):
    async def auth_XOAUTH2(self, server, args):
        # One line: base64 of "user=U^Aauth=Bearer T^A^A".
        text = base64.b64decode(args[1]).decode() if len(args) > 1 else ""
        if text == "user=fax\x01auth=Bearer tok-Secret-2\x01\x01":
            return AuthResult(success=True, auth_data="XOAUTH2")
        # A refusal as the providers send it: 334 and a JSON text, then 535.
        await self.push('334 eyJzdGF0dXMiOiI0MDEifQ==')
        await self._reader.readline()
        return AuthResult(success=False, handled=False)


class Save:
    async def handle_DATA(self, server, session, envelope):
        with open(os.path.join(directory, "%03d.env" % next(numbers)), "w") as f:
            f.write("%s %s %s\n" % (envelope.mail_from, ",".join(envelope.rcpt_tos),
                                    session.auth_data if isinstance(session.auth_data, str)
                                    else "PASSWORD"))
        return "250 OK saved"


context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(cert, key)
starttls = mode == "starttls"


def factory():
    return Relay(Save(), tls_context=context if starttls else None, require_starttls=starttls,
                 auth_required=True, auth_require_tls=starttls, authenticator=authenticator,
                 auth_exclude_mechanism=exclude)


loop = asyncio.new_event_loop()
server = loop.run_until_complete(
    loop.create_server(factory, "127.0.0.1", 0, ssl=None if starttls else context))
print(server.sockets[0].getsockname()[1], flush=True)
loop.run_forever()

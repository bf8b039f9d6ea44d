"""A mail server for tests: smtp_server.py MODE CERT KEY DIR. MODE: none, starttls, smtps, hangup.

Serves on a free port of 127.0.0.1, writes the port to DIR/port and each mail to DIR/<n>.eml with its
envelope as the first line. Takes user "u" with password "p" where there is TLS; refuses recipients
that begin with "refused".
"""
import os
import socket
import ssl
import sys
import time

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import SMTP, AuthResult

mode, cert, key, directory = sys.argv[1:]


def announce(port):
    with open(directory + "/port.new", "w") as out:
        out.write(str(port))
    os.rename(directory + "/port.new", directory + "/port")


class Handler:
    count = 0

    async def handle_RCPT(self, server, session, envelope, address, options):
        if address.startswith("refused"):
            return "550 5.1.1 no such user here"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        Handler.count += 1
        name = f"{directory}/{Handler.count}.eml"
        with open(name + ".new", "wb") as out:
            who = f"{envelope.mail_from} {','.join(envelope.rcpt_tos)} {session.authenticated}\n"
            out.write(who.encode() + envelope.content)
        os.rename(name + ".new", name)
        return "250 taken"


def check(server, session, envelope, mechanism, data):
    return AuthResult(success=(data.login, data.password) == (b"u", b"p"), handled=False)


context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(cert, key)


class Server(Controller):
    def factory(self):
        return SMTP(self.handler, authenticator=check, auth_require_tls=mode == "starttls",
                    tls_context=context if mode == "starttls" else None,
                    require_starttls=mode == "starttls")


with socket.socket() as free:
    free.bind(("127.0.0.1", 0))
    free_port = free.getsockname()[1]
if mode == "hangup":
    with socket.create_server(("127.0.0.1", free_port)) as listener:
        announce(free_port)
        while True:
            client, _ = listener.accept()
            client.sendall(b"220 hello\r\n")
            client.recv(100)
            client.close()
server = Server(Handler(), hostname="127.0.0.1", port=free_port,
                ssl_context=context if mode == "smtps" else None)
server.start()
announce(free_port)
while True:
    time.sleep(60)

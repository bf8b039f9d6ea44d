"""A mail server for tests: smtp_server.py MODE CERT KEY DIR. MODE: none, starttls, smtps, or
"script VERB=answer ...", a server that says what it is told to: "\\r\\n" stands for a line break,
"silence" for no answer at all, "hangup" for the end of the connection. VERB END is the end of the
message; what has no answer gets 250. TLS=yes for TLS from the start.

Serves on a free port of 127.0.0.1, writes the port to DIR/port and adds what it heard to DIR/heard:
each mail with its envelope as the first line, a script's commands line by line. Takes user "u" with password "p" where there is TLS; refuses recipients
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


def heard(data):
    with open(directory + "/heard", "ab") as out:
        out.write(data)


class Handler:
    async def handle_RCPT(self, server, session, envelope, address, options):
        if address.startswith("refused"):
            return "550 5.1.1 no such user here"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        who = f"{envelope.mail_from} {','.join(envelope.rcpt_tos)} {session.authenticated}\n"
        heard(who.encode() + envelope.content)
        return "250 taken"


def check(server, session, envelope, mechanism, data):
    return AuthResult(success=(data.login, data.password) == (b"u", b"p"), handled=False)


context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(cert, key)


class Server(Controller):
    def factory(self):
        return SMTP(self.handler, authenticator=check, auth_require_tls=mode == "starttls",
                    tls_context=context if mode == "starttls" else None,
                    require_starttls=mode == "starttls",
                    enable_SMTPUTF8=True)


with socket.socket() as free:
    free.bind(("127.0.0.1", 0))
    free_port = free.getsockname()[1]


def play(client, answers):
    def say(verb):
        text = answers.get(verb, {"GREETING": "220 hello", "DATA": "354 go on", "QUIT": "221 bye"}.get(
            verb, "250 ok")).replace("\\r\\n", "\r\n").replace("_", " ")
        if text == "hangup":
            return False
        if text != "silence":
            client.sendall(text.encode() + b"\r\n")
        return True

    lines, in_message = client.makefile("rb"), False
    go_on = say("GREETING")
    while go_on and (line := lines.readline()):
        if in_message and line != b".\r\n":
            continue
        verb = "END" if in_message else line[:4].decode().strip().upper()
        heard(line)
        in_message = verb == "DATA" and answers.get("DATA", "3")[0] == "3"
        go_on = say(verb)
    client.close()


if mode.startswith("script"):
    words = dict(word.split("=", 1) for word in mode.split()[1:])
    with socket.create_server(("127.0.0.1", free_port)) as listener:
        announce(free_port)
        while True:
            client = listener.accept()[0]
            play(context.wrap_socket(client, server_side=True) if "TLS" in words else client, words)
server = Server(Handler(), hostname="127.0.0.1", port=free_port,
                ssl_context=context if mode == "smtps" else None)
server.start()
announce(free_port)
while True:
    time.sleep(60)

"""Stand-in servers of the signed API, for tests and measurements: as many as one likes on loopback,
each on a port of its own, in one process. What they answer is decided by a function for each."""

import asyncio
import hashlib
import hmac
import json
import logging
import os
import re
import ssl
import subprocess
import time
import urllib.parse

SECRET = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8"
TOKEN = f"stand-in.{SECRET}"
logging.getLogger("asyncio").setLevel(logging.CRITICAL)  # clients that hang up are no news


def certificate(directory):
    """Makes a certificate; its SHA-256 fingerprint and a server's TLS settings."""
    cert, key = os.path.join(directory, "stand-in.crt"), os.path.join(directory, "stand-in.key")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-keyout", key, "-out", cert, "-subj", "/CN=stand-in"], check=True, capture_output=True)
    with open(cert, encoding="ascii") as source:
        digest = hashlib.sha256(ssl.PEM_cert_to_DER_cert(source.read())).hexdigest()
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(cert, key)
    return digest, tls


def job(name, at, **more):
    return {"name": name, "command": "agent", "profile": "p", "args": None, "schedule": "0 1 * * *", "once": None,
            "once_unix": None, "after": [], "after_mode": "success", "enabled": True, "timeout_seconds": None,
            "notify": "inherit", "run_background": None, "start_background": None, "retention": "4w",
            "retention_class": None, "api_allowed": True,
            "state": {"status": "DONE", "next_run": at + 90000, "last_run": at, "last_finish": at + 600,
                      "last_exit_code": 0, "run_requested": False}, **more}


class StandIn:
    """A server with jobs, which a test changes as it likes. `spoil` may replace the bytes of a reply."""

    def __init__(self, jobs, host="stand-in", spoil=None):
        self.jobs, self.host, self.spoil = jobs, host, spoil
        self.running, self.log, self.requests = None, "a line\n", 0

    def answer(self, path, query):
        tag = '"' + hashlib.sha256(json.dumps([j["schedule"] for j in self.jobs]).encode()).hexdigest() + '"'
        if path == "info":
            return {"api_version": 1, "server": "orv_sched", "version": "1.0.2", "build": "x", "host": self.host,
                    "time": int(time.time()), "daemon_started": 1700000000, "running_job": self.running, "run_queue": [],
                    "config_etag": tag, "token": {"name": "stand-in", "role": "admin"},
                    "policy": {"allow_config_write": True, "allow_args": True, "allowed_commands": ["agent"]},
                    "commands": [{"name": "agent", "profile": True, "retention": True}],
                    "limits": {"jobs_page_max": 50}, "mail_configured": False}
        if path == "jobs":
            offset, limit = int(query.get("offset", 0)), int(query.get("limit", 50))
            after = offset + limit if offset + limit < len(self.jobs) else None
            return {"config_etag": tag, "total": len(self.jobs), "offset": offset,
                    "jobs": self.jobs[offset : offset + limit], "next_offset": after}
        name = urllib.parse.unquote(path.split("/")[1])
        one = next(j for j in self.jobs if j["name"] == name)
        if path.endswith("/log"):
            return {"id": "x", "offset": 0, "size": len(self.log), "finished": True, "data": self.log,
                    "length": len(self.log), "next_offset": len(self.log)}
        if path.endswith("/runs"):
            start = one["state"]["last_run"]
            return {"job": name, "runs": [{"id": time.strftime("%Y%m%dT%H%M%SZ", time.gmtime(start - i * 86400)),
                    "start": start - i * 86400, "finished": True, "finish": start - i * 86400 + 500 + i * 7,
                    "exit_code": int(i == 3), "timed_out": False, "cancelled": False, "size": 7} for i in range(20)]}
        return {"config_etag": tag, "job": one}

    async def serve(self, reader, writer):
        try:
            while True:
                head = (await reader.readuntil(b"\r\n\r\n")).decode()
                self.requests += 1
                target = head.split(" ", 2)[1].removeprefix("/api/v1/")
                path, _, query = target.partition("?")
                nonce = re.search("nonce=([0-9a-f]{32})", head)[1]
                body = json.dumps(self.answer(path, dict(urllib.parse.parse_qsl(query)))).encode()
                text = "\n".join(["ORV1-R", nonce, "200", hashlib.sha256(body).hexdigest()])
                signature = hmac.new(SECRET.encode(), text.encode(), hashlib.sha256).hexdigest()
                reply = (f"HTTP/1.1 200 OK\r\nContent-Length: {len(body)}\r\nORV-Signature: {signature}\r\n\r\n").encode() + body
                if self.spoil:
                    await self.spoil(writer, reply)
                else:
                    writer.write(reply)
                await writer.drain()
        except (asyncio.IncompleteReadError, ConnectionError, ssl.SSLError):
            pass
        finally:
            writer.close()

    async def listen(self, tls):
        server = await asyncio.start_server(self.serve, "127.0.0.1", 0, ssl=tls, backlog=64)
        return server.sockets[0].getsockname()[1]


async def huge(writer, _):
    writer.write(b"HTTP/1.1 200 OK\r\nContent-Length: 10485760\r\n\r\n" + b"x" * 10485760)


async def slow(writer, reply):
    for byte in reply:
        writer.write(bytes([byte]))
        await asyncio.sleep(1)


async def dying(writer, reply):
    writer.write(reply[: len(reply) // 2])
    await writer.drain()
    writer.close()


async def forged(writer, reply):
    writer.write(reply.replace(b"stand-in", b"other-in"))

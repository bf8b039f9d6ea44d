"""Measures orv_console with many servers; see scripts/bench-console."""

import asyncio
import http.client
import json
import os
import pathlib
import random
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "tests/console"))
import stand_in  # noqa: E402

PROGRAM, SERVERS, JOBS = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
SETTLE_S, MEASURED_S, CHANGES = 75, 60, 15


def status(pid, field):
    with open(f"/proc/{pid}/status", encoding="ascii") as source:
        return int(re.search(rf"{field}:\s+(\d+)", source.read())[1])


def processor_s(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as source:
        fields = source.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def start_servers(home):
    """The servers run in a process' thread of their own; (servers, their list's path)."""
    digest, tls = stand_in.certificate(home)
    now = int(time.time())
    loop = asyncio.new_event_loop()
    threading.Thread(target=loop.run_forever, daemon=True).start()
    token = home / "token"
    token.write_text(stand_in.TOKEN, encoding="ascii")
    token.chmod(0o600)
    servers, rows = [], []
    for i in range(SERVERS):
        server = stand_in.StandIn([stand_in.job(f"job-{n:03}", now - 600 - 337 * n) for n in range(JOBS)], host=f"host-{i:03}")
        port = asyncio.run_coroutine_threadsafe(server.listen(tls), loop).result(10)
        servers.append(server)
        rows.append(f"[server-{i:03}]\nserver = 127.0.0.1:{port}\nfingerprint = {digest}\ntoken-file = {token}\n")
    path = home / "servers"
    path.write_text("\n".join(rows), encoding="ascii")
    path.chmod(0o600)
    return servers, path


class Listener(threading.Thread):
    """Reads the events as the page does and notes when each server's came last."""

    def __init__(self, port, cookie):
        super().__init__(daemon=True)
        self.connection = http.client.HTTPConnection("127.0.0.1", port)
        self.connection.request("GET", "/api/events", headers={"Cookie": cookie})
        self.reply, self.seen, self.bytes = self.connection.getresponse(), {}, 0
        self.start()

    def run(self):
        while line := self.reply.readline():
            self.bytes += len(line)
            if found := re.match(rb'data: {"name":"([^"]+)".*?"running_job":(null|"[^"]*")', line):
                self.seen[found[1].decode()] = (found[2].decode(), time.monotonic())


def change_to_page(servers, listener):
    """Seconds from a job's start on a server to the event that shows it."""
    times = []
    for i in range(CHANGES):
        index = i * SERVERS // CHANGES
        name, job = f"server-{index:03}", f"job-{i:03}"
        began, servers[index].running = time.monotonic(), job
        while listener.seen.get(name, ("", 0))[0] != f'"{job}"':
            if time.monotonic() - began > 60:
                raise SystemExit(f"{name}: no event for a change in a minute")
            time.sleep(0.01)
        times.append(listener.seen[name][1] - began)
        time.sleep(random.uniform(0, 5))  # not in step with the pollers
    return sorted(times)


def draw(url):
    """Seconds until a browser shows all servers, and until it shows one server's jobs."""
    from selenium import webdriver

    options = webdriver.ChromeOptions()
    for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1440,1000"):
        options.add_argument(word)
    options.binary_location = shutil.which("chromium")
    service = webdriver.chrome.service.Service(shutil.which("chromedriver"))
    driver = webdriver.Chrome(service=service, options=options)
    count = "return document.querySelectorAll('tbody tr').length"

    def shows(rows):
        began = time.monotonic()
        while driver.execute_script(count) != rows:
            time.sleep(0.02)
        return time.monotonic() - began

    try:
        began = time.monotonic()
        driver.get(url)
        overview = time.monotonic() - began + shows(SERVERS)
        # The frame after the rows are there is on the screen.
        one = driver.execute_async_script("""
            const began = performance.now(), done = arguments[0];
            const look = () => document.querySelectorAll("tbody tr").length === %d
                ? requestAnimationFrame(() => done((performance.now() - began) / 1000)) : requestAnimationFrame(look);
            location.hash = "#/server-000";
            look();""" % JOBS)
        heap = driver.execute_cdp_cmd("Performance.enable", {}) or driver.execute_cdp_cmd("Performance.getMetrics", {})
        used = next(m["value"] for m in heap["metrics"] if m["name"] == "JSHeapUsedSize")
        return overview, one, used
    finally:
        driver.quit()


def main():
    files = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (files, files))
    with tempfile.TemporaryDirectory() as directory:
        servers, path = start_servers(pathlib.Path(directory))
        console = subprocess.Popen([PROGRAM, "--listen", "127.0.0.1:0", "--servers", path], stdout=subprocess.PIPE, text=True)
        try:
            url = console.stdout.readline().strip()
            port = int(re.search(r":(\d+)/", url)[1])
            connection = http.client.HTTPConnection("127.0.0.1", port)
            connection.request("GET", url[url.index("/?"):])
            cookie = connection.getresponse().getheader("Set-Cookie").partition(";")[0]
            time.sleep(SETTLE_S)
            listener = Listener(port, cookie)
            sent, used = sum(s.requests for s in servers), processor_s(console.pid)
            time.sleep(MEASURED_S)
            rate = (sum(s.requests for s in servers) - sent) / MEASURED_S
            used = (processor_s(console.pid) - used) / MEASURED_S
            connection = http.client.HTTPConnection("127.0.0.1", port)
            began = time.monotonic()
            connection.request("GET", "/api/servers", headers={"Cookie": cookie})
            known = json.loads(connection.getresponse().read())
            whole = time.monotonic() - began
            times = change_to_page(servers, listener)
            jobs = sum(len(s["jobs"] or []) for s in known)
            print(f"servers {len(known)}, jobs known {jobs}, runs known of {sum(len(s['runs']) for s in known)} jobs")
            print(f"requests sent: {rate:.1f} a second, {rate / SERVERS:.3f} a server")
            print(f"orv_console: {used * 100:.1f} % of a processor, {status(console.pid, 'VmRSS') / 1024:.0f} MiB, "
                  f"at most {status(console.pid, 'VmHWM') / 1024:.0f} MiB, {status(console.pid, 'Threads')} threads")
            print(f"GET /api/servers: {whole * 1000:.0f} ms")
            print(f"from a change to the page: median {times[len(times) // 2]:.1f} s, longest {times[-1]:.1f} s")
            overview, one, heap = draw(url)
            print(f"a browser draws the overview in {overview:.1f} s, a server's {JOBS} jobs in {one:.2f} s; heap {heap / 1048576:.0f} MiB")
        finally:
            console.terminate()
            console.wait(30)


main()

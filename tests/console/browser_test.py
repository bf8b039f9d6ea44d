"""Drives orv_console with a browser against a real daemon and stand-in servers; see
scripts/test-console. Arguments: the directory of the programs, and one for screenshots."""

import asyncio
import contextlib
import http.client
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select

import stand_in

BIN, WORK = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
AXE = (WORK / "node_modules/axe-core/axe.min.js").read_text(encoding="utf-8")
AS_NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
EVIL = "<img src=x onerror=window.pwned=1>"

TOOL = """#!/bin/sh
case "$*" in
  *slow*) for i in $(seq 1 200); do echo "step $i <b>bold</b>"; sleep 0.3; done ;;
  *bad*) echo "no such snapshot"; exit 3 ;;
  *) echo "copied 12 files"; sleep 1 ;;
esac
"""
CONFIG = """[sched]
job-log-dir = {home}/job-logs
poll-interval = 1
[api]
enabled = yes
max-clients = 256
listen = 127.0.0.1:{port}
cert = {home}/api.crt
key = {home}/api.key
tokens-file = {home}/api.tokens
[mail]
smtp-host = 127.0.0.1
smtp-port = {closed}
tls = none
from = backup@example.com
to = admin@example.com
[documents]
profile = documents
schedule = 30 2 * * *
retention = 4w
[slow]
profile = slow
schedule = 0 4 * * 1
[bad]
profile = bad
schedule = 15 5 1 * *
[doomed]
profile = doomed
schedule = 0 6 * * *
"""


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


def put(path, text, mode=0o600):
    path.write_text(text, encoding="utf-8")
    path.chmod(mode)
    return path


def until(what, test, seconds=20):
    """Waits for a condition, which may fail on the way as a page that is being drawn does."""
    deadline, last = time.monotonic() + seconds, None
    while time.monotonic() < deadline:
        try:
            if result := test():
                return result
        except Exception as error:  # the next look decides
            last = error
        time.sleep(0.1)
    raise AssertionError(f"{what}: not within {seconds} s ({last})")


class Daemon:
    """A scheduler with its API, as the user nobody when root runs this."""

    def __init__(self, home, stack):
        self.home, self.port = home, free_port()
        (home / "bin").mkdir()
        for program in ("orv_sched", "orv_sched_net"):
            shutil.copy(BIN / program, home / "bin")
        put(home / "bin/orv_agent", TOOL, 0o755)
        self.config = put(home / "orv_sched.cfg", CONFIG.format(home=home, port=self.port, closed=free_port()), 0o644)
        if AS_NOBODY:
            subprocess.run(["chown", "-R", "65534:65534", home], check=True)
        self.sched("api-init", "--cn", "localhost")
        self.tokens = {role: put(home / f"{role}.token", re.search(r"\S+\.\S{43}", self.sched(
            "api-token", "add", role, "--role", role))[0]) for role in ("admin", "read")}
        self.fingerprint = re.search(r"fingerprint:\s*(\S+)", self.sched("api-info"))[1]
        with open(home / "daemon.err", "wb") as log:
            environment = dict(os.environ, PATH=f"{home}/bin:{os.environ['PATH']}")
            process = subprocess.Popen([*AS_NOBODY, home / "bin/orv_sched", "daemon", *self.paths(), "--queue",
                                        home / "queue.state"], stderr=log, env=environment)
        stack.callback(stop, process)
        until("the API is up", lambda: socket.create_connection(("127.0.0.1", self.port), 1))

    def paths(self):
        return ["--config", self.config, "--no-syslog", "--log-path", self.home / "log"]

    def sched(self, command, *words):
        return subprocess.run([*AS_NOBODY, self.home / "bin/orv_sched", command, *words, *self.paths()], check=True,
                              capture_output=True, text=True).stdout


def stop(process):
    process.terminate()
    process.wait(30)


def stand_ins(home):
    """Servers that are not what they should be; name -> (port, fingerprint)."""
    fingerprint, tls = stand_in.certificate(home)
    now = int(time.time())
    evil = stand_in.StandIn([stand_in.job(EVIL, now - 7200, args="\x1b[31m\u202e")], host="<b>bold</b>")
    evil.log = "<script>window.pwned=1</script>\x07\u202e\n"
    jobs = [stand_in.job("a", now - 3600)]
    servers = {"evil": evil} | {spoil.__name__: stand_in.StandIn(jobs, spoil=spoil) for spoil in
                                (stand_in.huge, stand_in.slow, stand_in.dying, stand_in.forged)}
    loop = asyncio.new_event_loop()
    threading.Thread(target=loop.run_forever, daemon=True).start()
    return {name: (asyncio.run_coroutine_threadsafe(server.listen(tls), loop).result(10), fingerprint)
            for name, server in servers.items()}


class ConsoleProgram:
    """orv_console with a list of servers."""

    def __init__(self, stack, servers_file, *options, environment=None):
        self.process = subprocess.Popen([BIN / "orv_console", "--listen", "127.0.0.1:0", "--servers", servers_file,
                                         *options], stdout=subprocess.PIPE, text=True, env=environment)
        stack.callback(stop, self.process)
        self.url = self.process.stdout.readline().strip()
        self.port = int(re.fullmatch(r"http://127\.0\.0\.1:(\d+)/\?key=[0-9a-f]{32}", self.url)[1])
        self.base = f"http://127.0.0.1:{self.port}"
        status, headers, _ = self.ask("GET", self.url[len(self.base):], cookie=None)
        assert (status, headers["location"]) == (303, "/"), status
        self.cookie = headers["set-cookie"].partition(";")[0]

    def ask(self, method, path, body=None, cookie="own", **headers):
        """(status, headers, body) of one request, sent as it is: no client tidies the path."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        fields = {"Host": f"127.0.0.1:{self.port}", "Origin": self.base if method != "GET" else None,
                  "Cookie": self.cookie if cookie == "own" else cookie}
        fields |= {name.replace("_", "-"): value for name, value in headers.items()}
        connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        for name, value in fields.items():
            if value is not None:
                connection.putheader(name, value)
        if body is not None:
            connection.putheader("Content-Length", str(len(body)))
        connection.endheaders(body)
        reply = connection.getresponse()
        return reply.status, {name.lower(): value for name, value in reply.getheaders()}, reply.read()

    def servers(self):
        return {server["name"]: server for server in json.loads(self.ask("GET", "/api/servers")[2])}


def check_guard(console, earlier_cookie):
    """Whoever is not the page gets 403 in the API's shape, and nothing else."""
    foreign = [{"cookie": None}, {"cookie": earlier_cookie}, {"Host": "evil.example"}, {"Host": "127.0.0.1:1"},
               {"Host": None}, {"Origin": "http://evil.example"}, {"Origin": "null"}]
    for path in ("/", "/app.js", "/api/servers", "/api/events", "/api/servers/alpha/v1/info", "/?key=0"):
        for fields in foreign:
            status, headers, body = console.ask("GET", path, **fields)
            assert status == 403 and json.loads(body)["error"]["message"], (path, fields, status)
            assert headers["cache-control"] == "no-store" and "set-cookie" not in headers
    assert console.ask("POST", "/api/servers/alpha/v1/jobs/documents/run", Origin=None)[0] == 403
    for path, expected in {"/api/servers/alpha/v1/../../../etc/passwd": 400, "/api/servers/x/v1/info": 404,
                           "/../app.js": 404, "//app.js": 404, "/vendor/": 404, "http://evil.example/": 404}.items():
        assert console.ask("GET", path)[0] == expected, path
    policy = console.ask("GET", "/")[1]["content-security-policy"]
    assert "script-src 'self';" in policy and "unsafe" not in policy and "frame-ancestors 'none'" in policy


def check_servers(console):
    """What the pollers say of servers good and bad."""
    known = until("all servers were asked", lambda: (s := console.servers()) and all(x["asked"] for x in s.values()) and s, 30)
    state = {name: (s["reachable"], s["trusted"]) for name, s in known.items()}
    assert state["alpha"] == state["reader"] == state["evil"] == (True, True), state
    for name in ("down", "open-token", "huge", "slow", "dying"):
        assert state[name] == (False, False) and known[name]["error"] and known[name]["info"] is None, known[name]
    assert state["wrong"] == state["forged"] == (True, False), state
    assert "chmod" in known["open-token"]["error"]
    for name, code in {"down": "unreachable", "wrong": "not_trusted", "forged": "not_trusted"}.items():
        status, _, body = console.ask("GET", f"/api/servers/{name}/v1/info")
        assert status == 502 and json.loads(body)["error"]["code"] == code, body
    secret = json.dumps(known) + str(console.ask("GET", "/api/servers/alpha/v1/info"))
    assert stand_in.SECRET not in secret


class Browser:
    """What a person does with the page."""

    def __init__(self, console, daemon, stack):
        options = webdriver.ChromeOptions()
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1440,1000"):
            options.add_argument(word)
        options.binary_location = shutil.which("chromium")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = webdriver.chrome.service.Service(shutil.which("chromedriver"))
        self.driver = webdriver.Chrome(service=service, options=options)
        stack.callback(self.driver.quit)
        self.console, self.daemon = console, daemon

    def go(self, *parts):
        self.driver.get(self.console.base + "/#/" + "/".join(parts))

    def config(self):
        return self.daemon.config.read_text(encoding="utf-8")

    def find(self, xpath):
        return self.driver.find_element(By.XPATH, xpath)

    def text(self):
        return self.driver.find_element(By.TAG_NAME, "body").text

    def sees(self, words, seconds=20):
        until(f"the page says '{words}'", lambda: words.lower() in self.text().lower(), seconds)

    def click(self, kind, name, within=""):
        until(f"{kind} {name}", lambda: self.find(f"{within}//{kind}[normalize-space()='{name}']").click() or True)

    def field(self, label):
        return until(f"field {label}", lambda: self.driver.find_element(
            By.ID, self.find(f"//label[normalize-space()='{label}']").get_attribute("for")))

    def type(self, label, text):
        field = self.field(label)
        field.send_keys(Keys.CONTROL + "a")
        field.send_keys(text or Keys.DELETE)

    def look(self, name, width=1440, height=1000, scheme="light"):
        """A screenshot, nothing wider than the window, and no violation that axe-core knows of."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        time.sleep(0.3)  # the picture is of the page at rest
        self.driver.save_screenshot(str(WORK / f"{name}.png"))
        wide = self.driver.execute_script("return document.documentElement.scrollWidth - innerWidth")
        assert wide <= 0, f"{name} is {wide} px too wide"
        self.driver.execute_script(AXE)
        found = self.driver.execute_async_script("axe.run(document).then(r => arguments[0](r.violations))")
        assert not found, f"{name}: " + json.dumps([(v["id"], [n["html"][:200] for n in v["nodes"]]) for v in found], indent=1)

    def look_around(self, name):
        for suffix, size in {"": {}, "-dark": {"scheme": "dark"}, "-360": {"width": 360, "height": 900},
                             "-4k": {"width": 3840, "height": 2160}}.items():
            self.look(name + suffix, **size)
        self.look(name)


def check_overview(page):
    page.driver.get(page.console.url)
    page.sees("alpha")
    for name, word in {"alpha": "ok", "down": "unreachable", "wrong": "not trusted"}.items():
        until(f"{name} is {word}", lambda n=name, w=word: w in page.find(f"//tr[.//a[.='{n}']]").text)
    assert page.driver.current_url == page.console.base + "/"
    assert page.driver.execute_script("return document.cookie") == ""
    rows = [row.text.split()[0] for row in page.driver.find_elements(By.CSS_SELECTOR, "tbody tr")]
    assert rows.index("wrong") < rows.index("down") < rows.index("alpha"), rows
    page.look_around("overview")
    page.find("//input[@id='filter']").send_keys("doome")
    page.sees("Jobs that match 2")  # of the admin's and of the reader's list
    page.look("filter")


def check_run(page):
    """Runs a job and sees it end, without reloading."""
    page.go()
    page.click("a", "alpha")
    row = "//tr[.//a[.='documents']]"
    page.driver.execute_script("window.same = true")
    page.click("button", "Run", row)
    until("it runs or ran", lambda: re.search("RUNNING|DONE", page.find(row).text))
    until("it is done", lambda: "DONE" in page.find(row).text and page.find(row + "//*[name()='svg']"), 30)
    page.click("button", "Run", "//tr[.//a[.='bad']]")
    until("it failed", lambda: re.search("FAILED[^$]*exit 3", page.find("//tr[.//a[.='bad']]").text), 30)
    assert page.driver.execute_script("return window.same")
    page.look_around("server")


def check_edit(page):
    page.go("alpha", "job", "documents")
    page.sees("copied 12 files")
    page.sees("every day at 02:30")
    page.look_around("job")
    page.type("schedule", "30 2 * *")
    until("the server's words", lambda: f"{page.daemon.config}:" in page.text())
    page.look("fault")
    page.type("schedule", "45 3 * * *")
    page.sees("The server accepts this.")
    page.sees("schedule = 45 3 * * *")
    # Somebody else is faster: what they changed is shown, what was typed stays.
    tag = json.loads(page.console.ask("GET", "/api/servers/alpha/v1/info")[2])["config_etag"]
    status, headers, _ = page.console.ask("PUT", "/api/servers/alpha/v1/jobs/documents", If_Match=tag,
                                          body=b'{"retention":"9w","timeout_seconds":77}')
    assert status == 200 and headers["etag"] != tag
    page.click("button", "Save")
    page.sees("changed meanwhile")
    page.sees("timeout-seconds = 77")
    assert page.field("schedule").get_attribute("value") == "45 3 * * *"
    assert page.field("timeout-seconds").get_attribute("value") == "77"
    page.look("conflict")
    page.click("button", "Save")
    until("it is saved", lambda: re.search(r"schedule ?= ?45 3 ", page.config()))
    assert re.search(r"timeout-seconds ?= ?77", page.config())


def check_log_and_cancel(page):
    page.go("alpha", "job", "slow")
    page.click("button", "Run")
    page.sees("step 3 <b>bold</b>", 40)
    page.find("//input[@placeholder='Search in the log']").send_keys("step 2")
    page.sees("1 of ")
    page.click("button", "Cancel")
    page.click("button", "Undo")
    page.sees("slow goes on")
    page.click("button", "Cancel")
    page.sees("told to stop", 30)
    page.sees("cancelled", 30)


def check_disable_and_delete(page):
    page.go("alpha", "job", "doomed")
    page.click("button", "Disable")
    page.sees("doomed is disabled.")
    page.click("button", "Undo")
    page.sees("doomed is enabled.")
    page.click("button", "Delete")
    confirm = until("the question", lambda: page.find("//input[@name='confirm']"))
    assert not page.find("//dialog//button[.='Delete']").is_enabled()
    confirm.send_keys("doomed")
    page.look("delete")
    confirm.send_keys(Keys.ENTER)
    until("it is gone", lambda: "[doomed]" not in page.config())


def check_settings(page):
    page.go("alpha", "settings")
    page.type("busy-retry-seconds", "x")
    page.click("button", "Save", "//section[h2='Scheduler']")
    page.sees("busy_retry_seconds")
    page.type("busy-retry-seconds", "17")
    page.look_around("settings")
    page.click("button", "Save", "//section[h2='Scheduler']")
    until("it is saved", lambda: re.search(r"busy-retry-seconds ?= ?17", page.config()))
    Select(page.field("notify")).select_by_visible_text("failed")
    page.click("button", "Save", "//section[h2='Mail']")
    page.sees("Mail: saved")
    page.click("button", "Send test mail")
    page.sees("failed", 40)


def check_keyboard(page):
    """From the overview to a run and back without a mouse."""
    page.go()
    page.sees("alpha")
    press = lambda *keys: webdriver.ActionChains(page.driver).send_keys(*keys).perform()
    focused = lambda: page.driver.switch_to.active_element
    def tab_to(text, most=80):
        for _ in range(most):
            press(Keys.TAB)
            if focused().text.strip() == text:
                outline = focused().value_of_css_property("outline-style")
                assert outline != "none", f"the focus on {text} is not to be seen"
                return
        raise AssertionError(f"no way to {text} by keyboard")
    press("/")
    until("the filter has the focus", lambda: focused().get_attribute("id") == "filter")
    tab_to("alpha")
    press(Keys.ENTER)
    page.sees("Last and next 24 hours")
    tab_to("documents")
    press(Keys.ENTER)
    page.sees("Definition")
    tab_to("Run")
    press(Keys.ENTER)
    page.sees("queued")


def check_evil(page):
    page.go("evil")
    page.sees(EVIL)
    page.click("a", EVIL)
    page.sees("<script>window.pwned=1</script>")
    assert page.driver.execute_script("return window.pwned") is None
    assert not page.driver.find_elements(By.CSS_SELECTOR, "img, main script")


def check_reader(page):
    page.go("reader")
    page.sees("read token")
    page.go("reader", "job", "documents")
    page.sees("Definition")
    names = [button.text for button in page.driver.find_elements(By.TAG_NAME, "button")]
    assert not {"Run", "Save", "Delete", "Disable"} & set(names), names
    page.look("reader")


def check_read_only(stack, servers_file):
    console = ConsoleProgram(stack, servers_file, "--read-only")
    for method, path in (("POST", "jobs/documents/run"), ("PUT", "jobs/documents"), ("DELETE", "jobs/documents")):
        status, _, body = console.ask(method, f"/api/servers/alpha/v1/{path}", body=b"")
        assert status == 403 and json.loads(body)["error"]["code"] == "read_only"
    body = b'{"name":"documents","schedule":"1 2 3 4 5"}'
    assert json.loads(console.ask("POST", "/api/servers/alpha/v1/validate/job", body=body)[2]) == {"valid": True, "result": None}
    return console.cookie


def check_open(stack, servers_file, home):
    """The URL on xdg-open's command line is good for one sign-in."""
    opened = home / "opened"
    put(home / "bin/xdg-open", f'#!/bin/sh\necho "$1" >{opened}.new\nmv {opened}.new {opened}\n', 0o755)
    console = ConsoleProgram(stack, servers_file, "--open", environment=dict(os.environ, PATH=f"{home}/bin:{os.environ['PATH']}"))
    url = until("the browser is opened", lambda: opened.exists() and opened.read_text(encoding="utf-8").strip())
    target = url[len(console.base):]
    assert url != console.url and console.ask("GET", target, cookie=None)[0] == 303
    assert console.ask("GET", target, cookie=None)[0] == 403


def write_servers(home, daemon):
    wrong = "00" * 32
    rows = [("alpha", daemon.port, daemon.fingerprint, daemon.tokens["admin"]), ("down", free_port(), wrong, daemon.tokens["admin"]),
            ("wrong", daemon.port, wrong, daemon.tokens["admin"]), ("reader", daemon.port, daemon.fingerprint, daemon.tokens["read"])]
    token = put(home / "stand-in.token", stand_in.TOKEN)
    too_open = put(home / "open.token", stand_in.TOKEN, 0o644)
    rows += [(name, port, print_, token) for name, (port, print_) in stand_ins(home).items()]
    rows.append(("open-token", daemon.port, daemon.fingerprint, too_open))
    return put(home / "servers", "".join(
        f"[{name}]\nserver = {'localhost' if name == 'alpha' else '127.0.0.1'}:{port}\nfingerprint = {print_}\n"
        f"token-file = {file}\n\n" for name, port, print_, file in rows))


def main():
    with contextlib.ExitStack() as stack:
        home = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        home.chmod(0o755)
        daemon = Daemon(home, stack)
        servers_file = write_servers(home, daemon)
        earlier_cookie = check_read_only(stack, servers_file)
        check_open(stack, servers_file, home)
        console = ConsoleProgram(stack, servers_file)
        page = Browser(console, daemon, stack)
        check_guard(console, earlier_cookie)
        check_servers(console)
        for step in (check_overview, check_run, check_edit, check_log_and_cancel, check_disable_and_delete, check_settings,
                     check_keyboard, check_evil, check_reader):
            began = time.monotonic()
            try:
                step(page)
            except BaseException:
                page.driver.save_screenshot(str(WORK / "failed.png"))
                print((home / "daemon.err").read_text(encoding="utf-8")[-2000:])
                raise
            print(f"test-console: {step.__name__}: good ({time.monotonic() - began:.1f} s)", flush=True)
        complaints = [entry["message"] for entry in page.driver.get_log("browser")
                      if entry["level"] == "SEVERE" and "the server responded with a status" not in entry["message"]]
        assert not complaints, complaints
        console.process.terminate()
        page.sees("console not answering", 30)


if __name__ == "__main__":
    main()

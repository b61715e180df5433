#!/usr/bin/python3
"""velnord's web console: a tour in headless Chromium through start, a settings change, a
setting the server refuses, an idle client ended by a stop and the log's shutdown lines; who may
reach the console at all, logging in with an account's own password; and that no account can lock
root or another account out of it or share its port.
Screenshots of the tour go to BUILD/e2e-screenshots/web_console/."""

import errno
import http.client
import json
import os
import pwd
import hashlib
import socket
import ssl
import subprocess
import sys
import urllib.parse

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import RESTARTING, WAITING_TO_RESPOND, sandbox  # noqa: E402

TOKEN_FILE = "/run/velnor/web-token"
ADDRESS_FILE = "/run/velnor/web-address"
MADE_KEY = "/var/lib/velnor/tls/console.key"

# The account that types wrong passwords for another's account, each login on a connection of its
# own, until refused for at least the seconds asked (or the wait runs out); then one more login
# per line it reads.
GUESSER = r"""
import http.client, sys, time, urllib.parse
port, account, seconds, wait = int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), float(sys.argv[4])

def wrong():
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    connection.request("POST", "/login", body=urllib.parse.urlencode(
        {"account": account, "password": "guessed"}),
        headers={"Content-Type": "application/x-www-form-urlencoded"})
    answer = connection.getresponse()
    answer.read()
    connection.close()
    return answer.status, int(answer.getheader("Retry-After") or 0)

deadline = time.monotonic() + wait
status, retry = wrong()
while retry < seconds and time.monotonic() < deadline:
    status, retry = wrong()
print("refused" if retry >= seconds else "never refused", status, retry, flush=True)
for _ in sys.stdin:
    print(wrong()[0], flush=True)
"""
PAM_SERVICE = os.path.join(harness.PROJECT, "host", "velnord", "velnor.pam")
FORM = {"Content-Type": "application/x-www-form-urlencoded"}


def make_account(name, password):
    """An account of the sandbox with a password, and the console's PAM service in place, as the
    package installs it."""
    subprocess.run(["useradd", "--no-create-home", "--shell", "/usr/sbin/nologin", name], check=True)
    subprocess.run(["chpasswd"], input=f"{name}:{password}\n", text=True, check=True)
    with open(PAM_SERVICE) as packaged, open("/etc/pam.d/velnor", "w") as installed:
        installed.write(packaged.read())


def network_address():
    """An address of this machine's that is not loopback: the sandbox shares its network."""
    shown = subprocess.run(["ip", "-4", "-o", "address", "show", "scope", "global"],
                           capture_output=True, text=True).stdout.split()
    if "inet" not in shown:
        harness.skip("this machine has no address beyond loopback")
    return shown[shown.index("inet") + 1].split("/")[0]


def headless_chromium(window="1280,2000"):
    """Headless Chromium, which takes the console's own certificate: the scenario checks that
    certificate by its fingerprint itself."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                     f"--window-size={window}", "--user-data-dir=/tmp/chromium",
                     "--ignore-certificate-errors"):
        options.add_argument(argument)
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def forget_console():
    """Removes what a velnord before wrote of its console, so that the next one is waited for."""
    for stale in (TOKEN_FILE, ADDRESS_FILE):
        if os.path.exists(stale):
            os.unlink(stale)


def reuse_port_listener():
    """A socket that asks to share its port, as the web server library's own listener does."""
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    return listener


class WebConsole(harness.ScenarioCase):
    def start_daemon(self, port, log=None, address="127.0.0.1", extra=()):
        """velnord with its console on address:port, a tick every second and the extra
        arguments, logging to log if given."""
        self.port = port
        velnord = harness.velnord_beside(self.host.velnor)
        daemon = subprocess.Popen([velnord, "--plugin", self.host.plugin, "--idle-interval", "1",
                                   "--web-listen", f"{address}:{port}", "--no-metrics", *extra,
                                   *(["--foreground"] if log else [])], stderr=log)
        self.addCleanup(lambda: daemon.poll() is None and (daemon.terminate(), daemon.wait()))
        return daemon

    def start_console(self, port=None, extra=()):
        """velnord with its console on a port of its own (or port), a tick every second and the
        extra arguments; its token."""
        forget_console()
        daemon = self.start_daemon(port or harness.free_port(), extra=extra)
        harness.wait_until(lambda: os.path.exists(TOKEN_FILE), "velnord wrote its token")
        url = subprocess.run([self.host.velnor, "web-url"], capture_output=True, text=True, check=True)
        prefix = f"http://127.0.0.1:{self.port}/?token="
        self.assertTrue(url.stdout.startswith(prefix), f"velnor web-url: {url.stdout!r}")
        return url.stdout.strip()[len(prefix):], daemon

    def start_tls_console(self):
        """velnord with its console on this machine's network address; what velnor web-url
        printed: its address and the certificate's fingerprint."""
        self.address = network_address()
        forget_console()
        daemon = self.start_daemon(harness.free_port(), address=self.address)
        harness.wait_until(lambda: os.path.exists(ADDRESS_FILE), "velnord wrote its address")
        printed = subprocess.run([self.host.velnor, "web-url"], capture_output=True, text=True,
                                 check=True).stdout.splitlines()
        self.assertEqual(len(printed), 2, f"velnor web-url: {printed}")
        self.assertTrue(printed[0].startswith(f"https://{self.address}:{self.port}/?token="), printed)
        self.assertTrue(printed[1].startswith("certificate SHA-256 fingerprint: "), printed)
        return printed[0], printed[1].split(": ")[1], daemon

    def log_in(self, account, password, headers=()):
        """POST /login with the account and password; the answer."""
        return self.request("POST", "/login", {**FORM, **dict(headers)},
                            urllib.parse.urlencode({"account": account, "password": password}))

    def request(self, method, path, headers=(), body=None, tls=False):
        """The answer to a request; over TLS, taking any certificate: the scenario checks it by
        its fingerprint."""
        if tls:
            context = ssl.create_default_context()
            context.check_hostname = False
            context.verify_mode = ssl.CERT_NONE
            connection = http.client.HTTPSConnection(self.address, self.port, timeout=30,
                                                     context=context)
        else:
            connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        connection.request(method, path, body=body, headers=dict(headers))
        response = connection.getresponse()
        response.read()
        connection.close()
        return response

    @sandbox("--initdb")
    def test_console_access_is_guarded(self):
        token, _ = self.start_console()
        self.assertEqual(harness.attributes(TOKEN_FILE), harness.regular_file(0o600, "root"))
        answer = self.request("GET", f"/?token={token}")
        self.assertEqual(answer.status, 303, "the token is exchanged for a session")
        cookie = answer.getheader("Set-Cookie")
        self.assertRegex(cookie, r"^velnor_session=[0-9a-f]{64}; Path=/; HttpOnly; SameSite=Strict$")
        session = {"Cookie": cookie.split(";")[0]}
        change = {**session, "Content-Type": "application/x-www-form-urlencoded"}
        rows = [  # what, method, path, headers, expected status
            ("the page with the session", "GET", "/", session, 200),
            ("the page without a session", "GET", "/", {}, 303),
            ("the script without a session", "GET", "/console.js", {}, 401),
            ("an action without a session", "POST", "/api/service", {}, 401),
            ("an action without the CSRF token", "POST", "/api/service", change, 403),
            ("an action with a wrong CSRF token", "POST", "/api/service",
             {**change, "X-CSRF-Token": "0" * 64}, 403),
            ("a name that is not the console's", "GET", "/", {**session, "Host": "rebound.example"}, 421),
            ("a preflight from another origin", "OPTIONS", "/api/service",
             {**session, "Origin": "http://rebound.example"}, 405),
        ]
        for what, method, path, headers, status in rows:
            with self.subTest(what):
                answer = self.request(method, path, headers, "action=start" if method == "POST" else None)
                self.assertEqual(answer.status, status, what)
                self.assertIn("default-src 'none'", answer.getheader("Content-Security-Policy"))
                self.assertIsNone(answer.getheader("Access-Control-Allow-Origin"), what)
        self.assertIsNone(harness.postmaster(), "no refused action started the server")

    # With its folders in place, no idle tick starts the server.
    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_an_account_logs_in_with_its_password_and_out(self):
        make_account("alice", "alices secret")
        self.start_console()
        rows = [  # what, account, password, expected status
            ("a wrong password", "alice", "wrong", 403),
            ("an account that does not exist", "nosuchaccount", "alices secret", 403),
            ("an account that has no password", "nobody", "", 400),
            ("a name that would forge a line in the log", "alice\nvelnord: root logged in", "x", 400),
            ("a login posted from another site's page", "alice", "alices secret", 403),
        ]
        for what, account, password, status in rows:
            with self.subTest(what):
                origin = {"Origin": "http://rebound.example"} if "another site" in what else {}
                answer = self.log_in(account, password, origin)
                self.assertEqual(answer.status, status, what)
                self.assertIsNone(answer.getheader("Set-Cookie"), what)
        answer = self.log_in("alice", "alices secret", {"Origin": f"http://127.0.0.1:{self.port}"})
        self.assertEqual((answer.status, answer.getheader("Location")), (303, "/"), "alice logs in")
        cookie = answer.getheader("Set-Cookie")
        self.assertRegex(cookie, r"^velnor_session=[0-9a-f]{64}; Path=/; HttpOnly; SameSite=Strict$",
                         "no Secure flag over plain HTTP, where the browser would drop the cookie")
        session = {"Cookie": cookie.split(";")[0]}
        page = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        page.request("GET", "/", headers=session)
        body = page.getresponse().read().decode()
        page.close()
        self.assertIn('<span id="account" class="account">alice</span>', body, "the page names her")
        csrf = body.split('name="csrf" content="')[1].split('"')[0]
        change = {**session, **FORM, "X-CSRF-Token": csrf}
        refused = self.request("POST", "/api/service", change, "action=start")
        self.assertEqual(refused.status, 403, "alice may read, not operate")
        self.assertIsNone(harness.postmaster(), "her refused start started nothing")
        self.assertEqual(self.request("GET", "/api/snapshot", session).status, 200, "she reads")
        self.assertEqual(self.request("POST", "/api/logout", change).status, 200, "she logs out")
        self.assertEqual(self.request("GET", "/api/snapshot", session).status, 401,
                         "the session ended with the logout")

    @sandbox()
    def test_wrong_passwords_for_one_account_never_keep_another_out(self):
        make_account("alice", "alices secret")
        self.start_console()
        nobody = pwd.getpwnam("nobody").pw_uid
        guesser = subprocess.Popen(
            harness.as_user(nobody, [harness.PYTHON, "-c", GUESSER, str(self.port), "alice", "1",
                                     str(harness.WAIT_SECONDS * 2)]),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: guesser.poll() is None and (guesser.kill(), guesser.wait()))
        said = guesser.stdout.readline().split()
        self.assertEqual(said[0], "refused", f"nobody's wrong passwords for alice are slowed: {said}")
        self.assertEqual(self.log_in("alice", "alices secret").status, 303,
                         "alice's right password gets in while nobody is refused for her account")
        guesser.stdin.write("\n")
        guesser.stdin.flush()
        self.assertEqual(guesser.stdout.readline().strip(), "429",
                         "nobody's next guess for alice, on a new connection, is still refused")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_console_beyond_loopback_speaks_only_tls(self):
        from selenium.webdriver.common.by import By
        from selenium.webdriver.support.ui import WebDriverWait

        make_account("alice", "alices secret")
        url, fingerprint, daemon = self.start_tls_console()
        self.assertEqual(harness.attributes(MADE_KEY), harness.regular_file(0o600, "root"),
                         "the key velnord made is root's alone")
        served = ssl.PEM_cert_to_DER_cert(
            ssl.get_server_certificate((self.address, self.port)))
        digest = hashlib.sha256(served).hexdigest().upper()
        self.assertEqual(fingerprint.replace(":", ""), digest, "the fingerprint of the served one")
        with self.assertRaises((http.client.HTTPException, ConnectionError),
                               msg="plain HTTP on a network address"):
            self.request("GET", "/login", {"Host": f"{self.address}:{self.port}"})
        answer = self.request("GET", url[url.index("/?token="):], tls=True)
        self.assertEqual(answer.status, 303, "root's token over TLS")
        self.assertRegex(answer.getheader("Set-Cookie"),
                         r"^velnor_session=[0-9a-f]{64}; Path=/; HttpOnly; SameSite=Strict; Secure$")

        shots = os.path.join(os.path.dirname(self.host.velnor), "e2e-screenshots", "web_console")
        os.makedirs(shots, exist_ok=True)
        chromium = headless_chromium("420,1600")
        self.addCleanup(chromium.quit)
        wait = WebDriverWait(chromium, harness.WAIT_SECONDS)
        chromium.get(f"https://{self.address}:{self.port}/")
        wait.until(lambda _: chromium.current_url.endswith("/login"), "the login page first")
        chromium.set_window_size(420, 520)
        chromium.save_screenshot(os.path.join(shots, "10-login.png"))
        chromium.set_window_size(420, 1600)
        chromium.find_element(By.ID, "account").send_keys("alice")
        chromium.find_element(By.ID, "password").send_keys("alices secret")
        chromium.find_element(By.ID, "log-in").click()
        wait.until(lambda _: chromium.find_element(By.ID, "feed").text == "live", "the page is live")
        self.assertEqual(chromium.find_element(By.ID, "account").text, "alice")
        chromium.save_screenshot(os.path.join(shots, "11-logged-in-over-tls.png"))
        cookie = chromium.get_cookie("velnor_session")
        self.assertEqual((cookie["httpOnly"], cookie["secure"], cookie["sameSite"]),
                         (True, True, "Strict"), "the browser holds the cookie as it was given")
        chromium.find_element(By.ID, "log-out").click()
        wait.until(lambda _: chromium.current_url.endswith("/login"), "logged out, the login page")
        chromium.get(f"https://{self.address}:{self.port}/")
        wait.until(lambda _: chromium.current_url.endswith("/login"), "the session is over")

        daemon.terminate()
        self.assertEqual(daemon.wait(timeout=30), 0, "velnord stops")
        _, again, _ = self.start_tls_console()
        self.assertEqual(again, fingerprint, "a restarted velnord keeps the certificate it made")

    @sandbox("--systemd")
    def test_console_socket_comes_from_systemd(self):
        port = harness.free_port()
        velnord = harness.velnord_beside(self.host.velnor)
        built = os.path.join(os.path.dirname(velnord), "..", "lib", "systemd", "system")
        units = "/etc/systemd/system"
        drop_ins = {"velnord.service": f"[Service]\nExecStart=\nExecStart={velnord} --plugin "
                                       f"{self.host.plugin}\n",
                    "velnord.socket": f"[Socket]\nListenStream=\nListenStream=127.0.0.1:{port}\n"}
        for unit, drop_in in drop_ins.items():
            with open(os.path.join(built, unit)) as shipped, open(f"{units}/{unit}", "w") as installed:
                installed.write(shipped.read())
            os.makedirs(f"{units}/{unit}.d", exist_ok=True)
            with open(f"{units}/{unit}.d/port.conf", "w") as written:
                written.write(drop_in)
        subprocess.run(["systemctl", "daemon-reload"], check=True)
        subprocess.run(["systemctl", "start", "velnord.socket"], check=True)
        self.assertEqual(subprocess.run(["systemctl", "is-active", "velnord.service"],
                                        capture_output=True, text=True).stdout.strip(), "inactive",
                         "velnord does not run yet")
        with socket.create_connection(("127.0.0.1", port), timeout=30) as early:
            # Made before velnord runs: the port is systemd's, and this connection starts it.
            early.sendall(f"GET /login HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n"
                          "Connection: close\r\n\r\n".encode())
            answer = b""
            while chunk := early.recv(65536):
                answer += chunk
        self.assertTrue(answer.startswith(b"HTTP/1.1 200 OK"), answer[:200])
        self.assertIn(b'<form method="post" action="/login">', answer, "velnord answered it")
        harness.wait_until(lambda: os.path.exists(ADDRESS_FILE), "velnord wrote its address")
        url = subprocess.run([self.host.velnor, "web-url"], capture_output=True, text=True,
                             check=True).stdout
        self.assertTrue(url.startswith(f"http://127.0.0.1:{port}/?token="),
                        f"velnord serves where the socket unit listens: {url!r}")
        self.port = port
        token = url.strip().split("token=")[1]
        self.assertEqual(self.request("GET", f"/?token={token}").status, 303, "and its token works")

    @sandbox()
    def test_no_other_listener_shares_the_console_port(self):
        _, daemon = self.start_console()
        with reuse_port_listener() as second:
            with self.assertRaises(OSError, msg="a second root listener binds beside the console") as bound:
                second.bind(("127.0.0.1", self.port))
            self.assertEqual(bound.exception.errno, errno.EADDRINUSE)
        # The server ends this connection, leaving its side waiting out the close on the port.
        self.assertEqual(self.request("GET", "/", {"Connection": "close"}).status, 303)
        daemon.terminate()
        self.assertEqual(daemon.wait(timeout=30), 0, "velnord stops")
        token, _ = self.start_console(self.port)
        self.assertEqual(self.request("GET", f"/?token={token}").status, 303,
                         "a restarted velnord has the console's port again at once")

    # With its folders in place, the first idle tick has nothing to create, so nothing to restart.
    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_browser_tour(self):
        from selenium.webdriver.common.by import By
        from selenium.webdriver.support.ui import WebDriverWait

        token, _ = self.start_console()
        shots = os.path.join(os.path.dirname(self.host.velnor), "e2e-screenshots", "web_console")
        os.makedirs(shots, exist_ok=True)
        browser = headless_chromium()
        self.addCleanup(browser.quit)
        text = lambda id: browser.find_element(By.ID, id).text  # noqa: E731

        def see(id, expected, shot):
            WebDriverWait(browser, harness.WAIT_SECONDS).until(
                lambda _: expected in text(id), f"#{id} shows {expected!r}; it shows {text(id)!r}")
            if shot:
                browser.save_screenshot(os.path.join(shots, shot + ".png"))

        def settings(name, value):
            browser.find_element(By.ID, "new-name").send_keys(name)
            browser.find_element(By.ID, "new-value").send_keys(value)
            browser.find_element(By.ID, "add-setting").click()
            browser.find_element(By.ID, "save-settings").click()

        browser.get(f"http://127.0.0.1:{self.port}/?token={token}")
        see("state", "STOPPED", "01-stopped")
        browser.find_element(By.ID, "start").click()
        see("messages", WAITING_TO_RESPOND, None)
        see("state", "RUNNING", None)
        see("result", "start: done", "02-started")
        version = harness.psql("SHOW server_version").split()[0]
        see("version", version, None)
        self.assertEqual(text("version"), version, "the version as the server prints it")
        shown = browser.execute_script("return [90624, 100000, 150018, 170002].map(versionText)")
        self.assertEqual(shown, ["9.6.24", "10.0", "15.18", "17.2"], "versions before 10 and since")

        settings("work_mem", "12MB")
        see("messages", RESTARTING, None)
        see("settings-result", "done", "03-work-mem-saved")
        self.assertEqual(harness.psql("SHOW work_mem"), "12MB")
        see("starts-today", "1 operator, 1 settings change", None)

        job = harness.job_file_bytes()
        checked = self.velnor("settings", "--check", "work_mem=16MB", "shared_buffers=lots", status=1)
        self.assertEqual([(verdict["name"], verdict["accepted"]) for verdict in checked.response],
                         [("work_mem", True), ("shared_buffers", False)], "velnor settings --check")
        settings("shared_buffers", "lots")
        see("settings-result", 'invalid value for parameter "shared_buffers": "lots"', "04-refused")
        self.assertEqual(harness.job_file_bytes(), job, "a refused setting leaves the job file alone")

        with harness.Client("console-idle") as client, harness.Client("console-busy") as busy:
            busy.send("BEGIN;")
            inside = busy.wait_for_state("idle in transaction")
            backend = client.wait_for_state("idle")
            see("clients", f"{inside} postgres _postgres idle in transaction", None)
            see("clients", f"{backend} postgres _postgres idle", "05-clients")
            # Read in one go: the page redraws the table whenever the clients change.
            rows = browser.execute_script(
                "return Object.fromEntries([...document.querySelectorAll('#clients tr')]"
                ".map((row) => [row.dataset.pid, row.innerText.trim()]))")
            self.assertTrue(rows[str(inside)].endswith("keeps the server running"), rows)
            self.assertTrue(rows[str(backend)].endswith("a stop ends it"), rows)
            busy.close()
            harness.wait_until(lambda: not harness.process_alive(inside), "the transaction ended")
            browser.find_element(By.ID, "stop").click()
            see("state", "STOPPED", None)
            see("result", "stop: done", "06-stopped")
            harness.wait_until(lambda: not harness.process_alive(backend), "the idle client ended")
        see("log-tail", "database system is shut down", "07-log-tail")
        # Each action is in the audit trail as the console's, from the browser's address; the
        # refused setting was never written, so it has no record.
        with open("/var/lib/velnor/audit.jsonl") as trail:
            records = [json.loads(line) for line in trail]
        self.assertEqual([(r["verb"], r["channel"], r["account"], r["outcome"], r.get("changes"))
                          for r in records],
                         [("start", "console", "root", "done", None),
                          ("settings", "console", "root", "done", [{"key": "work_mem", "new": "12MB"}]),
                          ("stop", "console", "root", "done", None)], "the console's actions")
        self.assertTrue(all(r["remoteAddress"].startswith("127.0.0.1:") for r in records), records)


if __name__ == "__main__":
    sys.exit(harness.scenario_main(WebConsole, __file__, __doc__))

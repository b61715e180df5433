#!/usr/bin/python3
"""velnord's web console: a tour in headless Chromium through start, a settings change, a
setting the server refuses, an idle client ended by a stop and the log's shutdown lines; who may
reach the console at all; and that no account can lock root out of it or share its port.
Screenshots of the tour go to BUILD/e2e-screenshots/web_console/."""

import errno
import http.client
import os
import pwd
import socket
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import RESTARTING, WAITING_TO_RESPOND, sandbox  # noqa: E402

TOKEN_FILE = "/run/velnor/web-token"
CONTROL_SOCKET = "/run/velnor/velnord.sock"
WRONG_TOKEN = "f" * 64

# The account that wants root kept out, in a process of its own: it sends wrong tokens, each on a
# connection of its own, sending the next as soon as a refusal ends, until velnord refuses it for
# at least the seconds asked (time for root to act inside the refusal) or the wait runs out. It
# writes "refused" and the Retry-After, then, for each line it reads, one more wrong token's status.
STRANGER = r"""
import http.client, sys, time
port, seconds, wait, poll = int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3]), float(sys.argv[4])

def wrong():
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    connection.request("GET", "/?token=" + "f" * 64)
    answer = connection.getresponse()
    answer.read()
    connection.close()
    return answer.status, int(answer.getheader("Retry-After") or 0)

deadline = time.monotonic() + wait
status, retry = wrong()
while retry < seconds and time.monotonic() < deadline:
    time.sleep(poll)
    status, retry = wrong()
print("refused" if retry >= seconds else "never refused", retry, flush=True)
for _ in sys.stdin:
    print(wrong()[0], flush=True)
"""


def reuse_port_listener():
    """A socket that asks to share its port, as the web server library's own listener does."""
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    return listener


class WebConsole(harness.ScenarioCase):
    def start_daemon(self, port, log=None):
        """velnord with its console on port and a tick every second, logging to log if given."""
        self.port = port
        velnord = harness.velnord_beside(self.host.velnor)
        daemon = subprocess.Popen([velnord, "--plugin", self.host.plugin, "--idle-interval", "1",
                                   "--web-listen", f"127.0.0.1:{port}", "--no-metrics",
                                   *(["--foreground"] if log else [])], stderr=log)
        self.addCleanup(lambda: daemon.poll() is None and (daemon.terminate(), daemon.wait()))
        return daemon

    def start_console(self, port=None):
        """velnord with its console on a port of its own (or port) and a tick every second; its
        token."""
        if os.path.exists(TOKEN_FILE):
            os.unlink(TOKEN_FILE)
        daemon = self.start_daemon(port or harness.free_port())
        harness.wait_until(lambda: os.path.exists(TOKEN_FILE), "velnord wrote its token")
        url = subprocess.run([self.host.velnor, "web-url"], capture_output=True, text=True, check=True)
        prefix = f"http://127.0.0.1:{self.port}/?token="
        self.assertTrue(url.stdout.startswith(prefix), f"velnor web-url: {url.stdout!r}")
        return url.stdout.strip()[len(prefix):], daemon

    def request(self, method, path, headers=(), body=None):
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
            ("the page without a session", "GET", "/", {}, 401),
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
        statuses = [self.request("GET", f"/?token={WRONG_TOKEN}").status for _ in range(6)]
        self.assertEqual(statuses[:4], [403] * 4, "wrong tokens are refused")
        self.assertEqual(statuses[5], 429, "and, repeated, slowed down")
        self.assertEqual(self.request("GET", f"/?token={token}").status, 303,
                         "the right token is never refused, even from the sender of wrong ones")

    @sandbox()
    def test_a_strangers_wrong_tokens_never_keep_root_out(self):
        token, _ = self.start_console()
        nobody = pwd.getpwnam("nobody").pw_uid
        stranger = subprocess.Popen(
            harness.as_user(nobody, [harness.PYTHON, "-c", STRANGER, str(self.port), "4",
                                     str(harness.WAIT_SECONDS), str(harness.POLL_SECONDS)]),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: stranger.poll() is None and (stranger.kill(), stranger.wait()))
        said = stranger.stdout.readline().split()
        self.assertEqual(said[0], "refused", f"nobody sent wrong tokens until refused: {said}")
        answer = self.request("GET", f"/?token={token}")
        self.assertEqual(answer.status, 303, "root's right token gets in while nobody is refused")
        self.assertEqual(self.request("GET", f"/?token={WRONG_TOKEN}").status, 403,
                         "root's own wrong token is weighed against root's count, not nobody's")
        page = self.request("GET", "/", {"Cookie": answer.getheader("Set-Cookie").split(";")[0]})
        self.assertEqual(page.status, 200, "root's session opens the page")
        stranger.stdin.write("\n")
        stranger.stdin.flush()
        self.assertEqual(stranger.stdout.readline().strip(), "429",
                         "nobody's next wrong token, on a new connection, is still refused")

    @sandbox()
    def test_no_other_listener_shares_the_console_port(self):
        _, daemon = self.start_console()
        with reuse_port_listener() as second:
            with self.assertRaises(OSError, msg="a second root listener binds beside the console") as bound:
                second.bind(("127.0.0.1", self.port))
            self.assertEqual(bound.exception.errno, errno.EADDRINUSE)
        # The server ends this connection, leaving its side waiting out the close on the port.
        self.assertEqual(self.request("GET", "/", {"Connection": "close"}).status, 401)
        daemon.terminate()
        self.assertEqual(daemon.wait(timeout=30), 0, "velnord stops")
        token, _ = self.start_console(self.port)
        self.assertEqual(self.request("GET", f"/?token={token}").status, 303,
                         "a restarted velnord has the console's port again at once")

    @sandbox()
    def test_a_taken_console_port_turns_the_console_off(self):
        with reuse_port_listener() as holder, tempfile.TemporaryFile("w+") as log:
            holder.settimeout(harness.WAIT_SECONDS)
            holder.bind(("127.0.0.1", 0))
            holder.listen()
            port = holder.getsockname()[1]
            self.start_daemon(port, log)
            expected = f'the web console is off: could not listen on "127.0.0.1:{port}": ' \
                       "Address already in use"

            def logged():
                log.seek(0)
                return expected in log.read()

            harness.wait_until(logged, f"velnord logged {expected!r}")
            harness.wait_until(lambda: os.path.exists(CONTROL_SOCKET), "velnord serves")
            self.velnor("status", status=3)
            with socket.create_connection(("127.0.0.1", port), timeout=30):
                accepted, _ = holder.accept()
                accepted.close()

    # With its folders in place, the first idle tick has nothing to create, so nothing to restart.
    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_browser_tour(self):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        from selenium.webdriver.common.by import By
        from selenium.webdriver.support.ui import WebDriverWait

        token, _ = self.start_console()
        shots = os.path.join(os.path.dirname(self.host.velnor), "e2e-screenshots", "web_console")
        os.makedirs(shots, exist_ok=True)
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                         "--window-size=1280,2000", "--user-data-dir=/tmp/chromium"):
            options.add_argument(argument)
        browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
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


if __name__ == "__main__":
    sys.exit(harness.scenario_main(WebConsole, __file__, __doc__))

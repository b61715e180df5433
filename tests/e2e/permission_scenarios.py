#!/usr/bin/python3
"""Who may do what through velnord: accounts other than root, as polkit allows them (in the
systemd sandbox, where polkitd runs on the system bus) or refused when nothing can say (the plain
sandbox); and hostile accounts that send what only root may, frames that are no request, frames
that never end, hundreds of idle connections, or a request whose process has given its pid to
another account's."""

import json
import os
import shutil
import signal
import statistics
import subprocess
import sys
import time

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import sandbox  # noqa: E402

SOCKET = "/run/velnor/velnord.sock"
POLICY = os.path.join(harness.PROJECT, "packaging", "polkit", "org.velnor.postgres.policy")
ACTIONS = "/usr/share/polkit-1/actions"
RULES = "/etc/polkit-1/rules.d"
GROUP = "pgoperators"
OPERATOR = "dbadmin"  # in GROUP
STRANGER = "stranger"  # in no group
RULE = """polkit.addRule(function(action, subject) {
    if (action.id == "org.velnor.postgres.%s" && subject.isInGroup("%s")) {
        return polkit.Result.YES;
    }
});
"""

# Played by the hostile account: each frame on a connection of its own; what came back of each.
# Frames that are no whole dictionary are the frame reader's table (FrameReaderTest); these reach
# what velnord makes of a request.
MALFORMED_FRAMES = r"""
import json, plistlib, socket, struct, sys
def frame(message):
    body = plistlib.dumps(message, fmt=plistlib.FMT_BINARY)
    return struct.pack(">I", len(body)) + body
def replies(connection):
    data = b""
    while chunk := connection.recv(65536):
        data += chunk
    found = []
    while len(data) >= 4:
        length = struct.unpack(">I", data[:4])[0]
        found.append(plistlib.loads(data[4:4 + length]).get("error"))
        data = data[4 + length:]
    return found
frames = {
    "over the size limit": struct.pack(">I", 1 << 30),
    "another version": frame({"version": 99, "run": [b"status"]}),
    "a command line without its descriptors": frame({"version": 1, "run": [b"status"]}),
    "arguments that are no text": frame({"version": 1, "run": [1, 2]}),
    "a call by operation": frame({"version": 1, "operation": "startServiceWithVariant"}),
}
seen = {}
for what, data in frames.items():
    connection = socket.socket(socket.AF_UNIX)
    connection.connect(sys.argv[1])
    connection.sendall(data)
    connection.shutdown(socket.SHUT_WR)
    seen[what] = replies(connection)
print(json.dumps(seen))
"""

# Played by the hostile account: opens COUNT connections and sends nothing; once the daemon has
# told all but KEPT of them that it will not serve them (or each has said something, or 20 s have
# passed), prints how many were refused and how many it still holds open, then waits for its end.
IDLE_CONNECTIONS = r"""
import select, socket, sys, time
count, kept = int(sys.argv[2]), int(sys.argv[3])
connections = []
for _ in range(count):
    connection = socket.socket(socket.AF_UNIX)
    connection.connect(sys.argv[1])
    connections.append(connection)
refused, silent = 0, list(connections)
deadline = time.monotonic() + 20
while silent and refused < count - kept and time.monotonic() < deadline:
    ready, _, _ = select.select(silent, [], [], 0.5)
    for connection in ready:
        refused += b"try again later" in connection.recv(4096)
        silent.remove(connection)
print(refused, len(silent), flush=True)
sys.stdin.read()
"""

# Played by the hostile account: a child of it connects and hands the connection over, then ends;
# once the test has given the child's pid to another account's process, the parent sends a start
# on the connection with its own standard streams, and prints the reply.
PID_REUSED = r"""
import json, os, plistlib, socket, struct, sys
ours, theirs = socket.socketpair()
child = os.fork()
if child == 0:
    connection = socket.socket(socket.AF_UNIX)
    connection.connect(sys.argv[1])
    socket.send_fds(theirs, [b"x"], [connection.fileno()])
    os._exit(0)
theirs.close()  # a child that could not connect ends the wait below
_, fds, _, _ = socket.recv_fds(ours, 1, 1)
os.waitpid(child, 0)
connection = socket.socket(fileno=fds[0])
print(child, flush=True)
sys.stdin.readline()
body = plistlib.dumps({"version": 1, "run": [b"start"]}, fmt=plistlib.FMT_BINARY)
folder = os.open(".", os.O_PATH | os.O_DIRECTORY)
socket.send_fds(connection, [struct.pack(">I", len(body)) + body], [0, 1, 2, folder])
data = b""
while chunk := connection.recv(4096):
    data += chunk
print(json.dumps(plistlib.loads(data[4:])), flush=True)
"""


# Played by an account without privileges: sends a command line with its own standard streams,
# says so, and prints the reply once it comes.
SEND_COMMAND_LINE = r"""
import json, os, plistlib, socket, struct, sys
connection = socket.socket(socket.AF_UNIX)
connection.connect(sys.argv[1])
body = plistlib.dumps({"version": 1, "run": [a.encode() for a in sys.argv[2:]]}, fmt=plistlib.FMT_BINARY)
folder = os.open(".", os.O_PATH | os.O_DIRECTORY)
socket.send_fds(connection, [struct.pack(">I", len(body)) + body], [0, 1, 2, folder])
print("sent", flush=True)
data = b""
while chunk := connection.recv(4096):
    data += chunk
print(json.dumps(plistlib.loads(data[4:])), flush=True)
"""


def make_account(name, *groups):
    command = ["useradd", "--no-create-home", "--shell", "/usr/sbin/nologin", name]
    if groups:
        command[1:1] = ["--groups", ",".join(groups)]
    subprocess.run(command, check=True)


def velnor_as(account, velnor, *arguments, stdin=None):
    """velnor run by account with its own groups, as a login would give them, and none of root's
    settings of the plug-in."""
    environment = {key: value for key, value in os.environ.items() if key != "VELNOR_PLUGIN"}
    return subprocess.run(["setpriv", f"--reuid={account}", f"--regid={account}", "--init-groups",
                           velnor, *arguments], capture_output=True, text=True, timeout=120,
                          env=environment, stdin=stdin)


def python_as(account, script, *arguments, **popen):
    return subprocess.Popen(["setpriv", f"--reuid={account}", f"--regid={account}", "--init-groups",
                             harness.PYTHON, "-c", script, *arguments], text=True, **popen)


def grant(action):
    """Lets the members of GROUP take action, as an administrator's rule would."""
    with open(f"{RULES}/50-velnor-{action}.rules", "w") as rule:
        rule.write(RULE % (action, GROUP))
    restart_polkit()


def restart_polkit():
    # polkitd reads its actions and rules when it starts: once it answers again, they hold.
    subprocess.run(["systemctl", "restart", "polkit.service"], check=True, timeout=120)


def root_status_seconds(host, runs):
    """The median of runs of root's velnor status, each a whole process."""
    taken = []
    for _ in range(runs):
        began = time.monotonic()
        done = subprocess.run([host.velnor, "--plugin", host.plugin, "status"], capture_output=True)
        taken.append(time.monotonic() - began)
        if done.returncode != 3:
            raise AssertionError(f"root's velnor status exited {done.returncode}: {done.stderr!r}")
    return statistics.median(taken)


class Permissions(harness.ScenarioCase):
    def start_daemon(self):
        velnord = harness.velnord_beside(self.host.velnor)
        daemon = subprocess.Popen([velnord, "--plugin", self.host.plugin, "--no-web"])
        self.addCleanup(lambda: daemon.poll() is None and daemon.kill())
        harness.wait_until(lambda: os.path.exists(SOCKET), "velnord serves")
        return daemon

    def install_policy_and_accounts(self):
        shutil.copy(POLICY, ACTIONS)
        subprocess.run(["groupadd", GROUP], check=True)
        make_account(OPERATOR, GROUP)
        make_account(STRANGER)
        restart_polkit()

    def assert_refused(self, done, words):
        self.assertEqual((done.returncode, done.stdout, done.stderr), (77, "", f"velnor: {words}\n"))

    @sandbox("--systemd", "--initdb", "--socket-dir", "--log-dir")
    def test_an_operators_group_runs_the_service_and_a_stranger_only_reads_it(self):
        self.install_policy_and_accounts()
        grant("operate")
        self.start_daemon()
        self.assertEqual(harness.attributes(SOCKET), "other 0666 root:root", "the socket")
        read = velnor_as(STRANGER, self.host.velnor, "--json", "status")
        self.assertEqual((read.returncode, json.loads(read.stdout)), (3, {"state": "STOPPED"}), read.stderr)
        job = harness.job_file_bytes()
        self.assert_refused(velnor_as(STRANGER, self.host.velnor, "start"),
                            f"not allowed to start the service: {STRANGER} lacks org.velnor.postgres.operate")
        self.assertIsNone(harness.postmaster(), "no server runs after the refused start")
        self.assertEqual(harness.job_file_bytes(), job, "the job file after the refused start")

        started = velnor_as(OPERATOR, self.host.velnor, "start")
        self.assertEqual(started.returncode, 0, started.stderr)
        self.running_server()
        self.assert_state("RUNNING")
        self.assert_refused(velnor_as(STRANGER, self.host.velnor, "stop"),
                            f"not allowed to stop the service: {STRANGER} lacks org.velnor.postgres.operate")
        self.running_server()
        stopped = velnor_as(OPERATOR, self.host.velnor, "stop")
        self.assertEqual(stopped.returncode, 0, stopped.stderr)
        self.wait_for_server_to_end()

        # Operating is not configuring, until a rule grants that too.
        self.assert_refused(velnor_as(OPERATOR, self.host.velnor, "settings", "work_mem=12MB"),
                            f"not allowed to change the settings: {OPERATOR} lacks "
                            f"org.velnor.postgres.configure")
        self.assertEqual(harness.job_file_bytes(), job, "the job file after the refused write")
        grant("configure")
        written = velnor_as(OPERATOR, self.host.velnor, "settings", "work_mem=12MB")
        self.assertEqual(written.returncode, 0, written.stderr)
        self.assertIn("work_mem=12MB", harness.read_job_file()["ProgramArguments"])

    @sandbox("--systemd", "--initdb", "--socket-dir", "--log-dir")
    def test_a_pid_reused_between_connect_and_check_borrows_nothing(self):
        self.install_policy_and_accounts()
        grant("operate")
        self.start_daemon()
        # The sandbox's /proc/sys is read-only; a proc of its own lets the test choose the next pid.
        own_proc = "/run/e2e-proc"
        os.makedirs(own_proc)
        subprocess.run(["mount", "-t", "proc", "proc", own_proc], check=True)
        self.addCleanup(lambda: subprocess.run(["umount", own_proc]))
        hostile = python_as(STRANGER, PID_REUSED, SOCKET, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)
        self.addCleanup(lambda: hostile.poll() is None and hostile.kill())
        line = hostile.stdout.readline()
        if not line.strip().isdigit():
            self.fail(f"the stranger could not connect: {hostile.communicate(timeout=60)[1]}")
        connected = int(line)
        borrower = None
        for _ in range(20):  # another process of the sandbox may take the pid first: again
            with open(f"{own_proc}/sys/kernel/ns_last_pid", "w") as last:
                last.write(str(connected - 1))
            borrower = subprocess.Popen(["setpriv", f"--reuid={OPERATOR}", f"--regid={OPERATOR}",
                                         "--init-groups", "sleep", "60"])
            self.addCleanup(borrower.kill)
            if borrower.pid == connected:
                break
        self.assertEqual(borrower.pid, connected, "the operator's process took the connected pid")
        out, err = hostile.communicate("go\n", timeout=60)
        self.assertEqual(json.loads(out), {"kind": "exit", "status": 77}, err)
        self.assertEqual(err, f"velnor: not allowed to start the service: the process that connected "
                              f"(pid {connected}) has ended\n")
        self.assertIsNone(harness.postmaster(), "no server runs after the borrowed start")

    @sandbox("--systemd", "--initdb", "--socket-dir", "--log-dir")
    def test_a_hung_polkitd_holds_up_only_the_request_it_was_asked_about(self):
        self.install_policy_and_accounts()
        self.start_daemon()
        polkitd = int(subprocess.run(["systemctl", "show", "--property=MainPID", "--value", "polkit.service"],
                                     capture_output=True, text=True, check=True).stdout)
        os.kill(polkitd, signal.SIGSTOP)
        self.addCleanup(lambda: os.kill(polkitd, signal.SIGCONT))
        asking = python_as(STRANGER, SEND_COMMAND_LINE, SOCKET, "status", stdout=subprocess.PIPE)
        self.addCleanup(lambda: asking.poll() is None and asking.kill())
        self.assertEqual(asking.stdout.readline().strip(), "sent")
        # The stranger's request came first; root's is answered while polkit has not answered it.
        answer = self.velnor("status", status=3)
        self.assertEqual(answer.response, {"state": "STOPPED"})
        self.assertLess(answer.took, 2.0, "root's status took no longer than a status takes")
        self.assertIsNone(asking.poll(), "the stranger's request still waits for polkit")
        os.kill(polkitd, signal.SIGCONT)
        out = asking.communicate(timeout=60)[0].splitlines()
        self.assertEqual((out[-2:]), ["state: stopped", json.dumps({"kind": "exit", "status": 3})],
                         "the stranger's status, once polkit has answered")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_without_polkit_only_root_is_served_and_root_only_requests_are_refused(self):
        make_account(STRANGER)
        self.start_daemon()
        job = harness.job_file_bytes()
        self.assert_refused(velnor_as(STRANGER, self.host.velnor, "status"),
                            f"not allowed to read the service's state: velnord serves only root where "
                            f"polkit does not run, and {STRANGER} is not root (no system bus: No such "
                            f"file or directory)")
        call = "not allowed to call an operation by its name: only root may"
        plugin = "not allowed to choose the plug-in: only root may"
        for arguments, words in [
                (["call", "getStateWithRequest", "/etc/shadow"], call),
                (["--plugin", self.host.plugin, "status"], plugin),
                (["web-url"], "not allowed to print the console's address: only root may")]:
            with open("/etc/shadow") as stdin:
                self.assert_refused(velnor_as(STRANGER, self.host.velnor, *arguments, stdin=stdin), words)
        environment = {**os.environ, "VELNOR_PLUGIN": self.host.plugin}
        from_environment = subprocess.run(["setpriv", f"--reuid={STRANGER}", f"--regid={STRANGER}",
                                           "--init-groups", self.host.velnor, "status"],
                                          capture_output=True, text=True, env=environment)
        self.assert_refused(from_environment, plugin)
        # What runs in the client's own process is refused there, as it always was (and --help is
        # everyone's: host_scenarios.py).
        self.assert_refused(velnor_as(STRANGER, self.host.velnor, "--direct", "start"), "must be run as root")
        self.assertIsNone(harness.postmaster(), "nothing started")
        self.assertEqual(harness.job_file_bytes(), job, "the job file")
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"}, "root's status")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_malformed_and_slow_frames_of_another_account_are_closed_and_hold_up_no_one(self):
        make_account(STRANGER)
        daemon = self.start_daemon()
        slow = python_as(STRANGER, "import socket, sys, time\n"
                         "c = socket.socket(socket.AF_UNIX); c.connect(sys.argv[1]); c.sendall(b'\\0\\0\\0\\x40bpl')\n"
                         "data = b''\n"
                         "while chunk := c.recv(4096): data += chunk\n"
                         "print(b'no whole request came within 5 seconds' in data)", SOCKET,
                         stdout=subprocess.PIPE)
        malformed = python_as(STRANGER, MALFORMED_FRAMES, SOCKET, stdout=subprocess.PIPE)
        seen = json.loads(malformed.communicate(timeout=60)[0])
        for what, errors in seen.items():
            self.assertEqual(len(errors), 1, f"{what}: one error, then the end: {errors}")
        self.assertIn("1048576-byte limit", seen["over the size limit"][0])
        self.assertEqual(seen["a call by operation"][0],
                         "not allowed to call an operation by its name: only root may")
        # Root is served while the slow frame is still on its way.
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"})
        self.assertIsNone(slow.poll(), "the slow frame's connection is still open")
        self.assertEqual(slow.communicate(timeout=60)[0].strip(), "True", "the slow frame is told its end")
        self.assertIsNone(daemon.poll(), "velnord still runs")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_two_hundred_idle_connections_of_another_account_hold_up_no_root_status(self):
        make_account(STRANGER)
        self.start_daemon()
        runs = 15
        alone = root_status_seconds(self.host, runs)
        hog = python_as(STRANGER, IDLE_CONNECTIONS, SOCKET, "200", "8", stdin=subprocess.PIPE,
                        stdout=subprocess.PIPE)
        self.addCleanup(lambda: hog.poll() is None and hog.kill())
        refused, kept = (int(count) for count in hog.stdout.readline().split())
        beside = root_status_seconds(self.host, runs)
        hog.stdin.close()
        hog.wait(timeout=60)
        print(f"root's velnor status, median of {runs}: {alone * 1000:.1f} ms alone, "
              f"{beside * 1000:.1f} ms with 200 idle connections of another account open")
        self.assertEqual((refused, kept), (192, 8), "an account keeps 8 connections; the rest are told")
        # Waiting on another account's connections would cost their frame deadline, seconds; the
        # bound leaves room for a loaded machine under the sanitizers, and the figure is printed.
        self.assertLess(beside - alone, 0.25, "root's status waits for no one")


if __name__ == "__main__":
    sys.exit(harness.scenario_main(Permissions, __file__, __doc__))

#!/usr/bin/python3
"""Hostile scenarios against the host: another account trying to block or stall root's velnor.

    host_attack_scenarios.py --velnor PATH --plugin PATH [--bind DIR] NAME
    host_attack_scenarios.py --list

Each scenario plays, inside its own sandbox, what an unprivileged account could do to the host
lock or to the database socket, and checks that root's velnor still answers in bounded time with
its ordinary responses, or refuses clearly and does nothing else.
"""

import os
import signal
import subprocess
import sys

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import ACCOUNT_ID, SOCKET_DIR, as_user, regular_file, sandbox  # noqa: E402

LOCK_FOLDER = "/var/run/velnor"
LOCK_FILE = LOCK_FOLDER + "/host.lock"
NOBODY_ID = 65534
# A listener that takes connections into its backlog and never says a word.
SILENT_SERVER = """
import socket, sys
server = socket.socket(socket.AF_UNIX)
server.bind(sys.argv[1])
server.listen(64)
print("listening", flush=True)
sys.stdin.read()
"""


def holds_flock(pid):
    """True once pid holds a flock (an entry of its own in /proc/locks, not a waiter's)."""
    with open("/proc/locks") as locks:
        return any(fields[1:2] == ["FLOCK"] and fields[4] == str(pid)
                   for fields in (line.split() for line in locks))


class Holder:
    """A process that holds (or tries to hold) an exclusive flock on the host lock file."""

    def __init__(self, uid=0):
        # A session of its own: the sleep that flock starts holds the lock too, and ends with it.
        self.process = subprocess.Popen(as_user(uid, ["flock", "-x", LOCK_FILE, "sleep", "60"]),
                                        stderr=subprocess.DEVNULL, start_new_session=True)

    def wait_until_settled(self):
        """Returns once the holder has the lock or has given up; True when it has the lock."""
        harness.wait_until(lambda: self.process.poll() is not None or holds_flock(self.process.pid),
                           "the lock holder has the lock or has given up")
        return self.process.poll() is None

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


class HostAttacks(harness.ScenarioCase):
    @sandbox()
    def test_another_account_cannot_hold_the_host_lock(self):
        """nobody's flock on the lock file cannot block root: the file is root's, 0600."""
        self.velnor("status")
        with Holder(NOBODY_ID) as holder:
            holder.wait_until_settled()
            answer = self.host("status", timeout=20)
            self.assertEqual((answer.status, answer.response), (0, {"state": "STOPPED"}))
            self.assertIsNotNone(holder.process.poll(), "nobody could not hold the host lock")
        self.assertEqual(harness.attributes(LOCK_FILE), regular_file(0o600, "root"), "the lock file")
        self.assertEqual(harness.attributes(LOCK_FOLDER), harness.folder(0o755, "root"))

    @sandbox()
    def test_a_planted_lock_is_refused_and_nothing_is_done(self):
        """A lock file that is a link or another account's, or a lock folder that another account
        owns, makes velnor refuse with the reason, before the plug-in does anything."""
        target = "/etc/velnor-target"

        def link():
            with open(target, "w"):
                pass
            os.symlink(target, LOCK_FILE)

        def not_roots():
            with open(LOCK_FILE, "w"):
                pass
            os.chown(LOCK_FILE, ACCOUNT_ID, ACCOUNT_ID)

        def folder_not_roots():
            os.chown(LOCK_FOLDER, ACCOUNT_ID, ACCOUNT_ID)

        def folder_writable_by_all():
            os.chmod(LOCK_FOLDER, 0o777)

        rows = [
            (link, "it is a symbolic link"),
            (not_roots, "it belongs to uid 216, not root"),
            (folder_not_roots, "it belongs to uid 216, not root"),
            (folder_writable_by_all, "others may write to it"),
        ]
        for plant, reason in rows:
            os.makedirs(LOCK_FOLDER, mode=0o755, exist_ok=True)
            plant()
            answer = self.host("start")
            self.assertEqual(answer.status, 73, f"{plant.__name__}: {answer}")
            self.assertIn(reason, answer.stderr, plant.__name__)
            self.assertIn('velnor: could not ', answer.stderr, plant.__name__)
            self.assertEqual(answer.log, [], f"{plant.__name__}: the plug-in was not called")
            self.assertFalse(os.path.exists(SOCKET_DIR), f"{plant.__name__}: nothing was done")
            if os.path.exists(target):
                self.assertEqual(harness.attributes(target), regular_file(0o644, "root"))
                os.remove(target)
            subprocess.run(["rm", "-rf", LOCK_FOLDER], check=True)

    @sandbox()
    def test_velnor_refuses_other_accounts(self):
        """Only root may run the host; any other account is told so before anything happens."""
        for uid in (ACCOUNT_ID, NOBODY_ID):
            answer = self.host("status", uid=uid)
            self.assertEqual((answer.status, answer.stderr), (77, "velnor: must be run as root\n"))
        self.assertFalse(os.path.exists(LOCK_FOLDER), "nothing was created")
        help_text = subprocess.run(as_user(ACCOUNT_ID, [self.host.velnor, "--help"]), capture_output=True)
        self.assertEqual(help_text.returncode, 0, "the help needs no root")

    @sandbox()
    def test_wait_bounds_the_wait_for_the_host_lock(self):
        """With --wait, a lock that another velnor holds ends the run with 75, after saying that
        it waits; without, the run goes on once the lock is free."""
        self.velnor("status")
        with Holder() as holder:
            self.assertTrue(holder.wait_until_settled(), "root's holder has the lock")
            answer = self.host("--wait", "2", "status", timeout=60)
            self.assertEqual(answer.status, 75, answer)
            self.assertEqual(answer.stderr,
                             f'velnor: waiting for the host lock "{LOCK_FILE}" held by another velnor\n'
                             f'velnor: could not take the host lock "{LOCK_FILE}": another velnor '
                             "held it for 2 s\n")
            self.assertGreaterEqual(answer.took, 2.0)
            self.assertLess(answer.took, 10.0)
        self.assertEqual(self.velnor("--wait", "2", "status").response, {"state": "STOPPED"})

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_a_silent_socket_costs_bounded_time(self):
        """A listener of the service account's on the server's socket that never answers makes
        the probe give up after PGCONNECT_TIMEOUT; each call still gives its ordinary answer."""
        socket_path = SOCKET_DIR + "/.s.PGSQL.5432"
        listener = subprocess.Popen(as_user(ACCOUNT_ID, [harness.PYTHON, "-c", SILENT_SERVER,
                                                         socket_path]),
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            self.assertEqual(listener.stdout.readline(), "listening\n")
            # Left to velnor's own default first; then low, to keep the rest quick.
            state = self.host("status", "--details", timeout=30)
            self.assertEqual((state.status, state.response["state"],
                              state.response["postgresIsResponding"], state.response["PGserverVersion"]),
                             (0, "STOPPED", False, 0), state)
            self.assertLess(state.took, 15.0, "one probe costs at most the connect timeout")
            quick = {"PGCONNECT_TIMEOUT": "2"}

            stop = self.host("stop", environment=quick, timeout=30)
            self.assertEqual((stop.status, stop.response, stop.log), (0, None, []), stop)
            self.assertLess(stop.took, 10.0)

            # The server takes the socket's name over as it starts.
            start = self.host("start", environment=quick, timeout=60)
            self.assertEqual(start.status, 0, start)
            self.assert_started(start)
            self.running_server()
        finally:
            listener.kill()
            listener.wait()


if __name__ == "__main__":
    sys.exit(harness.scenario_main(HostAttacks, __file__, __doc__))

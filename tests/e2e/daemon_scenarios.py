#!/usr/bin/python3
"""velnord on its own: what it does with frames it cannot use, clients that send
nothing or dribble, a client that vanishes mid-operation, SIGTERM while an operation runs, the idle tick's housekeeping, the
jobs that run at load, a command line run with the client's own folder and input, and a direct
velnor that loads no libpq. (A stop's SIGKILL on time: metrics_scenarios.py, which counts it.)"""

import fcntl
import os
import plistlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import CREATED_SOCKET_DIR, LOG_DIR, read_job_file, sandbox, write_job_file  # noqa: E402

SOCKET = "/run/velnor/velnord.sock"
VERSION = 1
RECORDS = "/var/run/velnor/launchd"
LOAD_FOLDER = "/Library/LaunchDaemons"
LOCK_FILE = "/var/run/velnor/host.lock"


def frame(message):
    body = plistlib.dumps(message, fmt=plistlib.FMT_BINARY)
    return struct.pack(">I", len(body)) + body


def read_frame(connection):
    """The next message, or None once the daemon has closed the connection."""
    def exactly(size):
        data = b""
        while len(data) < size:
            chunk = connection.recv(size - len(data))
            if not chunk:
                return None
            data += chunk
        return data
    prefix = exactly(4)
    return plistlib.loads(exactly(struct.unpack(">I", prefix)[0])) if prefix else None


def connect():
    client = socket.socket(socket.AF_UNIX)
    client.connect(SOCKET)
    return client


class Daemon(harness.ScenarioCase):
    def start_daemon(self, interval=10, log=None):
        velnord = harness.velnord_beside(self.host.velnor)
        daemon = subprocess.Popen([velnord, "--plugin", self.host.plugin, "--idle-interval", str(interval),
                                   "--no-metrics", *(["--foreground"] if log else [])], stderr=log)
        self.addCleanup(lambda: daemon.poll() is None and daemon.kill())
        harness.wait_until(lambda: os.path.exists(SOCKET), "velnord serves")
        return daemon

    @sandbox()
    def test_bad_frames_are_refused_and_the_daemon_serves_on(self):
        daemon = self.start_daemon()
        # Every account may connect; what each may ask is decided per request
        # (permission_scenarios.py).
        self.assertEqual(harness.attributes(SOCKET), "other 0666 root:root", "the socket")
        self.assertEqual(harness.attributes(os.path.dirname(SOCKET)), harness.folder(0o755, "root"))
        # Frames that are no whole request are the frame reader's table and another account's
        # scenario (permission_scenarios.py); these are calls by operation, root's alone.
        for what, data in [
                ("another version", frame({"version": 99, "operation": "getStateWithRequest"})),
                ("an argument of the wrong kind", frame({"version": VERSION, "operation": "doIdleAtCount",
                                                         "count": "many"}))]:
            client = connect()
            client.sendall(data)
            client.shutdown(socket.SHUT_WR)
            reply = read_frame(client)
            self.assertEqual(reply["kind"] if reply else None, "error", what)
            self.assertIsNone(read_frame(client), f"the connection ends after {what}")
        # A call for another style is told so, as the in-process host tells it, and may go on.
        client = connect()
        for style, kind in [("service", "error"), ("request", "outcome")]:
            client.sendall(frame({"version": VERSION, "operation": "getStateWithRequest", "request": {},
                                  "style": style}))
            reply = read_frame(client)
            while reply["kind"] == "log":
                reply = read_frame(client)
            self.assertEqual(reply["kind"], kind, f"a call for a {style} operation")
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"})
        self.assertIsNone(daemon.poll(), "velnord still runs")

    @sandbox()
    def test_silent_and_dribbling_clients_are_closed_and_hold_up_no_one(self):
        daemon = self.start_daemon()
        descriptors = lambda: len(os.listdir(f"/proc/{daemon.pid}/fd"))  # noqa: E731
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"})
        served = descriptors()
        request = frame({"version": VERSION, "operation": "getStateWithRequest", "request": {}})
        silent, dribbling, answered = connect(), connect(), connect()
        dribbling.sendall(request[:6])
        # Served while the other two have sent nothing whole, on a connection of its own.
        answered.sendall(request)
        self.assertEqual(read_frame(answered)["kind"], "outcome")
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"})
        for what, client in [("a client that sent nothing", silent), ("a client that dribbled", dribbling)]:
            client.settimeout(30)
            reply = read_frame(client)
            self.assertIn("no whole request came within", reply["error"] if reply else "", what)
            self.assertIsNone(read_frame(client), f"the daemon closed {what}")
        # The answered client, idle since, is closed too; and nothing of the three is kept.
        answered.settimeout(30)
        self.assertEqual(read_frame(answered)["kind"], "error")
        harness.wait_until(lambda: descriptors() == served, "velnord holds no descriptor of the three")
        self.assertIsNone(daemon.poll(), "velnord still runs")

    @sandbox("--initdb")
    def test_sigterm_and_a_vanished_client_leave_the_operation_to_finish(self):
        daemon = self.start_daemon()
        client = connect()
        client.sendall(frame({"version": VERSION, "operation": "startServiceWithVariant"}))
        self.assertEqual(read_frame(client)["message"], CREATED_SOCKET_DIR,
                         "the start's first message, streamed while it runs")
        daemon.send_signal(signal.SIGTERM)
        rest = [reply for reply in iter(lambda: read_frame(client), None) if reply["kind"] != "log"]
        self.assertEqual(rest, [{"kind": "outcome", "answered": True}], "the start finished")
        self.assertEqual(daemon.wait(timeout=20), 0, "velnord exits 0 after the running start")
        self.assertFalse(os.path.exists(SOCKET), "the socket is gone with velnord")
        self.assertTrue(harness.answers(), "the server that the start started answers")
        daemon = self.start_daemon()
        connect().sendall(frame({"version": VERSION, "operation": "stopServiceWithVariant"}))
        harness.wait_until(lambda: harness.postmaster() is None and not harness.server_processes(),
                           "the stop went on without its client")
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"})
        self.assertIsNone(daemon.poll(), "velnord still runs")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_the_idle_tick_puts_back_a_removed_log_folder_within_one_interval(self):
        self.start_daemon(interval=2)
        os.rmdir(LOG_DIR)
        # One interval, and a second's grace for a loaded machine.
        harness.wait_until(lambda: os.path.isdir(LOG_DIR), "the log folder is back", seconds=3)
        self.assertEqual(harness.attributes(LOG_DIR), harness.folder(0o755), "the log folder")


    @sandbox()
    def test_jobs_that_run_at_load_start_with_the_daemon_and_untrusted_files_are_skipped(self):
        os.makedirs(LOAD_FOLDER, mode=0o755, exist_ok=True)
        sleeper = {"ProgramArguments": ["/bin/sleep", "1000"], "RunAtLoad": True}
        jobs = {"runs": sleeper, "disabled": {**sleeper, "Disabled": True},
                "not-at-load": {**sleeper, "RunAtLoad": False}, "writable": sleeper,
                "broken": {**sleeper, "RunAtLoad": "yes"}}
        for label, job in jobs.items():
            with open(os.path.join(LOAD_FOLDER, f"test.{label}.plist"), "wb") as out:
                plistlib.dump(job, out)
        os.chmod(os.path.join(LOAD_FOLDER, "test.writable.plist"), 0o666)
        os.symlink("test.runs.plist", os.path.join(LOAD_FOLDER, "test.link.plist"))
        with tempfile.TemporaryFile("w+") as log:
            self.start_daemon(log=log)
            log.seek(0)
            messages = log.read()
        started = sorted(name for name in os.listdir(RECORDS) if name.startswith("test."))
        self.assertEqual(started, ["test.runs"], "only the job that runs at load was started")
        for label in ["writable", "broken", "link"]:
            self.assertIn(f"/test.{label}.plist", messages, f"the skipped {label} file is logged")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_a_command_line_runs_in_the_daemon_with_the_clients_folder_and_input(self):
        self.start_daemon()
        folder = tempfile.mkdtemp()
        # A name past 15 bytes and not ASCII: the client sends each argument as the bytes it got.
        name = "requête d'un client.plist"
        with open(os.path.join(folder, name), "wb") as file:
            plistlib.dump({}, file)
        call = [self.host.velnor, "--plugin", self.host.plugin, "call", "getStateWithRequest"]
        by_path = subprocess.run([*call, name], cwd=folder, capture_output=True)
        self.assertEqual((by_path.returncode, plistlib.loads(by_path.stdout)), (0, {"state": "STOPPED"}),
                         by_path.stderr)
        by_input = subprocess.run([*call, "-"], input=plistlib.dumps({}), capture_output=True)
        self.assertEqual((by_input.returncode, by_input.stdout), (0, by_path.stdout), by_input.stderr)
        # The daemon's plug-in by another name is still the daemon's; another file is run in the
        # client's own process, which takes its turn between two of the daemon's calls.
        os.symlink(self.host.plugin, os.path.join(folder, "same.so"))
        shutil.copy(self.host.plugin, os.path.join(folder, "other.so"))
        for plugin, status in [("same.so", 3), ("other.so", 3)]:
            run = subprocess.run([self.host.velnor, "--plugin", plugin, "--wait", "0", "status"], cwd=folder,
                                 capture_output=True, text=True)
            self.assertEqual(run.returncode, status, f"{plugin}: {run.stderr}")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_a_direct_run_takes_its_turn_between_the_daemons_calls(self):
        daemon = self.start_daemon()
        direct = subprocess.run([self.host.velnor, "--direct", "--plugin", self.host.plugin, "--wait", "5",
                                 "status"], capture_output=True, text=True, timeout=60)
        self.assertEqual((direct.returncode, direct.stdout, direct.stderr), (3, "state: stopped\n", ""),
                         "a direct status beside a serving velnord answers at once")
        # Whoever holds the lock is named to a call that waits for it, and the call runs once it
        # is free.
        with open(LOCK_FILE) as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            client = subprocess.Popen([self.host.velnor, "--plugin", self.host.plugin, "status"],
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.assertEqual(client.stderr.readline().split(": ", 1)[1],
                             f'waiting for the host lock "{LOCK_FILE}" held by python3 (pid {os.getpid()})\n')
            fcntl.flock(lock, fcntl.LOCK_UN)
            self.assertEqual((client.wait(timeout=60), client.stdout.read()), (3, "state: stopped\n"))
        # One velnord serves at a time; a second one says which, and leaves the first its socket.
        second = subprocess.run([harness.velnord_beside(self.host.velnor), "--plugin", self.host.plugin,
                                 "--foreground", "--no-web", "--no-metrics"], capture_output=True, text=True, timeout=60)
        self.assertEqual((second.returncode, second.stderr),
                         (73, f'velnord: could not take the daemon lock "/run/velnor/velnord.lock": '
                              f"velnord (pid {daemon.pid}) holds it, and one velnord serves at a time\n"))
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"})

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_a_direct_status_loads_no_libpq_and_a_probe_loads_it(self):
        needed = subprocess.run(["readelf", "-d", self.host.plugin], capture_output=True, text=True)
        self.assertNotIn("libpq", needed.stdout, "the plug-in does not link libpq")
        for arguments, loads in [(["status"], False), (["status", "--details"], True)]:
            run = subprocess.run([self.host.velnor, "--direct", "--plugin", self.host.plugin, *arguments],
                                 capture_output=True, text=True, env={**os.environ, "LD_DEBUG": "files"})
            self.assertEqual(run.returncode, 3, run.stderr[-2000:])  # the server is stopped
            self.assertEqual("libpq.so.5" in run.stderr, loads, f"velnor {' '.join(arguments)}")


if __name__ == "__main__":
    sys.exit(harness.scenario_main(Daemon, __file__, __doc__))

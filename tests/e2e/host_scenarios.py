#!/usr/bin/python3
"""The host around each call, with the real plug-in: how a run ends and what it prints, where the
request comes from, what the folders and the job file look like whatever the caller's umask; and
another account trying to block or stall root's velnor through its lock or the server's socket."""

import json
import os
import pathlib
import plistlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import (ACCOUNT, ACCOUNT_ID, CREATED_SOCKET_DIR, JOB_FILE, LOG_DIR, SOCKET_DIR,  # noqa: E402
                     as_user, regular_file, sandbox)

LOCK_FOLDER = "/var/run/velnor"
LOCK_FILE = LOCK_FOLDER + "/host.lock"
RECORD = LOCK_FOLDER + "/launchd/org.postgresql.postgres"
NOBODY_ID = 65534
# An idle client's title, on a program whose path begins as the server's does.
IDLE_TITLE = "postgres: app db [local] idle"
IDLE_PROGRAM = "/usr/bin/postgres-idle"
# The calls with which a stop takes hold of a process, by their numbers on x86-64: pidfd_open,
# and kill, which a stop that signals by pid alone would make.
HOLDING_CALLS = {"pidfd_open": 434, "kill": 62}
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


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as listed:
        return [int(child) for child in listed.read().split()]


def syscall_of(pid):
    """What pid is in the middle of, from /proc/PID/syscall: its number and arguments in hex."""
    try:
        with open(f"/proc/{pid}/syscall") as current:
            return current.read()
    except OSError:
        return ""


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


DETAILS = plistlib.dumps({"variant": "withDetails"})
STOPPED = '{\n  "state": "STOPPED"\n}\n'
# A module that loads but is no plug-in.
LIBC = next(line.split()[-1] for line in open("/proc/self/maps") if "/libc.so" in line)


class HostRuns(harness.ScenarioCase):
    def raw(self, *arguments, stdin=b"", stdout=subprocess.PIPE, umask=None, env=None):
        """velnor with the plug-in (unless arguments name one): exit status, output and errors."""
        plugin = [] if "--plugin" in arguments else ["--plugin", self.host.plugin]
        done = subprocess.run([self.host.velnor, *plugin, *arguments], input=stdin, stdout=stdout,
                              stderr=subprocess.PIPE, timeout=60, env={**os.environ, **(env or {})},
                              preexec_fn=None if umask is None else lambda: os.umask(umask))
        return done.returncode, (done.stdout or b"").decode(), done.stderr.decode()

    @sandbox()
    def test_each_way_a_run_ends_has_its_exit_status(self):
        """Usage, request and module faults stop the host before the lock and the plug-in; an
        answer, an error answer, a throw and an unwritable output each end in their own way."""
        scratch = tempfile.mkdtemp()
        missing, array, details = (os.path.join(scratch, name) for name in ("no", "array", "details"))
        pathlib.Path(array).write_bytes(plistlib.dumps(["x"]))
        pathlib.Path(details).write_bytes(DETAILS)
        job = harness.job_file_bytes()
        refused = [  # arguments, standard input, exit status, in standard error
            (["call", "noSuchOperation"], b"", 64, 'has no operation "noSuchOperation"; it has initialSetupWithRequest, '),
            (["call", "getStateWithRequest", missing], b"", 65, missing + '": No such file or directory'),
            (["call", "getStateWithRequest", array], b"", 65, array + '": it holds an array'),
            (["call", "getStateWithRequest", "-"], b'{"a": 1}', 65, 'could not read the request "standard input"'),
            (["--plugin", missing, "status"], b"", 69, f'could not load plug-in "{missing}"'),
            (["--plugin", LIBC, "status"], b"", 69, "VelnorPluginDescriptor"),
            (["call", "writeSettingsWithRequest", "-"], plistlib.dumps({"configuration": "port=5433"}),
             2, 'velnor: writeSettingsWithRequest ended without a response: '
                'velnor::postgres::RequestError: "configuration" must be a dictionary'),
        ]
        for arguments, stdin, status, error in refused:
            answer = self.raw(*arguments, stdin=stdin)
            self.assertEqual(answer[:2], (status, ""), f"{arguments}: {answer}")
            self.assertIn(error, answer[2], arguments)
            self.assertNotIn(harness.LOG_PREFIX, answer[2], f"{arguments}: the plug-in did nothing")
        thrown = self.raw("--json", "call", "writeSettingsWithRequest", "-",
                          stdin=plistlib.dumps({"configuration": "port=5433"}))
        self.assertEqual((thrown[0], json.loads(thrown[1])["failure"]["exception"]),
                         (2, {"type": "velnor::postgres::RequestError",
                              "what": '"configuration" must be a dictionary, not a string'}),
                         "JSON names a throw")
        self.assertFalse(os.path.exists(SOCKET_DIR), "no housekeeping ran")
        self.assertEqual(harness.job_file_bytes(), job, "the job file is as it was")

        # The log reaches standard error under the host's name and pid.
        idle = subprocess.Popen([self.host.velnor, "--plugin", self.host.plugin, "idle"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        out, err = idle.communicate(timeout=60)
        self.assertEqual((idle.returncode, out), (0, "0\n"), err)
        self.assertIn(f"velnor[{idle.pid}]: {CREATED_SOCKET_DIR}\n", err)

        with open("/dev/full", "wb") as full:
            answer = self.raw("status", stdout=full)
        self.assertEqual(answer, (74, "", "velnor: could not write the response to \"standard output\": No space left on device\n"))
        self.assertEqual(self.raw("--json", "call", "stopServiceWithVariant"), (0, "null\n", ""))
        self.assertEqual(self.raw("call", "stopServiceWithVariant"), (0, "", ""))
        xml = self.raw("call", "getStateWithRequest", details)[1]
        self.assertIn("<key>PGserverVersion</key>\n\t<integer>0</integer>", xml, "0 is no false")
        self.assertIn("<key>postgresIsResponding</key>\n\t<false/>", xml)

        # The request comes from a file or standard input when named, and never unasked.
        for source, stdin, detailed in ((details, b"", True), ("-", DETAILS, True), (None, DETAILS, False)):
            status, out, _ = self.raw("--json", "call", "getStateWithRequest",
                                      *([source] if source else []), stdin=stdin)
            self.assertEqual(status, 0)
            self.assertEqual("dataDir" in out, detailed, f"request from {source}: {out}")
            self.assertTrue(detailed or out == STOPPED, out)

        # A job whose program cannot run is refused at once, leaves no record and does not run.
        script = os.path.join(scratch, "script.sh")
        pathlib.Path(script).write_text("#!/bin/sh\n")
        job = harness.read_job_file()
        for program, reason in (("/nonexistent/program", 'could not execute "/nonexistent/program": No such file'),
                                (script, f'could not execute "{script}": Permission denied'),
                                ("velnor-no-such", 'could not find the program "velnor-no-such": it is in no folder of /usr/bin:')):
            harness.write_job_file({**job, "ProgramArguments": [program, *job["ProgramArguments"][1:]]})
            answer = self.velnor("start", status=1)
            self.assertEqual(answer.response, {"error": "CANNOT_START_SERVICE_ERR"}, program)
            self.assertIn(f'velnor: could not start job "org.postgresql.postgres": {reason}', answer.stderr)
            self.assertFalse(os.path.exists(RECORD), f"{program}: a record was left")
            self.assert_state("STOPPED")

        # A socket folder chosen by the caller is where the probe knocks.
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(os.path.join(scratch, ".s.PGSQL.5432"))
        listener.listen(8)
        listener.setblocking(False)
        self.raw("status", "--details", env={"PGHOST": scratch, "PGCONNECT_TIMEOUT": "2"})
        listener.accept()  # raises when nobody knocked

    @sandbox()
    def test_lock_and_job_file_keep_their_modes_whatever_the_umask(self):
        """Under umask 077 the lock, the folders and the job file get their own modes; a rewritten
        job file keeps its mode, group and key order."""
        job = harness.read_job_file()
        reordered = dict(reversed(list(job.items())))  # an order that no sorting writer keeps
        with open(JOB_FILE, "wb") as out:
            plistlib.dump(reordered, out, fmt=plistlib.FMT_BINARY, sort_keys=False)
        os.chown(JOB_FILE, 0, harness.ACCOUNT_ID)
        os.chmod(JOB_FILE, 0o640)
        inode = os.stat(JOB_FILE).st_ino

        status, _, err = self.raw("settings", "work_mem=8MB", umask=0o077)
        self.assertEqual(status, 0, err)
        self.assertEqual(harness.attributes(JOB_FILE), f"file 0640 root:{ACCOUNT}", "the job file")
        self.assertNotEqual(os.stat(JOB_FILE).st_ino, inode, "the job file is replaced whole")
        self.assertEqual(os.listdir(os.path.dirname(JOB_FILE)), [os.path.basename(JOB_FILE)])
        self.assertEqual(harness.job_file_format(), "binary", "binary stays binary")
        rewritten = harness.read_job_file()
        self.assertEqual(list(rewritten), list(reordered), "the keys keep their order")
        self.assertIn("work_mem=8MB", rewritten.pop("ProgramArguments"))
        self.assertEqual(rewritten, {k: v for k, v in job.items() if k != "ProgramArguments"})
        for path, expected in ((SOCKET_DIR, harness.folder(0o750)), ("/Library", harness.folder(0o755)),
                               ("/Library/Logs", harness.folder(0o755)), (LOG_DIR, harness.folder(0o755))):
            self.assertEqual(harness.attributes(path), expected, path)

        os.remove(JOB_FILE)
        self.assertEqual(self.raw("setup", umask=0o077)[0], 0)
        self.assertEqual(harness.attributes(JOB_FILE), harness.regular_file(0o644, "root"),
                         "a new job file is readable by everyone")

    @sandbox()
    def test_a_pid_reused_during_a_stop_is_never_signalled(self):
        """An idle client of the service account ends while a stop holds its pid (a debugger holds
        the stop there), and a process of root's takes the pid: root's is never hit."""
        shutil.copy("/usr/bin/sleep", IDLE_PROGRAM)
        client = subprocess.Popen(as_user(ACCOUNT_ID, ["bash", "-c", f'exec -a "{IDLE_TITLE}" {IDLE_PROGRAM} 60']))
        harness.wait_until(lambda: harness.command_line(client.pid)[:1] == [IDLE_TITLE], "the client runs")
        calls = ",".join(HOLDING_CALLS)
        tracer = subprocess.Popen(["strace", "-qq", "-o", "/dev/null", "-e", f"trace={calls}",
                                   "-e", f"inject={calls}:delay_enter=3000000", self.host.velnor,
                                   "--plugin", self.host.plugin, "stop"], stderr=subprocess.PIPE, text=True,
                                  # A leak check cannot run under a debugger (the sanitizer build).
                                  env={**os.environ, "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "")
                                       + ":detect_leaks=0"})
        holding = tuple(f"{number} {client.pid:#x} " for number in HOLDING_CALLS.values())
        harness.wait_until(lambda: any(syscall_of(pid).startswith(holding) for pid in children(tracer.pid)),
                           "the stop holds the client's pid")
        client.kill()
        client.wait()
        pathlib.Path("/proc/sys/kernel/ns_last_pid").write_text(str(client.pid - 1))
        # Root's process even looks like an idle client: only its owner tells it apart.
        bystander = subprocess.Popen(["bash", "-c", f'exec -a "{IDLE_TITLE}" {IDLE_PROGRAM} 60'])
        self.addCleanup(bystander.kill)
        self.assertEqual(bystander.pid, client.pid, "root's process took the client's pid")
        self.assertEqual(tracer.wait(timeout=60), 0, tracer.stderr.read())
        self.assertIsNone(bystander.poll(), "the stop signalled root's process")

    @sandbox()
    def test_nothing_is_made_where_something_else_stands(self):
        """A file in the way of a folder or of its parent is kept and named in one line, and the
        job file names the folder asked for all the same; a dangling link is not followed."""
        os.makedirs("/Library")
        for file in ("/srv/file", "/Library/Logs", SOCKET_DIR):
            pathlib.Path(file).write_text("keep me")
        os.symlink("/srv/nowhere", "/srv/dangling")
        kept = harness.attributes("/srv/file")
        for location, error in (("/srv/file", '"/srv/file": File exists'),
                                ("/srv/file/child/grandchild", '"/srv/file/child": Not a directory'),
                                ("/srv/dangling", '"/srv/dangling": File exists')):
            answer = self.velnor("setup", "--data-location", location, status=1)
            self.assertEqual(answer.response, {"error": "could not create folder " + error})
            self.assertEqual(answer.log, [f"velnor_postgres: Error trying to create dataLocation "
                                          f"folder {location}: could not create folder {error}"])
            self.assertEqual(harness.read_job_file()["ProgramArguments"],
                             harness.default_arguments(location), "the job file names the folder")
        self.assertEqual(harness.attributes("/srv/file"), kept, "the file keeps its owner and mode")
        # A file at the socket folder's place counts as the folder; one above the log folder not.
        self.assertEqual(self.velnor("idle").log[:1], [
            f'velnor_postgres: Error trying to create log folder {LOG_DIR}: could not create folder "{LOG_DIR}": Not a directory'])
        self.assertFalse(os.path.lexists("/srv/nowhere"), "a dangling link was followed")
        self.assertEqual([open(file).read() for file in ("/srv/file", "/Library/Logs", SOCKET_DIR)],
                         ["keep me"] * 3)


    @sandbox()
    def test_another_account_cannot_hold_the_host_lock(self):
        """nobody's flock on the lock file cannot block root: the file is root's, 0600."""
        self.velnor("status", status=3)
        with Holder(NOBODY_ID) as holder:
            holder.wait_until_settled()
            answer = self.host("status", timeout=20)
            self.assertEqual((answer.status, answer.response), (3, {"state": "STOPPED"}))
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
    def test_wait_bounds_the_wait_for_the_host_lock(self):
        """With --wait, a lock that another process holds ends the run with 75, after saying that
        it waits and for whom; without, the run goes on once the lock is free."""
        self.velnor("status", status=3)
        with Holder() as holder:
            self.assertTrue(holder.wait_until_settled(), "root's holder has the lock")
            answer = self.host("--wait", "2", "status", timeout=60)
            self.assertEqual(answer.status, 75, answer)
            holder_name = f"flock (pid {holder.process.pid})"
            self.assertEqual(answer.stderr,
                             f'velnor: waiting for the host lock "{LOCK_FILE}" held by {holder_name}\n'
                             f'velnor: could not take the host lock "{LOCK_FILE}": {holder_name} '
                             "held it for 2 s\n")
            self.assertGreaterEqual(answer.took, 2.0)
            self.assertLess(answer.took, 10.0)
        self.assertEqual(self.velnor("--wait", "2", "status", status=3).response, {"state": "STOPPED"})

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
                             (3, "STOPPED", False, 0), state)
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
    sys.exit(harness.scenario_main(HostRuns, __file__, __doc__))

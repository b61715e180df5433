"""What the end-to-end tests share: running them as root or skipping, starting a test inside a fresh
sandbox, calling the host, and looking at the files, processes and server inside the sandbox.

Standard library only: the tests run with Debian's own python3 inside the sandbox.
"""

import argparse
import dataclasses
import grp
import json
import os
import plistlib
import pwd
import re
import socket
import stat
import subprocess
import sys
import time
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SANDBOX = os.path.join(PROJECT, "scripts", "sandbox")
PYTHON = "/usr/bin/python3"
SKIP = 77  # CTest's SKIP_RETURN_CODE, and the sandbox's status when this machine cannot run one

JOB_FILE = "/System/Library/LaunchDaemons/org.postgresql.postgres.plist"
JOB_UNIT = "velnor-launchd-org.postgresql.postgres.service"
DATA_DIR = "/var/pgsql"
SOCKET_DIR = "/var/pgsql_socket"
LOG_DIR = "/Library/Logs/PostgreSQL"
LOG_FILE = LOG_DIR + "/PostgreSQL.log"
MARKER = DATA_DIR + "/.10.7.4_log_directory_updated"
ACCOUNT = "_postgres"
ACCOUNT_ID = 216
SERVER = "/usr/bin/postgres-15"
PG_BIN = "/usr/lib/postgresql/15/bin"
LOG_PREFIX = "velnor_postgres: "

WAITING_TO_RESPOND = LOG_PREFIX + "waiting for postgres to respond"
WAITING_TO_STOP = LOG_PREFIX + "waiting for postgres to stop"
START_TIMED_OUT = LOG_PREFIX + "Timed out trying to start postgres."
STOP_TIMED_OUT = LOG_PREFIX + "Timed out trying to stop postgres."
RESTARTING = LOG_PREFIX + "Stopping/starting postgres to pick up settings change"
CREATED_SOCKET_DIR = LOG_PREFIX + "Created socket folder " + SOCKET_DIR
CREATED_LOG_DIR = LOG_PREFIX + "Created log folder " + LOG_DIR
UPDATED_JOB_FILE = LOG_PREFIX + "Updated log directory in launchd plist file"

# Why velnord's restart ledger says the service was started or stopped.
CAUSES = ("operator", "settings change", "migration", "at load", "stop deadline")

# The job file's settings as the sandbox writes them, for the data folder /var/pgsql.
DEFAULT_SETTINGS = [
    "listen_addresses=", "log_connections=on", "log_directory=/Library/Logs/PostgreSQL",
    "log_filename=PostgreSQL.log", "log_lock_waits=on", "log_statement=ddl", "log_line_prefix=%t ",
    "logging_collector=on", "unix_socket_directory=/var/pgsql_socket", "unix_socket_group=_postgres",
    "unix_socket_permissions=0770",
]


def default_arguments(data_dir=DATA_DIR, settings=DEFAULT_SETTINGS):
    return ["/usr/bin/postgres", "-D", data_dir] + [a for s in settings for a in ("-c", s)]


# How long a test polls for something it can observe before it fails; a poll ends as soon as the
# condition holds.
WAIT_SECONDS = 20.0
POLL_SECONDS = 0.05


def in_ci():
    return os.environ.get("CI", "").lower() not in ("", "0", "false", "no")


def skip(reason):
    """Ends the test as skipped, or as failed in CI, where nothing may skip."""
    if in_ci():
        print(f"FAILED: {reason}, and in CI a skipped end-to-end test is a failure", file=sys.stderr)
        sys.exit(1)
    print(f"SKIPPED: {reason}", file=sys.stderr)
    sys.exit(SKIP)


def require_root():
    if os.geteuid() != 0:
        skip("the end-to-end tests need root (they build sandboxes)")


def under_systemd():
    """Whether the tests run with systemd as the sandbox's service manager (VELNOR_E2E_SYSTEMD)."""
    return os.environ.get("VELNOR_E2E_SYSTEMD", "") not in ("", "0")


def sandbox_options(options):
    return ("--systemd", *options) if under_systemd() else tuple(options)


def run_in_sandbox(options, command, binds=()):
    """Runs command in a fresh sandbox built with options; a machine that cannot build one skips."""
    bind_options = [option for path in binds for option in ("--bind", path)]
    status = subprocess.run([SANDBOX, *sandbox_options(options), *bind_options, "--",
                             *command]).returncode
    if status == SKIP:
        skip("this machine cannot run the sandbox")
    return status


@dataclasses.dataclass
class Answer:
    """One run of velnor: exit status, the JSON response (None when absent), the plug-in's log
    messages (from the prefix on), standard error whole, and the seconds the run took."""

    status: int
    response: object
    log: list
    stderr: str
    took: float = 0.0
    failure: dict = None  # what a failed verb's JSON names beside its response


def as_user(uid, command):
    return ["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups", *command]


class Host:
    def __init__(self, velnor, plugin):
        self.velnor, self.plugin = velnor, plugin

    def __call__(self, *arguments, uid=0, environment=None, timeout=120):
        """velnor --json with arguments, run as uid, with environment added to root's."""
        command = [self.velnor, "--plugin", self.plugin, "--json", *arguments]
        connections = connection_backends()
        began = time.monotonic()
        done = subprocess.run(as_user(uid, command) if uid else command, capture_output=True,
                              text=True, timeout=timeout, env={**os.environ, **(environment or {})})
        took = time.monotonic() - began
        # The probe's connection ends on its own time; the next call's scan must not meet it.
        wait_until(lambda: connection_backends() <= connections, "the probe's connection has ended")
        out = done.stdout.strip()
        try:
            response = json.loads(out) if out else None
        except json.JSONDecodeError as error:
            raise AssertionError(f"velnor {' '.join(arguments)} printed no JSON ({error}): {out!r}")
        failure = None
        if isinstance(response, dict) and "failure" in response and response.keys() <= {"failure", "response"}:
            failure, response = response["failure"], response.get("response")
        log = [line[line.index(LOG_PREFIX):] for line in done.stderr.splitlines() if LOG_PREFIX in line]
        return Answer(done.returncode, response, log, done.stderr, took, failure)


@dataclasses.dataclass(frozen=True)
class Waits:
    """In an expected log: a waiting message repeated 0 to `most` times (four probes allow at most
    three waits before the awaited answer)."""

    message: str
    most: int = 3


def log_matches(log, expected):
    """True when log is expected, each Waits in it standing for its run of messages."""
    position = 0
    for item in expected:
        if isinstance(item, Waits):
            run = 0
            while position < len(log) and log[position] == item.message and run < item.most:
                position, run = position + 1, run + 1
        elif position < len(log) and log[position] == item:
            position += 1
        else:
            return False
    return position == len(log)


def attributes(path):
    """Kind, permissions, owner and group of path itself, as "folder 0750 _postgres:_postgres"."""
    info = os.lstat(path)
    kind = "folder" if stat.S_ISDIR(info.st_mode) else "file" if stat.S_ISREG(info.st_mode) else "other"
    return (f"{kind} {stat.S_IMODE(info.st_mode):04o} {pwd.getpwuid(info.st_uid).pw_name}:"
            f"{grp.getgrgid(info.st_gid).gr_name}")


def folder(mode, owner=ACCOUNT):
    return f"folder {mode:04o} {owner}:{owner}"


def regular_file(mode, owner=ACCOUNT):
    return f"file {mode:04o} {owner}:{owner}"


def wait_until(condition, what, seconds=WAIT_SECONDS):
    """Polls condition until it holds; fails naming what was awaited when it does not in time."""
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds:.0f} s in vain until {what}")
        time.sleep(POLL_SECONDS)


def free_port():
    """A loopback port that nothing listens on now: the sandbox shares the machine's network."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def process_alive(pid):
    """True while pid runs; a zombie has ended."""
    try:
        with open(f"/proc/{pid}/stat") as status:
            return status.read().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def command_line(pid):
    with open(f"/proc/{pid}/cmdline", "rb") as cmdline:
        return [piece.decode() for piece in cmdline.read().split(b"\0") if piece]


def process_ids(pid):
    """Real uid, real gid and supplementary groups of pid."""
    with open(f"/proc/{pid}/status") as status:
        fields = {key: value.split() for key, _, value in (line.partition(":") for line in status)}
    return int(fields["Uid"][0]), int(fields["Gid"][0]), sorted(int(g) for g in fields["Groups"])


def parent_of(pid):
    with open(f"/proc/{pid}/stat") as stat:
        return int(stat.read().rpartition(")")[2].split()[1])


def postmaster(data_dir=DATA_DIR):
    """The pid of the server running on data_dir, or None."""
    try:
        with open(os.path.join(data_dir, "postmaster.pid")) as lock:
            pid = int(lock.readline())
    except (FileNotFoundError, ValueError):
        return None
    return pid if process_alive(pid) else None


def server_titles():
    """pid → process title of every running process of the server program."""
    titles = {}
    for pid in (int(entry) for entry in os.listdir("/proc") if entry.isdigit()):
        try:
            if os.readlink(f"/proc/{pid}/exe") == SERVER and process_alive(pid):
                titles[pid] = command_line(pid)[0]
        except (OSError, IndexError):
            continue
    return titles


def server_processes():
    """pid → title of every process of the server program, zombies and processes on their way
    out included (known by the name the kernel keeps for them; their title: None)."""
    found = {}
    for pid in (int(entry) for entry in os.listdir("/proc") if entry.isdigit()):
        try:
            with open(f"/proc/{pid}/stat") as status:
                name = status.read().split("(", 1)[1].rsplit(")", 1)[0]
        except OSError:
            continue
        if name == os.path.basename(SERVER)[:15]:
            try:
                found[pid] = command_line(pid)[0]
            except (OSError, IndexError):
                found[pid] = None
    return found


def connection_backends():
    """How many of the server's processes serve a connection, or are on their way out: a
    process-table scan that meets one ending logs that it could not read its arguments."""
    return sum(1 for title in server_processes().values() if title is None or "[local]" in title)


def leaving_no_connection_behind(run):
    """Runs run() and returns what it returned once the connections that it made have ended."""
    before = connection_backends()
    result = run()
    wait_until(lambda: connection_backends() <= before, "the connections made meanwhile have ended")
    return result


def as_account(command, **kwargs):
    """Runs command inside the sandbox as the service account, the way an administrator would."""
    return subprocess.run(["setpriv", f"--reuid={ACCOUNT_ID}", f"--regid={ACCOUNT_ID}",
                           "--init-groups", *command], capture_output=True, text=True, timeout=120,
                          **kwargs)


def psql(sql, socket_dir=SOCKET_DIR):
    """The rows that sql gives, unaligned; raises when it fails. Returns once the session's server
    process has ended: one left idle for a moment would be taken for an idle client by a stop."""
    done = subprocess.run(["psql", "-X", "-A", "-t", "-h", socket_dir, "-U", ACCOUNT, "-d",
                           "postgres", "-c", "SELECT pg_backend_pid()", "-c", sql],
                          capture_output=True, text=True, timeout=60)
    if done.returncode != 0:
        raise AssertionError(f"psql -c {sql!r} failed: {done.stderr.strip()}")
    backend, _, rows = done.stdout.partition("\n")
    wait_until(lambda: int(backend) not in server_processes(), f"the session of psql -c {sql!r} has ended")
    return rows.strip()


def answers(socket_dir=SOCKET_DIR):
    """True when a server accepts a connection on socket_dir."""
    return leaving_no_connection_behind(lambda: subprocess.run(
        ["psql", "-X", "-h", socket_dir, "-U", ACCOUNT, "-d", "postgres", "-c", "SELECT 1"],
        capture_output=True, timeout=60).returncode == 0)


class Client:
    """A psql session kept open on a pipe, so that its server process sits idle until it is sent
    more; its application name finds that process in pg_stat_activity."""

    def __init__(self, name, socket_dir=SOCKET_DIR):
        self.name, self.socket_dir, self.backend = name, socket_dir, None
        self.process = subprocess.Popen(
            ["psql", "-X", "-q", "-h", socket_dir, "-U", ACCOUNT, "-d", "postgres"],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env={**os.environ, "PGAPPNAME": name}, text=True)

    def send(self, sql):
        self.process.stdin.write(sql + "\n")
        self.process.stdin.flush()

    def wait_for_state(self, state):
        """Waits until the session's server process is in state ('idle', 'idle in transaction');
        returns its pid."""
        query = f"SELECT pid, state FROM pg_stat_activity WHERE application_name = '{self.name}'"

        def reached():
            row = psql(query, self.socket_dir)
            if row:
                pid, current = row.split("|")
                self.backend = int(pid)
            return bool(row) and current == state

        wait_until(reached, f"the session {self.name} is {state}")
        return self.backend

    def close(self):
        if self.process.poll() is None:
            self.process.stdin.close()
            self.process.wait(timeout=WAIT_SECONDS)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()


def job_file_bytes():
    with open(JOB_FILE, "rb") as job:
        return job.read()


def read_job_file():
    return plistlib.loads(job_file_bytes())


def job_file_format():
    return "binary" if job_file_bytes().startswith(b"bplist00") else "xml"


def job_file_as_libplist_reads_it():
    """The job file as libplist reads it, written again as binary by plistutil and read back by
    plistlib: a second reader beside plistlib. Raises when plistutil cannot read it."""
    done = subprocess.run(["plistutil", "-i", JOB_FILE, "-f", "bin", "-o", "-"], capture_output=True,
                          timeout=60)
    if done.returncode != 0:
        raise AssertionError(f"plistutil cannot read the job file: {done.stderr!r}")
    return plistlib.loads(done.stdout)


def write_job_file(job):
    with open(JOB_FILE, "wb") as out:
        plistlib.dump(job, out)


def sandbox(*options):
    """Declares the sandbox options that a scenario runs with."""

    def declare(scenario):
        scenario.sandbox_options = options
        return scenario

    return declare


class ScenarioCase(unittest.TestCase):
    host = None  # a Host, set by run_inside
    maxDiff = None

    def velnor(self, *arguments, status=0):
        answer = self.host(*arguments)
        self.assertEqual(answer.status, status, f"velnor {' '.join(arguments)}: {answer}")
        return answer

    def assert_kinds(self, response, kinds, what):
        """response holds exactly the keys of kinds, each value of exactly that type."""
        self.assertEqual({key: type(value) for key, value in response.items()}, kinds, what)

    def assert_state(self, state):
        answer = self.velnor("status", status=0 if state == "RUNNING" else 3)
        self.assertEqual(answer.response, {"state": state}, "plain state report")

    def assert_log(self, answer, expected, what):
        self.assertTrue(log_matches(answer.log, expected), f"log of {what}: {answer.log}, expected {expected}")

    def assert_started(self, answer, before=()):
        """A start that succeeded: no response, the expected messages, then at most three waits."""
        self.assertIsNone(answer.response, "a successful start answers nothing")
        self.assert_log(answer, [*before, Waits(WAITING_TO_RESPOND)], "the start")

    def assert_stopped(self, answer, before=()):
        """A stop that succeeded: no response, the expected messages, then at most three waits."""
        self.assertIsNone(answer.response, "a successful stop answers nothing")
        self.assert_log(answer, [*before, Waits(WAITING_TO_STOP)], "the stop")

    def assert_job_process(self, pid):
        """pid is the job's server, run by launchd the way the job file now says."""
        self.assertEqual(os.readlink(f"/proc/{pid}/exe"), SERVER, "executable of the server")
        self.assertEqual(process_ids(pid), (ACCOUNT_ID, ACCOUNT_ID, [ACCOUNT_ID]), "uid, gid, groups")
        self.assertEqual(os.getsid(pid), pid, "the server leads its own session")
        self.assertEqual(os.readlink(f"/proc/{pid}/fd/0"), "/dev/null", "standard input of the server")
        # The launcher passed the socket folder on under the name that the server knows.
        expected = [argument.replace("unix_socket_directory=", "unix_socket_directories=")
                    for argument in read_job_file()["ProgramArguments"]]
        self.assertEqual(command_line(pid), [SERVER, *expected[1:]], "arguments of the server")

    def assert_unit_runs_server(self, pid):
        """systemctl status of the job's unit shows the server and its children, all _postgres's."""
        status = subprocess.run(["systemctl", "status", "--no-pager", "--lines=0", JOB_UNIT],
                                capture_output=True, text=True).stdout
        # systemctl pads a pid to the width of the widest in the tree: "├─ 98" beside "└─100".
        shown = {int(word) for word in re.findall(r"[├└]─ *(\d+) ", status)}
        children = {int(child) for child in subprocess.run(
            ["pgrep", "-P", str(pid)], capture_output=True, text=True).stdout.split()}
        self.assertEqual(shown, {pid, *children}, f"the unit's processes: {status}")
        self.assertEqual({os.stat(f"/proc/{shown_pid}").st_uid for shown_pid in shown}, {ACCOUNT_ID},
                         "owner of the unit's processes")

    def running_server(self):
        pid = postmaster()
        self.assertIsNotNone(pid, "a server runs on the data folder")
        return pid

    def wait_for_server_to_end(self):
        # The server removes its pid file a moment before its last process ends, and a process
        # on its way out is still in the table that the next call scans.
        wait_until(lambda: postmaster() is None and not server_processes(), "the server has ended")


def scenario_names(case):
    return [name[len("test_"):] for name in unittest.TestLoader().getTestCaseNames(case)]


def run_tests(case, name):
    result = unittest.TextTestRunner(verbosity=2, stream=sys.stdout).run(case("test_" + name))
    return 0 if result.wasSuccessful() else 1


def velnord_beside(velnor):
    """The daemon built or installed with the client velnor: sbin/velnord beside its bin/."""
    return os.path.normpath(os.path.join(os.path.dirname(velnor), "..", "sbin", "velnord"))


def scenario_main(case, script, doc):
    """The command line of a scenario script: --list, or one scenario run inside its own sandbox."""
    parser = argparse.ArgumentParser(description=doc.split("\n\n")[0])
    parser.add_argument("--list", action="store_true", help="print the scenario names")
    parser.add_argument("--velnor", help="the host binary")
    parser.add_argument("--plugin", help="the plug-in module")
    parser.add_argument("--bind", action="append", default=[],
                        help="a folder the sandbox needs besides the project (the build folder)")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("name", nargs="?", choices=scenario_names(case))
    arguments = parser.parse_args()
    if arguments.list:
        print(";".join(scenario_names(case)))
        return 0
    if not (arguments.name and arguments.velnor and arguments.plugin):
        parser.error("a scenario name, --velnor and --plugin are needed")
    if arguments.inside:
        case.host = Host(arguments.velnor, arguments.plugin)
        return run_tests(case, arguments.name)
    require_root()
    options = getattr(case, "test_" + arguments.name).sandbox_options
    if os.environ.get("VELNOR_E2E_DAEMON"):
        # The same scenario with velnor as the client of a velnord that serves the same plug-in.
        os.environ["VELNORD"] = velnord_beside(arguments.velnor)
        os.environ["VELNOR_PLUGIN"] = arguments.plugin
        options = ("--daemon", *options)
    return run_in_sandbox(options,
                          [PYTHON, os.path.abspath(script), "--inside", "--velnor", arguments.velnor,
                           "--plugin", arguments.plugin, arguments.name], binds=arguments.bind)

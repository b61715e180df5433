#!/usr/bin/python3
"""The sandbox's own promise, checked from the real machine: whatever way it ends, it leaves no
process, mount, file or shared memory behind."""

import glob
import hashlib
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import textwrap
import unittest

# The tests run from the source tree, which the sandbox binds in: leave no byte code there.
sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import ACCOUNT_ID, SANDBOX, sandbox_options

# Real paths that a sandbox writes to inside; none of it may reach the machine.
TOUCHED_PATHS = ["/System", "/Library", "/var/pgsql", "/var/pgsql_socket", "/var/empty",
                 "/usr/bin/postgres", "/usr/bin/postgres-15", "/usr/bin/postgres-marker",
                 "/run/velnor", "/etc/passwd", "/etc/group", "/etc/shadow", "/etc/gshadow"]

# Inside the sandbox: a server run the way launchd runs the job, an idle client, a detached
# process and files in the system's folders; then the namespaces' ids on standard output, and the
# ending that the test asks for.
BUSY_SANDBOX = textwrap.dedent("""\
    set -e
    setsid setpriv --reuid=216 --regid=216 --init-groups /usr/bin/postgres -D /var/pgsql \\
        -c listen_addresses= -c unix_socket_directory=/var/pgsql_socket </dev/null >/dev/null 2>&1 &
    for attempt in $(seq 400); do
        psql -X -h /var/pgsql_socket -U _postgres -c 'SELECT 1' postgres >/dev/null 2>&1 && break
        sleep 0.05
    done
    setsid sh -c 'sleep infinity | psql -X -h /var/pgsql_socket -U _postgres postgres' \\
        </dev/null >/dev/null 2>&1 &
    setsid sleep infinity </dev/null >/dev/null 2>&1 &
    mkdir -p /System/Library/Marker /Library/Marker
    touch /usr/bin/postgres-marker
    echo "intruder:x:4242:4242::/:/bin/sh" >> /etc/passwd
    echo "$(readlink /proc/self/ns/pid) $(readlink /proc/self/ns/mnt) $(readlink /proc/self/ns/ipc)"
    case $1 in
        wait) exec sleep infinity ;;
        *) exit "$1" ;;
    esac
    """)

def fingerprint(path):
    """What a real path is now: missing, or its kind and, for a file, its content's hash."""
    if os.path.isfile(path):
        with open(path, "rb") as content:
            return "file " + hashlib.sha256(content.read()).hexdigest()
    return "folder" if os.path.isdir(path) else "other" if os.path.lexists(path) else None


def machine_state():
    """What of the real machine a sandbox could leave changed: files, mounts, POSIX shared memory,
    and the System V segments and semaphores of the service account."""
    with open("/proc/self/mountinfo") as mounts:
        mount_points = {line.split()[4] for line in mounts}
    owned = []
    for table in ("/proc/sysvipc/shm", "/proc/sysvipc/sem"):
        with open(table) as rows:
            column = rows.readline().split().index("uid")
            owned += [row for row in rows if int(row.split()[column]) == ACCOUNT_ID]
    return {"paths": {path: fingerprint(path) for path in TOUCHED_PATHS}, "mounts": mount_points,
            "shared_memory_files": sorted(glob.glob("/dev/shm/PostgreSQL.*")), "ipc_of_account": owned}


def sandbox_cgroup(sandbox):
    """Whether the cgroup that a sandbox under systemd makes at the top of the cgroup2 hierarchy,
    named after the sandbox's script, is still there."""
    with open("/proc/self/mountinfo") as mounts:
        tops = [line.split()[4] for line in mounts if line.split(" - ")[1].startswith("cgroup2 ")]
    return bool(tops) and os.path.exists(os.path.join(tops[0], f"velnor-sandbox.{sandbox.pid}"))


def processes_in(namespaces):
    """pids of the processes that are in any of the namespaces (given as readlink texts)."""
    found = set()
    for link in glob.glob("/proc/[0-9]*/ns/*"):
        try:
            if os.readlink(link) in namespaces:
                found.add(int(link.split("/")[2]))
        except OSError:
            continue
    return sorted(found)


class Sandbox(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.scratch = tempfile.mkdtemp(prefix="velnor-sandbox-test-")
        self.addCleanup(shutil.rmtree, self.scratch)

    def start_busy_sandbox(self, ending):
        """Starts a sandbox that runs a server and more; returns it with its namespaces once
        everything runs."""
        script = os.path.join(self.scratch, "busy.sh")
        with open(script, "w") as out:
            out.write(BUSY_SANDBOX)
        sandbox = subprocess.Popen(
            [SANDBOX, *sandbox_options(["--initdb", "--socket-dir"]), "--bind", self.scratch, "--",
             "bash", script, ending],
            stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: sandbox.poll() is None and sandbox.kill())
        namespaces = sandbox.stdout.readline().split()
        own = [os.readlink(f"/proc/self/ns/{kind}") for kind in ("pid", "mnt", "ipc")]
        self.assertEqual(len(namespaces), 3, f"the sandbox reported {namespaces}")
        self.assertFalse(set(namespaces) & set(own), "the sandbox has namespaces of its own")
        return sandbox, namespaces

    def test_leaves_nothing_behind(self):
        """Whether its command exits or it is interrupted, the sandbox leaves nothing; SIGKILL leaves
        it no time to clean up, and its namespaces die all the same, only just after it."""
        for ending, signal_number, status in (("0", None, 0), ("3", None, 3),
                                              ("wait", signal.SIGINT, 130),
                                              ("wait", signal.SIGTERM, 143),
                                              ("wait", signal.SIGHUP, 129),
                                              ("wait", signal.SIGKILL, -signal.SIGKILL)):
            how = signal_number.name if signal_number else f"a command that exits {status}"
            with self.subTest(how):
                before = machine_state()
                sandbox, namespaces = self.start_busy_sandbox(ending)
                if signal_number:
                    sandbox.send_signal(signal_number)
                self.assertEqual(sandbox.wait(timeout=60), status, f"status after {how}")
                if signal_number == signal.SIGKILL:
                    harness.wait_until(lambda: not processes_in(namespaces), "the sandbox's end")
                    harness.wait_until(lambda: not sandbox_cgroup(sandbox),
                                       "the removal of the sandbox's cgroup")
                self.assertEqual(processes_in(namespaces), [], f"processes left after {how}")
                after = machine_state()
                self.assertEqual(after["paths"], before["paths"], f"real files changed after {how}")
                self.assertEqual(after["mounts"] - before["mounts"], set(), f"mounts left after {how}")
                self.assertEqual(after["shared_memory_files"], before["shared_memory_files"],
                                 f"POSIX shared memory left after {how}")
                self.assertEqual(after["ipc_of_account"], [], f"System V IPC left after {how}")
                self.assertFalse(sandbox_cgroup(sandbox), f"its cgroup left after {how}")


if __name__ == "__main__":
    harness.require_root()
    sys.exit(harness.run_tests(Sandbox, "leaves_nothing_behind"))

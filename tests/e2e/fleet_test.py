#!/usr/bin/python3
"""Three hosts driven by Ansible: three sandboxes, each with its own sshd on a loopback port, its own
velnord and server, and ansible-playbook run from outside them with an inventory of the three.

The runs a fleet administrator makes: a change applied on all three; the same playbook again,
which changes and restarts nothing; check mode with a new value, which shows the diff and changes
nothing; and a value that one host's server refuses, which fails that host with the server's
message and leaves the other two applied. The third host refuses max_stack_depth=3MB because its
processes run with a 2 MB stack limit (the others with 8 MB), as a host with a tighter limits.conf
would: the server program refuses a depth beyond its stack.
"""

import argparse
import concurrent.futures
import json
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
import harness  # noqa: E402

HOSTS = {"db1": 22201, "db2": 22202, "db3": 22203}
STACK_LIMITS = {"db1": 8 << 20, "db2": 8 << 20, "db3": 2 << 20}
COLLECTION = os.path.join(harness.PROJECT, "contrib", "ansible")
PSQL = ["psql", "-X", "-A", "-t", "-h", harness.SOCKET_DIR, "-U", harness.ACCOUNT, "-d", "postgres"]

PLAYBOOK = """
- hosts: databases
  gather_facts: false
  tasks:
    - velnor.postgres.velnor_postgres:
        velnor: "{{ velnor }}"
        settings: "{{ settings }}"
        state: started
"""


def serve_ssh(port, public_key):
    """Inside a sandbox: root may log in with the test's key, on 127.0.0.1:port only."""
    os.makedirs("/run/sshd", mode=0o755, exist_ok=True)
    os.makedirs("/root/.ssh", mode=0o700, exist_ok=True)
    with open("/root/.ssh/authorized_keys", "w") as keys:
        keys.write(public_key + "\n")
    os.chmod("/root/.ssh/authorized_keys", 0o600)
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/etc/ssh/fleet_host_key"],
                   check=True)
    with open("/etc/ssh/fleet_sshd_config", "w") as config:
        config.write(f"ListenAddress 127.0.0.1:{port}\nHostKey /etc/ssh/fleet_host_key\n"
                     "PermitRootLogin prohibit-password\nPasswordAuthentication no\n"
                     "KbdInteractiveAuthentication no\nUsePAM no\nMaxStartups 30\n"
                     "Subsystem sftp /usr/lib/openssh/sftp-server\n")
    os.execv("/usr/sbin/sshd", ["/usr/sbin/sshd", "-D", "-e", "-f", "/etc/ssh/fleet_sshd_config"])


class Fleet:
    """The three sandboxes, the key that reaches them and Ansible's files, all gone on exit."""

    def __init__(self, velnor, binds):
        self.velnor, self.binds = os.path.abspath(velnor), binds
        self.folder = tempfile.mkdtemp(prefix="velnor-fleet-")
        self.key = os.path.join(self.folder, "key")
        self.sandboxes = {}
        self.runs = 0

    def __enter__(self):
        # A sandbox that fails to come up ends the others and the folder as well.
        try:
            return self.start()
        except BaseException:
            self.__exit__()
            raise

    def start(self):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.key], check=True)
        with open(self.key + ".pub") as public:
            public_key = public.read().strip()
        environment = {**os.environ, "VELNORD": harness.velnord_beside(self.velnor)}
        for host, port in HOSTS.items():
            limit = STACK_LIMITS[host]
            self.sandboxes[host] = subprocess.Popen(
                [harness.SANDBOX, "--initdb", "--daemon",
                 *[option for path in self.binds for option in ("--bind", path)], "--",
                 harness.PYTHON, os.path.abspath(__file__), "--serve-ssh", str(port), public_key],
                env=environment, stdout=subprocess.DEVNULL, stderr=self.log(host, "w"),
                preexec_fn=lambda limit=limit: resource.setrlimit(resource.RLIMIT_STACK, (limit, limit)))
        for host, port in HOSTS.items():
            harness.wait_until(lambda: self.listening(host, port), f"{host} answers on port {port}",
                               seconds=120)
        self.write_inventory()
        return self

    def log(self, host, mode="r"):
        """What the sandbox of host, its velnord and its sshd print on standard error."""
        return open(os.path.join(self.folder, host + ".log"), mode)

    def listening(self, host, port):
        if self.sandboxes[host].poll() is not None:
            with self.log(host) as log:
                raise AssertionError(f"the sandbox of {host} ended with "
                                     f"{self.sandboxes[host].returncode}: {log.read()}")
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return True
        except OSError:
            return False

    def write_inventory(self):
        hosts = {host: {"ansible_host": "127.0.0.1", "ansible_port": port} for host, port in HOSTS.items()}
        inventory = {"databases": {"hosts": hosts, "vars": {
            "ansible_user": "root", "ansible_ssh_private_key_file": self.key,
            "ansible_ssh_common_args": "-o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null",
            "ansible_python_interpreter": "/usr/bin/python3", "velnor": self.velnor}}}
        with open(os.path.join(self.folder, "inventory.json"), "w") as out:
            json.dump(inventory, out)
        with open(os.path.join(self.folder, "playbook.yml"), "w") as out:
            out.write(PLAYBOOK)
        collections = os.path.join(self.folder, "collections", "ansible_collections", "velnor")
        os.makedirs(collections)
        os.symlink(COLLECTION, os.path.join(collections, "postgres"))

    def __exit__(self, *exception):
        for sandbox in self.sandboxes.values():
            if sandbox.poll() is None:
                sandbox.send_signal(signal.SIGTERM)
        for sandbox in self.sandboxes.values():
            sandbox.wait(timeout=120)
        shutil.rmtree(self.folder, ignore_errors=True)

    def playbook(self, settings, *options):
        """ansible-playbook on the three hosts: its exit status, the task's result per host (as the
        tree callback saves it, without the diff), what it printed, and the seconds it took."""
        self.runs += 1
        tree = os.path.join(self.folder, f"run-{self.runs}")
        environment = {**os.environ, "LC_ALL": "C.UTF-8", "ANSIBLE_HOME": self.folder,
                       "ANSIBLE_LOCAL_TEMP": os.path.join(self.folder, "tmp"),
                       "ANSIBLE_COLLECTIONS_PATH": os.path.join(self.folder, "collections"),
                       "ANSIBLE_CALLBACKS_ENABLED": "ansible.builtin.tree",
                       "ANSIBLE_CALLBACK_TREE_DIR": tree, "ANSIBLE_PIPELINING": "1",
                       "ANSIBLE_FORKS": "3", "ANSIBLE_NOCOLOR": "1"}
        began = time.monotonic()
        done = subprocess.run(["ansible-playbook", "-i", os.path.join(self.folder, "inventory.json"),
                               "-e", json.dumps({"settings": settings}), *options,
                               os.path.join(self.folder, "playbook.yml")],
                              capture_output=True, text=True, env=environment, timeout=300)
        took = time.monotonic() - began
        results = {}
        for host in HOSTS:
            try:
                with open(os.path.join(tree, host)) as result:
                    results[host] = json.load(result)
            except (OSError, json.JSONDecodeError) as error:
                raise AssertionError(f"no result for {host} ({error}): {done.stdout}\n{done.stderr}")
        return done.returncode, results, done.stdout, took

    def sql(self, host, query):
        """The rows that query gives on host, through ssh."""
        # One connection per host, kept open for the test's later queries; it ends with its sshd.
        done = subprocess.run(["ssh", "-i", self.key, "-p", str(HOSTS[host]), "-o", "BatchMode=yes",
                               "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
                               "-o", "LogLevel=ERROR", "-o", "ControlMaster=auto",
                               "-o", f"ControlPath={self.folder}/ssh-%p", "-o", "ControlPersist=yes",
                               "root@127.0.0.1", " ".join(PSQL), "-c", f"'{query}'"],
                              capture_output=True, text=True, timeout=60)
        if done.returncode != 0:
            raise AssertionError(f"{host}: {query}: {done.stderr}")
        return done.stdout.strip()

    def every(self, query):
        """host -> the rows that query gives there, asked of the three at once."""
        with concurrent.futures.ThreadPoolExecutor(len(HOSTS)) as pool:
            rows = {host: pool.submit(self.sql, host, query) for host in HOSTS}
        return {host: row.result() for host, row in rows.items()}


def recap(shown):
    """host -> (changed, failed), from the play recap that ansible-playbook printed."""
    counts = re.findall(r"^(\w+)\s*:\s*ok=\d+\s+changed=(\d+)\s+unreachable=\d+\s+failed=(\d+)",
                        shown, re.MULTILINE)
    return {host: (int(changed), int(failed)) for host, changed, failed in counts}


class ThreeHosts(harness.ScenarioCase):
    fleet = None

    def test_playbook_on_three_hosts(self):
        fleet = self.fleet
        status, results, shown, took = fleet.playbook({"work_mem": "12MB"})
        print(f"first run on three hosts: {took:.1f} s")
        self.assertEqual((status, recap(shown)), (0, dict.fromkeys(HOSTS, (1, 0))),
                         f"the first run changes all three: {shown}")
        self.assertEqual(fleet.every("SHOW work_mem"), dict.fromkeys(HOSTS, "12MB"))
        started = fleet.every("SELECT pg_postmaster_start_time()")

        status, results, shown, took = fleet.playbook({"work_mem": "12288kB"})
        print(f"second run, nothing to change: {took:.1f} s")
        self.assertEqual((status, recap(shown)), (0, dict.fromkeys(HOSTS, (0, 0))),
                         f"12288kB is 12MB: nothing changes: {shown}")
        self.assertEqual(fleet.every("SELECT pg_postmaster_start_time()"), started,
                         "no server restarted")

        status, results, shown, _ = fleet.playbook({"work_mem": "24MB"}, "--check", "--diff")
        self.assertEqual((status, recap(shown)), (0, dict.fromkeys(HOSTS, (1, 0))),
                         f"check mode reports the change: {shown}")
        self.assertEqual((shown.count("\n-work_mem = 12MB\n"), shown.count("\n+work_mem = 24MB\n")),
                         (3, 3), f"the diff of each host: {shown}")
        self.assertEqual(fleet.every("SHOW work_mem"), dict.fromkeys(HOSTS, "12MB"), "check mode")
        self.assertEqual(fleet.every("SELECT pg_postmaster_start_time()"), started, "check mode")

        status, results, shown, _ = fleet.playbook({"max_stack_depth": "3MB"})
        self.assertEqual((status, recap(shown)),
                         (2, {"db1": (1, 0), "db2": (1, 0), "db3": (0, 1)}),
                         f"the host that refuses fails, the others are applied: {shown}")
        self.assertIn('"max_stack_depth" must not exceed 1536kB', results["db3"]["msg"],
                      "the server's own message")
        self.assertEqual(fleet.every("SHOW max_stack_depth"),
                         {"db1": "3MB", "db2": "3MB", "db3": "1536kB"})
        self.assertEqual(fleet.sql("db3", "SELECT pg_postmaster_start_time()"), started["db3"],
                         "the refusing host restarted nothing")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--velnor", help="the client, with sbin/velnord beside its bin/")
    parser.add_argument("--bind", action="append", default=[], help="the build folder")
    parser.add_argument("--serve-ssh", nargs=2, metavar=("PORT", "KEY"), help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.serve_ssh:
        serve_ssh(int(arguments.serve_ssh[0]), arguments.serve_ssh[1])
    harness.require_root()
    if not shutil.which("ansible-playbook") or not os.path.exists("/usr/sbin/sshd"):
        harness.skip("ansible-core and openssh-server are needed (scripts/setup installs them)")
    with Fleet(arguments.velnor, arguments.bind) as fleet:
        ThreeHosts.fleet = fleet
        return harness.run_tests(ThreeHosts, "playbook_on_three_hosts")


if __name__ == "__main__":
    sys.exit(main())

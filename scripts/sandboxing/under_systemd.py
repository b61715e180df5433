"""The outer stage with --systemd: systemd is the first process of the sandbox, and the command
joins its namespaces and root from outside once systemd runs."""

import os
import shutil
import signal
import subprocess
import time

from . import layout
from .inner import daemon_command
from .processes import (Child, Outcome, Stop, child_of, command_name, could_not, fail, open_child,
                        refuse, say, send, wait_quietly)

BOOT_SECONDS = 30
BOOT_POLL_SECONDS = 0.05
# How long systemd gets to power the sandbox off before the namespace is killed.
SHUTDOWN_SECONDS = 10.0
# How long the command gets to end once killed.
END_GRACE_SECONDS = 2.0

# Every namespace of systemd, and its root.
JOIN = ("--mount", "--pid", "--ipc", "--uts", "--cgroup", "--root", "--wd")


def cgroup_hierarchy():
    """Returns where the machine's (first) cgroup2 hierarchy is mounted; refuses without one."""
    with open("/proc/self/mountinfo") as mounts:
        for line in mounts:
            fields = line.split(" - ", 1)
            if len(fields) == 2 and fields[1].split()[0] == "cgroup2":
                return fields[0].split()[4]
    refuse("systemd needs a cgroup2 hierarchy, and this machine has none")


# systemd fills the sandbox's cgroup with cgroups of its own that outlive the sandbox's processes,
# so a watcher outside the sandbox removes it once the outer stage has gone, however that ends: the
# watcher reads a pipe that only the outer stage holds open, and it is in a session of its own, out
# of the way of a terminal's signals.
class Watcher:
    """The cgroup of one sandbox at the top of the machine's cgroup2 hierarchy, and the process
    that removes it after the outer stage (cgroup_watcher.py)."""

    def __init__(self):
        self.cgroup = os.path.join(cgroup_hierarchy(), f"velnor-sandbox.{os.getpid()}")
        try:
            os.mkdir(self.cgroup)
        except OSError as error:
            fail(could_not("create the cgroup", self.cgroup, error))
        read_end, self.pipe = os.pipe()  # neither end is inherited by another child
        try:
            self.popen = subprocess.Popen([*layout.STAGE, "--remove-cgroup-after-eof", self.cgroup],
                                          stdin=read_end, stdout=subprocess.DEVNULL,
                                          start_new_session=True)
        except OSError:
            os.rmdir(self.cgroup)
            raise
        finally:
            os.close(read_end)

    def finish(self):
        """Lets the watcher go on and waits until it has removed the cgroup."""
        os.close(self.pipe)
        self.popen.wait()


def prepare(sandbox):
    """Checks what systemd in a sandbox needs, and makes the sandbox's cgroup and its watcher."""
    if not os.access(layout.SYSTEMD_BINARY, os.X_OK):
        fail(f"systemd is missing ({layout.SYSTEMD_BINARY}); run scripts/setup")
    if shutil.which("nsenter") is None:
        fail("nsenter is missing; run scripts/setup")
    # The system bus and polkitd, which it starts when first asked, decide what accounts other
    # than root may ask of velnord.
    for program in (layout.DBUS_DAEMON, layout.POLKITD):
        if not os.access(program, os.X_OK):
            fail(f"{program} is missing; run scripts/setup")
    sandbox.watcher = Watcher()
    sandbox.cgroup = sandbox.watcher.cgroup


def in_sandbox(pid, command, errors=subprocess.STDOUT):
    """Returns what command prints, its errors too unless errors is DEVNULL, when run in the
    sandbox whose first process is pid: in all its namespaces, under its root; nsenter runs it as
    its child, in the sandbox's PID namespace."""
    done = subprocess.run(["nsenter", "--target", str(pid), *JOIN, "--", *command],
                          stdout=subprocess.PIPE, stderr=errors, text=True)
    return done.stdout.rstrip("\n")


def systemd_failed(sandbox, words):
    """Ends the sandbox that systemd could not bring up and stops with status 1 and the reason."""
    say(words)
    unshare = sandbox.unshare
    first = child_of(unshare.pid)
    pidfd = open_child(unshare.pid, first) if first else None
    if pidfd is not None:
        send(pidfd, signal.SIGKILL)
        os.close(pidfd)
    else:
        unshare.popen.kill()  # --kill-child ends a first process that is only being born
    unshare.status()
    raise Stop("", 1)


def await_systemd(sandbox):
    """Returns the pid of systemd, the first process of the sandbox, once it says the system runs;
    stops with the inner stage's status when that could not build the sandbox."""
    deadline = time.monotonic() + BOOT_SECONDS
    unshare = sandbox.unshare
    pid = None
    state = ""
    while True:
        if not unshare.running():
            # The inner stage failed to build the sandbox and has said why.
            raise Stop("", unshare.status())
        pid = pid or child_of(unshare.pid)
        if pid and command_name(pid) == "systemd":
            state = in_sandbox(pid, ["systemctl", "is-system-running"], subprocess.DEVNULL)
            if state == "running":
                return pid
            if state == "degraded":
                failed = in_sandbox(pid, ["systemctl", "--failed", "--no-legend", "--plain"])
                systemd_failed(sandbox, f"systemd in the sandbox is degraded; its failed units:\n"
                               f"{failed}")
        if time.monotonic() >= deadline:
            jobs = in_sandbox(pid, ["systemctl", "list-jobs", "--no-legend", "--plain"]) if pid \
                else ""
            systemd_failed(sandbox, f"systemd in the sandbox did not come up within "
                           f"{BOOT_SECONDS} s (it says: {state or 'nothing'}); its jobs:\n{jobs}")
        sandbox.interrupts.wait(unshare, BOOT_POLL_SECONDS)


def shut_down(sandbox, pid):
    """Powers systemd off and waits until the namespace has gone; kills it when that takes too
    long."""
    pidfd = open_child(sandbox.unshare.pid, pid)
    if pidfd is None:
        sandbox.unshare.status()
        return
    send(pidfd, signal.SIGRTMIN + 4)
    if sandbox.interrupts.wait(sandbox.unshare, SHUTDOWN_SECONDS) is Outcome.TIMED_OUT:
        send(pidfd, signal.SIGKILL)
    os.close(pidfd)
    sandbox.unshare.status()


def ignore_interrupts():
    """What a shell does to a background command: nsenter outlives a terminal's interrupt, to reap
    the command."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGQUIT, signal.SIG_IGN)


def start_daemon_unit(sandbox, pid):
    """With --daemon: velnord as systemd runs it on a machine, under velnord.service as built
    beside it (confined as it ships), with a drop-in that gives it the sandbox's command line
    and variables; returns once it serves."""
    arguments = daemon_command()
    unit = os.path.normpath(os.path.join(os.path.dirname(arguments[0]), "..", "lib", "systemd",
                                         "system", "velnord.service"))
    units = f"/proc/{pid}/root/etc/systemd/system"
    settings = ["[Service]", "ExecStart=", "ExecStart=" + " ".join(arguments)]
    settings += [f"Environment={name}={os.environ[name]}" for name in ("VELNOR_PLUGIN",
                 "VELNOR_LOCK_FILE") if os.environ.get(name)]
    if os.environ.get("VELNORD_LOG"):
        settings.append(f"StandardError=append:{os.environ['VELNORD_LOG']}")
    try:
        shutil.copyfile(unit, f"{units}/velnord.service")
        os.makedirs(f"{units}/velnord.service.d", exist_ok=True)
        with open(f"{units}/velnord.service.d/sandbox.conf", "w") as drop_in:
            drop_in.write("\n".join(settings) + "\n")
    except OSError as error:
        systemd_failed(sandbox, could_not("install velnord.service from", unit, error))
    in_sandbox(pid, ["systemctl", "daemon-reload"])
    # A notify unit: the start returns once velnord says it serves.
    started = subprocess.run(["nsenter", "--target", str(pid), *JOIN, "--", "systemctl", "start",
                              "velnord.service"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True)
    if started.returncode != 0:
        journal = in_sandbox(pid, ["journalctl", "--no-pager", "--unit", "velnord.service"])
        systemd_failed(sandbox, f"velnord.service did not start: {started.stdout}{journal}")


def run_command(sandbox):
    """Runs the command in the booted sandbox, in the caller's folder when the sandbox has it, with
    the environment of the caller less its libpq settings; returns its status."""
    pid = await_systemd(sandbox)
    if sandbox.options.daemon:
        start_daemon_unit(sandbox, pid)
    folder = layout.logical_folder()
    if not os.path.isdir(f"/proc/{pid}/root{folder}"):
        folder = "/"
    # nsenter itself is the process watched, so that its child is the command.
    command = ["nsenter", "--target", str(pid), *JOIN, "--", "env", f"--chdir={folder}",
               "--default-signal=INT,QUIT", "--", *sandbox.options.command]
    sandbox.command = Child(subprocess.Popen(command, env=layout.environment_of_a_fresh_system(),
                                             close_fds=False, preexec_fn=ignore_interrupts))
    sandbox.interrupts.wait(sandbox.command)
    status = sandbox.command.status()
    sandbox.command = None
    shut_down(sandbox, pid)
    return status


def end_command(sandbox):
    """Kills the command before systemd powers off: systemd stops every process of the sandbox on
    the way, and nsenter, outside, would stop itself too when its child in the sandbox stops, and
    never reap it; the namespace would never end."""
    nsenter = sandbox.command
    if nsenter is None:
        return
    command = child_of(nsenter.pid)
    pidfd = open_child(nsenter.pid, command) if command else None
    if pidfd is not None:
        send(pidfd, signal.SIGKILL)
        os.close(pidfd)
    wait_quietly(nsenter, END_GRACE_SECONDS)

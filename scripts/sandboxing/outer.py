"""The outer stage, on the real machine: checks what the sandbox needs, starts the inner stage in
new namespaces, waits for it, and turns an interrupt into the end of the whole sandbox."""

import os
import shutil
import signal
import subprocess
import time

from . import command_line, layout, libc
from .processes import (Child, Interrupted, Outcome, child_of, command_name, fail, open_child,
                        refuse, send, takes, wait_quietly)

# How long the first process of the sandbox gets to end itself after a SIGTERM before it is
# killed, and how long unshare gets to fork it; both watched at this pace.
END_GRACE_SECONDS = 2.0
POLL_SECONDS = 0.01


class Sandbox:
    """A sandbox as the outer stage holds it."""

    def __init__(self, options, interrupts):
        self.options = options
        self.interrupts = interrupts
        self.unshare = None  # its child is the first process of the new PID namespace
        self.watcher = None  # with --systemd: removes the sandbox's cgroup once this stage ends
        self.cgroup = None
        self.command = None  # with --systemd: nsenter, running the command in the sandbox


def check_machine():
    """Stops with status 77 when this machine cannot run a sandbox, and 1 when a part is
    missing."""
    if os.uname().sysname != "Linux":
        refuse("needs Linux (namespaces, overlayfs)")
    if os.geteuid() != 0:
        refuse("needs root: it mounts file systems and creates namespaces")
    if not has_overlayfs():
        refuse("the kernel has no overlayfs")
    if shutil.which("unshare") is None:
        fail("unshare is missing; run scripts/setup")
    namespaces = subprocess.run(["unshare", "--mount", "--pid", "--ipc", "--fork", "true"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if namespaces.returncode != 0:
        refuse("cannot create mount, PID and IPC namespaces here")
    for program in (layout.SERVER_BINARY, layout.INITDB_BINARY):
        if not os.access(program, os.X_OK):
            fail(f"PostgreSQL 15 is not installed ({layout.SERVER_BINARY}); run scripts/setup")


def has_overlayfs():
    """Whether the kernel has overlayfs, once its module is loaded when it has to be."""
    with open("/proc/filesystems") as kinds:
        if any(line.split()[-1:] == ["overlay"] for line in kinds):
            return True
    try:
        return subprocess.run(["modprobe", "overlay"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0
    except OSError:
        return False


def start_unshare(sandbox):
    """Starts the inner stage in its new namespaces, as the child of unshare."""
    namespaces = ["--mount", "--pid", "--ipc"]
    if sandbox.options.systemd:
        # The cgroup becomes the root of the sandbox's own cgroup namespace, in which systemd
        # manages everything; the host name systemd sets stays in the sandbox.
        namespaces += ["--uts", "--cgroup"]
    cgroup = sandbox.cgroup
    outer = os.getpid()

    def prepare():
        libc.die_with_parent(outer)
        # What a shell does to a background command: the sandbox gets the default SIGINT and
        # SIGQUIT whatever this stage inherited.
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        signal.signal(signal.SIGQUIT, signal.SIG_DFL)
        if cgroup:
            with open(os.path.join(cgroup, "cgroup.procs"), "w") as procs:
                procs.write(str(os.getpid()))

    # unshare runs beside this stage so that it can take signals while the sandbox runs. It dies
    # with this stage (even when this stage dies before it has started it), and --kill-child makes
    # the namespace die with unshare, so even a SIGKILL of this stage leaves nothing behind. The
    # descriptors this stage opened itself (the watcher's pipe) are never inherited; those it was
    # given are, as a shell passes them.
    command = ["unshare", *namespaces, "--fork", "--kill-child", "--", *layout.STAGE,
               "--inner-stage", sandbox.options.to_json()]
    sandbox.unshare = Child(subprocess.Popen(command, close_fds=False, preexec_fn=prepare))


def first_process(sandbox):
    """Returns the pid and a pidfd of the first process of the sandbox's PID namespace, or None
    when unshare ends (or has not forked it within the grace time)."""
    unshare = sandbox.unshare
    for _ in range(int(END_GRACE_SECONDS / POLL_SECONDS)):
        if not unshare.running():
            return None
        pid = child_of(unshare.pid)
        pidfd = open_child(unshare.pid, pid) if pid else None
        if pidfd is not None:
            return pid, pidfd
        time.sleep(POLL_SECONDS)  # unshare has not forked yet: the namespace appears at once
    return None


def ending_signal(sandbox, pid):
    """Returns the signal that ends the first process of the sandbox. systemd takes SIGTERM as an
    order to start itself again, and SIGRTMIN+4 as one to power off; before it has started, the
    inner stage ends on SIGTERM."""
    if sandbox.options.systemd and command_name(pid) == "systemd":
        return signal.SIGRTMIN + 4
    return signal.SIGTERM


def ready_for(pid, number):
    """Whether the first process of the sandbox takes signal number: it is no longer the copy of
    unshare that was forked (which blocks SIGTERM for a moment), and it has said it takes it."""
    return command_name(pid) not in (None, "unshare") and takes(pid, number)


def end_sandbox(sandbox, status):
    """Ends the whole sandbox after an interrupt and returns status once nothing of it is left.
    The first process of the PID namespace exits on SIGTERM; the kernel then kills every other
    process of the namespace and unshare reaps it only after they are all gone. unshare itself
    ignores SIGINT and SIGTERM while it waits. SIGKILL is the fallback for a first process that does
    not end within the grace time."""
    from . import under_systemd

    sandbox.interrupts.ignore()
    grace = END_GRACE_SECONDS
    if sandbox.options.systemd:
        under_systemd.end_command(sandbox)
        grace = under_systemd.SHUTDOWN_SECONDS
    first = first_process(sandbox) if sandbox.unshare is not None else None
    if first is not None:
        pid, pidfd = first
        deadline = time.monotonic() + grace
        # The first process of a PID namespace gets only the signals it takes, and one that unshare
        # has only just forked, or that has only just started, may not take it yet.
        number = ending_signal(sandbox, pid)
        while (not ready_for(pid, number) and sandbox.unshare.running()
               and time.monotonic() < deadline):
            time.sleep(POLL_SECONDS)
            number = ending_signal(sandbox, pid)
        send(pidfd, number)
        if wait_quietly(sandbox.unshare, max(0, deadline - time.monotonic())) is Outcome.TIMED_OUT:
            # Through the pidfd: only if it is still that process.
            send(pidfd, signal.SIGKILL)
        os.close(pidfd)
    if sandbox.unshare is not None:
        sandbox.unshare.status()
    return status


def run(sandbox):
    """Returns the sandbox's exit status: the command's, or that of the interrupt that ended it."""
    from . import under_systemd

    try:
        if sandbox.options.systemd:
            under_systemd.prepare(sandbox)
        sandbox.interrupts.check()
        start_unshare(sandbox)
        if sandbox.options.systemd:
            return under_systemd.run_command(sandbox)
        sandbox.interrupts.wait(sandbox.unshare)
        return sandbox.unshare.status()
    except Interrupted as interrupt:
        return end_sandbox(sandbox, interrupt.status)


def finish(sandbox):
    """Lets the watcher remove the sandbox's cgroup once the sandbox has gone. Whatever stopped
    this stage, no sandbox outlives it: one still running at this point is killed."""
    if sandbox.unshare is not None and sandbox.unshare.running():
        first = first_process(sandbox)
        if first is not None:
            send(first[1], signal.SIGKILL)
        else:
            sandbox.unshare.popen.kill()
        sandbox.unshare.status()
    if sandbox.watcher is not None:
        sandbox.watcher.finish()


def main(arguments, interrupts):
    """Runs the sandbox; interrupts are taken as events from the start (scripts/sandbox installs
    them first), and whenever one comes it ends the sandbox with its status."""
    options = command_line.parse(arguments)
    check_machine()
    sandbox = Sandbox(options, interrupts)
    try:
        return run(sandbox)
    finally:
        finish(sandbox)

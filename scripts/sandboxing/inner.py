"""The inner stage: the first process of the new PID namespace, still seeing the real root. It
builds the sandbox's root, installs the service in it and runs the command there, or becomes
systemd. It exits with the command's status; when it exits, the sandbox ends."""

import contextlib
import os
import signal
import subprocess
import time

from . import layout, libc, service
from .options import Options
from .processes import could_not, exit_status, fail, say
from .root import build_root, is_socket

# How long velnord gets to serve, watched at this pace.
DAEMON_START_SECONDS = 5
DAEMON_POLL_SECONDS = 0.01

# Units that have nothing to do in the sandbox or would reach out of it: terminals, devices,
# kernel modules (which would load into the machine's kernel), the kernel's own file systems, the
# clock, the machine's own PostgreSQL, its SSH server (which would listen on the machine's
# network) and its periodic jobs.
UNITS_MASKED_UNDER_SYSTEMD = (
    "getty.target", "console-getty.service", "postgresql.service", "ssh.service", "ssh.socket",
    "systemd-udevd.service", "systemd-udevd-control.socket", "systemd-udevd-kernel.socket",
    "systemd-udev-trigger.service", "systemd-timesyncd.service", "e2scrub_reap.service",
    "apt-daily.timer", "apt-daily-upgrade.timer", "systemd-modules-load.service",
    "modprobe@.service", "dev-hugepages.mount", "dev-mqueue.mount", "sys-kernel-debug.mount",
    "sys-kernel-tracing.mount", "sys-kernel-config.mount", "sys-fs-fuse-connections.mount",
)

# The signals this interpreter ignores for itself; a program it becomes must not inherit that.
IGNORED_BY_PYTHON = (signal.SIGPIPE, signal.SIGXFSZ)


def enter_root(root, folder):
    """Returns what a child does before it runs a program in the sandbox: the sandbox's root, the
    folder, and the default SIGINT and SIGQUIT, which a shell would have taken from a command it
    started in the background."""

    def enter():
        os.chroot(root)
        os.chdir(folder)
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        signal.signal(signal.SIGQUIT, signal.SIG_DFL)

    return enter


def daemon_command():
    """Returns velnord's command line as --daemon asks for it, from the sandbox's variables."""
    velnord = os.environ.get("VELNORD") or f"{layout.PROJECT}/build/sbin/velnord"
    arguments = [velnord, "--foreground"]
    if os.environ.get("VELNORD_IDLE_INTERVAL"):
        arguments += ["--idle-interval", os.environ["VELNORD_IDLE_INTERVAL"]]
    # The sandbox shares the machine's network: a console only when asked for, on its own port.
    if os.environ.get("VELNORD_WEB_LISTEN"):
        arguments += ["--web-listen", os.environ["VELNORD_WEB_LISTEN"]]
    else:
        arguments += ["--no-web"]
    # The metrics endpoint likewise: only when asked for, on its own port.
    if os.environ.get("VELNORD_METRICS_LISTEN"):
        arguments += ["--metrics-listen", os.environ["VELNORD_METRICS_LISTEN"]]
    else:
        arguments += ["--no-metrics"]
    return arguments


def start_daemon(root, environment):
    """Starts velnord beside the command and waits until its control socket is in place: it is
    renamed there once it listens."""
    arguments = daemon_command()
    velnord = arguments[0]
    # Its own log lines go to the sandbox's standard error, where a test's failure shows them,
    # or to a file of the sandbox's: a client shows each message that a call logs already.
    log = os.environ.get("VELNORD_LOG")
    try:
        with open(root + log, "ab") if log else contextlib.nullcontext() as stderr:
            daemon = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stderr=stderr,
                                      env=environment, close_fds=False,
                                      preexec_fn=enter_root(root, "/"))
    except OSError as error:
        fail(could_not("run velnord", velnord, error))
    for _ in range(int(DAEMON_START_SECONDS / DAEMON_POLL_SECONDS)):
        if is_socket(root + layout.DAEMON_SOCKET):
            return
        if daemon.poll() is not None:
            fail(f"velnord ({velnord}) ended before it served")
        time.sleep(DAEMON_POLL_SECONDS)
    fail(f"velnord ({velnord}) did not serve within {DAEMON_START_SECONDS} s")


def reap_until(pid):
    """Returns the status of pid once it has ended (see exit_status). Every process of the
    sandbox whose parent has gone becomes this process's child, and is reaped here as it ends,
    so that none lingers as a zombie that still seems to run."""
    while True:
        ended, wait_status = os.waitpid(-1, 0)
        if ended == pid:
            return exit_status(os.waitstatus_to_exitcode(wait_status))


def run_command(root, options):
    """Runs the command in the sandbox, in the caller's folder when the sandbox has it, and
    returns its status. This process is the first of the PID namespace: when it exits, the
    sandbox ends."""
    folder = layout.logical_folder()
    if not os.path.isdir(root + folder):
        folder = "/"
    environment = layout.environment_of_a_fresh_system()
    if options.daemon:
        start_daemon(root, environment)
    # A child rather than this process's own image, so that SIGTERM from the outer stage ends the
    # sandbox at once instead of after the command.
    try:
        command = subprocess.Popen(options.command, env=environment, close_fds=False,
                                   preexec_fn=enter_root(root, folder))
    except OSError as error:
        say(could_not("run", options.command[0], error))
        return 127 if isinstance(error, FileNotFoundError) else 126
    status = reap_until(command.pid)
    command.returncode = status  # reaped above, not by subprocess
    return status


def boot_systemd(root):
    """Becomes systemd, the sandbox's first process, with the units above masked in the
    sandbox's /etc."""
    units = root + "/etc/systemd/system"
    os.makedirs(units, exist_ok=True)
    for unit in UNITS_MASKED_UNDER_SYSTEMD:
        try:
            os.unlink(f"{units}/{unit}")
        except FileNotFoundError:
            pass
        os.symlink("/dev/null", f"{units}/{unit}")
    # The sandbox's root becomes its namespace's root, not a chroot inside the machine's: a unit
    # that systemd gives a mount namespace of its own (ProtectSystem=, PrivateDevices=) would
    # otherwise read every other process's /proc/PID/exe with the machine's path to the sandbox
    # in front, and never know the server's program.
    os.chdir(root)
    error = libc.pivot_root_here()
    if error:
        fail(could_not("make the sandbox's root its own", root, OSError(error, os.strerror(error))))
    os.chdir("/")
    null = os.open("/dev/null", os.O_RDWR)
    for standard in (0, 1, 2):
        os.dup2(null, standard)
    for number in IGNORED_BY_PYTHON:
        signal.signal(number, signal.SIG_DFL)
    os.execve(layout.SYSTEMD_BINARY, [layout.SYSTEMD_BINARY], {"container": "velnor-sandbox"})


def main(arguments):
    options = Options.from_json(arguments[0])
    root = build_root(options)
    service.install_account(root)
    service.install_server(root)
    service.write_job_file(root, options)
    service.make_folders(root, options)
    if options.systemd:
        boot_systemd(root)
    return run_command(root, options)

"""The inner stage's copy-on-write root: an overlay of / whose changes live in a fresh tmpfs, with
its own /proc (of the new PID namespace), the real /sys and /dev, a private /dev/shm, /run and
/tmp, and the project folder bound in."""

import os
import stat

from . import layout
from .mounts import (MS_NODEV, MS_NOEXEC, MS_NOSUID, MS_RDONLY, bind, make_private, make_read_only,
                     new_file_system)
from .processes import fail

# Folders that can hold the sandbox's tmpfs.
BASE_CANDIDATES = ("/run", "/tmp", "/mnt", "/media", "/srv")
# The machine's devices that the sandbox's own /dev holds under systemd.
DEVICE_NODES = ("null", "zero", "full", "random", "urandom", "tty")


def choose_base(folders_bound_in):
    """Returns a folder to hold the sandbox's tmpfs. The mount is private, so it only hides that
    folder from this namespace; it must not hide the project or a folder to bind in."""
    for candidate in BASE_CANDIDATES:
        if not os.path.isdir(candidate) or os.path.islink(candidate):
            continue
        if not any((path + "/").startswith(candidate + "/") for path in folders_bound_in):
            return candidate
    fail("found no folder to mount the sandbox's tmpfs on")


def is_socket(path):
    """Whether path (its links followed) is a socket."""
    try:
        return stat.S_ISSOCK(os.stat(path).st_mode)
    except OSError:
        return False


def build_root(options):
    """Returns the path of the sandbox's root, built and mounted."""
    folders_bound_in = [layout.PROJECT, *options.binds]
    make_private("/")
    base = choose_base(folders_bound_in)
    new_file_system("tmpfs", base, options="mode=0700", name="velnor-sandbox")
    for folder in ("upper", "work", "root"):
        os.mkdir(os.path.join(base, folder))
    root = os.path.join(base, "root")
    new_file_system("overlay", root, name="velnor-sandbox-root",
                    options=f"lowerdir=/,upperdir={base}/upper,workdir={base}/work")

    new_file_system("proc", root + "/proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    if options.systemd:
        system_folders_for_systemd(root)
    else:
        bind("/sys", root + "/sys")
        bind("/dev", root + "/dev")
    # The server's POSIX shared memory lives here; private, it dies with the sandbox.
    new_file_system("tmpfs", root + "/dev/shm", MS_NOSUID | MS_NODEV, "mode=1777", name="shm")
    # A system logger of the real machine must not receive the sandbox's messages.
    if is_socket(root + "/dev/log"):
        bind("/dev/null", root + "/dev/log", recursive=False)
    # A freshly booted system: no job records, locks or sockets from the real machine.
    run = root + "/run"
    if os.path.isdir(run) and not os.path.islink(run):
        new_file_system("tmpfs", run, MS_NOSUID | MS_NODEV, "mode=0755", name="run")
    new_file_system("tmpfs", root + "/tmp", MS_NOSUID | MS_NODEV, "mode=1777", name="tmp")

    for path in folders_bound_in:
        os.makedirs(root + path, exist_ok=True)
        bind(path, root + path)
    return root


def touch(path):
    os.close(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC, 0o666))


def system_folders_for_systemd(root):
    """What systemd may change of the machine stays in the sandbox: /sys and /proc/sys are
    read-only (so the units that tune the kernel skip themselves), the cgroup2 file system shows
    only the sandbox's cgroup, and /dev is the sandbox's own, where journald puts /dev/log."""
    bind(root + "/proc/sys", root + "/proc/sys", recursive=False)
    make_read_only(root + "/proc/sys")
    new_file_system("sysfs", root + "/sys", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC)
    new_file_system("cgroup2", root + "/sys/fs/cgroup", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    dev = root + "/dev"
    new_file_system("tmpfs", dev, MS_NOSUID, "mode=0755", name="velnor-sandbox-dev")
    for node in DEVICE_NODES:
        touch(f"{dev}/{node}")
        bind(f"/dev/{node}", f"{dev}/{node}", recursive=False)
    # No terminal of the machine is the sandbox's console.
    touch(f"{dev}/console")
    bind("/dev/null", f"{dev}/console", recursive=False)
    os.mkdir(f"{dev}/pts")
    os.mkdir(f"{dev}/shm")
    new_file_system("devpts", f"{dev}/pts", options="newinstance,ptmxmode=0666,mode=0620")
    for name, target in (("ptmx", "pts/ptmx"), ("fd", "/proc/self/fd"), ("stdin", "/proc/self/fd/0"),
                         ("stdout", "/proc/self/fd/1"), ("stderr", "/proc/self/fd/2")):
        os.symlink(target, f"{dev}/{name}")

"""mount(2), called through the C library: the sandbox makes a score of mounts, and starting the
mount program for each would cost it a process apiece."""

import os

from . import libc
from .processes import fail

MS_RDONLY = 0x1
MS_NOSUID = 0x2
MS_NODEV = 0x4
MS_NOEXEC = 0x8
MS_REMOUNT = 0x20
MS_BIND = 0x1000
MS_REC = 0x4000
MS_PRIVATE = 0x40000
# The statvfs flags that a remount must repeat, lest it clear them; they share the mount flags'
# values.
KEPT_ON_REMOUNT = MS_NOSUID | MS_NODEV | MS_NOEXEC


def mount(source, target, kind=None, flags=0, options=None):
    """Mounts; stops the sandbox with the system's reason when the kernel refuses."""
    error = libc.mount(source, target, kind, flags, options)
    if error:
        fail(f'could not mount {kind or source or "again"} on "{target}": {os.strerror(error)}')


def new_file_system(kind, target, flags=0, options=None, name=None):
    """Mounts a new file system of kind (tmpfs, proc, ...) named name (default: kind)."""
    mount(name or kind, target, kind, flags, options)


def bind(source, target, recursive=True):
    """Binds source in at target, with the mounts below it unless recursive is false."""
    mount(source, target, None, MS_BIND | (MS_REC if recursive else 0))


def make_private(target):
    """Makes target and every mount below it private: nothing mounted here reaches the machine,
    and nothing the machine mounts reaches here."""
    mount(None, target, None, MS_REC | MS_PRIVATE)


def make_read_only(target):
    """Makes the bind mount at target read-only, keeping its other flags."""
    kept = os.statvfs(target).f_flag & KEPT_ON_REMOUNT
    mount(None, target, None, MS_REMOUNT | MS_BIND | MS_RDONLY | kept)

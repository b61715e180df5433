"""The few system calls that the standard library lacks, called through the C library."""

import ctypes
import os
import signal

_libc = ctypes.CDLL("libc.so.6", use_errno=True)
_libc.mount.argtypes = (ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_ulong,
                        ctypes.c_char_p)
_libc.prctl.argtypes = (ctypes.c_int, ctypes.c_ulong, ctypes.c_ulong, ctypes.c_ulong,
                        ctypes.c_ulong)

PR_SET_PDEATHSIG = 1
SYS_PIVOT_ROOT = 155  # x86-64; the C library has no wrapper
MNT_DETACH = 2


def _bytes(text):
    return None if text is None else os.fsencode(text)


def mount(source, target, kind, flags, options):
    """mount(2); returns 0, or the errno of a refusal."""
    if _libc.mount(_bytes(source), _bytes(target), _bytes(kind), flags, _bytes(options)) == 0:
        return 0
    return ctypes.get_errno()


def pivot_root_here():
    """Makes the current folder, a mount point, the root of this mount namespace and detaches the
    old root: pivot_root(".", ".") then umount2(".", MNT_DETACH). Returns 0, or the errno of a
    refusal."""
    if _libc.syscall(SYS_PIVOT_ROOT, b".", b".") != 0:
        return ctypes.get_errno()
    if _libc.umount2(b".", MNT_DETACH) != 0:
        return ctypes.get_errno()
    return 0


def die_with_parent(parent):
    """Makes this process get SIGKILL when parent ends, and ends it at once when parent has
    already gone: between a fork and this call nothing would have told it."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    if os.getppid() != parent:
        os._exit(1)

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


def _bytes(text):
    return None if text is None else os.fsencode(text)


def mount(source, target, kind, flags, options):
    """mount(2); returns 0, or the errno of a refusal."""
    if _libc.mount(_bytes(source), _bytes(target), _bytes(kind), flags, _bytes(options)) == 0:
        return 0
    return ctypes.get_errno()


def die_with_parent(parent):
    """Makes this process get SIGKILL when parent ends, and ends it at once when parent has
    already gone: between a fork and this call nothing would have told it."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    if os.getppid() != parent:
        os._exit(1)

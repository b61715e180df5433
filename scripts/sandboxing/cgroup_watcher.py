"""With --systemd, the watcher that removes the sandbox's cgroup once the outer stage has gone
(under_systemd.Watcher starts it). This is its whole program, and it imports little."""

import os
import sys
import time

from .processes import PROGRAM

# The namespace's processes may take a while to go when a poweroff was cut short.
REMOVAL_SECONDS = 60
POLL_SECONDS = 0.01


def remove_tree(cgroup):
    """Removes the cgroups under cgroup and cgroup itself, deepest first, as far as they are
    empty; returns whether cgroup has gone."""
    for folder, _, _ in os.walk(cgroup, topdown=False):
        try:
            os.rmdir(folder)
        except OSError:
            pass
    return not os.path.isdir(cgroup)


def main(arguments):
    """The watcher, which ignores SIGINT, SIGTERM and SIGHUP (scripts/sandbox sets that): waits
    for the end of its standard input, then for the cgroup to empty, and removes it, deepest
    cgroups first."""
    cgroup = arguments[0]
    while os.read(sys.stdin.fileno(), 4096):
        pass
    for _ in range(int(REMOVAL_SECONDS / POLL_SECONDS)):
        if remove_tree(cgroup):
            return 0
        time.sleep(POLL_SECONDS)
    print(f"{PROGRAM}: could not remove the cgroup {cgroup}: it still holds processes",
          file=sys.stderr)
    return 1

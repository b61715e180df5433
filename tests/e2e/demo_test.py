#!/usr/bin/python3
"""scripts/demo as a new user runs it: the tour ends well, and each message of a call is shown
once, as velnor relays it, never again from the daemon's own log."""

import os
import re
import subprocess
import sys

sys.dont_write_bytecode = True
import harness  # noqa: E402


def main():
    harness.require_root()
    done = subprocess.run([os.path.join(harness.PROJECT, "scripts", "demo")], capture_output=True,
                          text=True, timeout=900, env={**os.environ, "TERM": "dumb"})
    output = done.stdout + done.stderr
    failures = []
    if done.returncode != 0:
        failures.append(f"the demo exited {done.returncode}")
    daemon_lines = [line for line in output.splitlines() if re.search(r"\bvelnord\[\d+\]:", line)]
    if daemon_lines:
        failures.append(f"the daemon's own log lines are shown too: {daemon_lines[:3]}")
    created = output.count("velnor_postgres: Created socket folder")
    if created != 1:
        failures.append(f"the socket folder's creation is shown {created} times, not once")
    for failure in failures:
        print(f"FAILED: {failure}", file=sys.stderr)
    if failures:
        print(output[-6000:], file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

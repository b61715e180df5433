#!/usr/bin/python3
"""scripts/demo as a new user runs it: the tour ends well, and each message of a call is shown
once, as velnor relays it, never again from the daemon's own log; the stop that ends the idle
client is not said to be held by it."""

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
    if "the service is still running" in output:
        failures.append("the stop that ended the idle client is said to be held")
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

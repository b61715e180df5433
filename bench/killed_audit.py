#!/usr/bin/python3
"""SIGKILLs velnord at random moments during changing calls, inside a sandbox, and prints how many
calls were answered, how many records the audit trail holds, how many of its lines are torn and
how many answered changes have no record.

    bench/killed_audit.py --velnor build/bin/velnor --plugin build/lib/velnor/plugins/velnor_postgres.so [--bind DIR]
        killed_audit    (VELNOR_AUDIT_CALLS: the calls, 1000)
"""

import os
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
os.environ.setdefault("VELNOR_AUDIT_CALLS", "1000")
import harness  # noqa: E402
from harness import sandbox  # noqa: E402
from audit_scenarios import KILLED_CALLS, killed_daemon_calls  # noqa: E402


class KilledAudit(harness.ScenarioCase):
    @sandbox("--initdb")
    def test_killed_audit(self):
        began = time.monotonic()
        calls, answered, records, torn, missing = killed_daemon_calls(self.host, KILLED_CALLS)
        print(f"\n{'calls':>7}{'answered':>10}{'records':>9}{'torn lines':>12}"
              f"{'answered, unrecorded':>22}{'seconds':>9}")
        print(f"{calls:>7}{answered:>10}{records:>9}{torn:>12}{len(missing):>22}"
              f"{time.monotonic() - began:>9.0f}", flush=True)
        self.assertEqual((torn, missing), (0, []))


if __name__ == "__main__":
    sys.exit(harness.scenario_main(KilledAudit, __file__, __doc__))

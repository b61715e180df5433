#!/usr/bin/python3
"""Kills settings writes and log-directory migrations at random moments, inside a sandbox, and
prints how many left the job file not whole and how many temporary files stayed once the next
write had run.

    bench/killed_writes.py --velnor build/bin/velnor --plugin build/lib/velnor/plugins/velnor_postgres.so [--bind DIR]
        killed_writes    (VELNOR_SETTINGS_KILLS, VELNOR_MIGRATION_KILLS: counts, 1000 and 800)
"""

import os
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402
from harness import sandbox  # noqa: E402
from input_attack_scenarios import killed_writes  # noqa: E402

SETTINGS_KILLS = int(os.environ.get("VELNOR_SETTINGS_KILLS", 1000))
MIGRATION_KILLS = int(os.environ.get("VELNOR_MIGRATION_KILLS", 800))


class KilledWrites(harness.ScenarioCase):
    @sandbox("--legacy-log-dir", "--initdb", "--socket-dir")
    def test_killed_writes(self):
        print(f"\n{'writes killed':<26}{'kills':>7}{'written before kill':>21}"
              f"{'corrupt job files':>19}{'temporaries left':>18}")
        for what, count, settings_writes in (("settings writes", SETTINGS_KILLS, True),
                                             ("log-directory migrations", MIGRATION_KILLS, False)):
            corrupt, written, temporaries = killed_writes(self.host, count, settings_writes)
            print(f"{what:<26}{count:>7}{written:>21}{corrupt:>19}{temporaries:>18}", flush=True)


if __name__ == "__main__":
    sys.exit(harness.scenario_main(KilledWrites, __file__, __doc__))

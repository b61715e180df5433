#!/usr/bin/python3
"""settings --plan and --apply as a fleet tool drives them: the plan compares values as the server
reads them and names what applying costs; the apply changes only what differs, writes nothing when
the server refuses a value, and refuses a job file that changed since its plan."""

import fcntl
import hashlib
import os
import subprocess
import sys

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import job_file_bytes, sandbox  # noqa: E402

VERSION_CHANGED = 4
LOCK_FILE = "/var/run/velnor/host.lock"


def version_now():
    return hashlib.sha256(job_file_bytes()).hexdigest()


def by_name(answer):
    return {setting["name"]: setting for setting in answer.response["settings"]}


class SettingsPlan(harness.ScenarioCase):
    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_job_file_changed_since_the_plan_refuses_the_apply(self):
        """Two administrators: the second one's apply, planned before the first one wrote, is
        refused with its own exit status and overwrites nothing."""
        plan = self.velnor("settings", "--plan", "work_mem=8MB")
        self.velnor("settings", "work_mem=16MB")
        theirs = job_file_bytes()
        late = self.host("settings", "--apply", "work_mem=8MB", "--expect-version",
                         plan.response["version"])
        self.assertEqual(late.status, VERSION_CHANGED, late.stderr)
        self.assertIn(f"the job file changed since its version {plan.response['version']} was read; "
                      f"it is now {version_now()}", late.stderr)
        self.assertEqual((late.response["changed"], late.response["version"]), (False, version_now()))
        self.assertEqual(job_file_bytes(), theirs, "the other administrator's change stands")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_a_hand_edit_while_the_apply_waits_is_never_overwritten(self):
        """An administrator edits the job file by hand while holding the host lock, as an apply
        waits for it. Through velnord the apply read the version before it waited, and the
        version checked again right before the write refuses it; in this process the apply waits
        before it reads anything, and keeps the edit."""
        self.velnor("status", status=3)
        through_daemon = os.path.exists("/run/velnor/velnord.sock")
        with open(LOCK_FILE) as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            apply = subprocess.Popen([self.host.velnor, "--plugin", self.host.plugin, "settings",
                                      "--apply", "work_mem=9MB"], stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)
            self.assertIn("waiting for the host lock", apply.stderr.readline())
            job = harness.read_job_file()
            job["ProgramArguments"] += ["-c", "log_min_duration_statement=250"]
            harness.write_job_file(job)
            edited = job_file_bytes()
            fcntl.flock(lock, fcntl.LOCK_UN)
            status, err = apply.wait(timeout=60), apply.stderr.read()
        arguments = harness.read_job_file()["ProgramArguments"]
        self.assertIn("log_min_duration_statement=250", arguments, "the hand edit stands")
        if through_daemon:
            self.assertEqual(status, VERSION_CHANGED, err)
            self.assertIn("the job file changed since its version", err)
            self.assertEqual(job_file_bytes(), edited, "nothing written over it")
        else:
            self.assertEqual(status, 0, err)
            self.assertIn("work_mem=9MB", arguments, "applied on top of the edit")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_hostile_values_never_reach_a_shell(self):
        """Shell metacharacters are passed as they are, to be refused or stored verbatim by the
        server program; a line feed, which would split the server's view, is refused outright."""
        planted = "/tmp/fp"
        # Within the 63 characters that the server keeps of an application name.
        name = f"x;touch {planted};$(touch {planted})`touch {planted}`"
        applied = self.velnor("settings", "--apply", f"application_name={name}")
        self.assertEqual(by_name(applied)["application_name"]["serverSays"], name)
        self.assertIn(f"application_name={name}", harness.read_job_file()["ProgramArguments"])
        refused = self.host("settings", "--apply", f"search_path=$(touch {planted})")
        self.assertEqual(refused.status, 1, refused.stderr)
        before = job_file_bytes()
        for value in ("4MB\n-c shared_buffers=1TB", "4MB\r\nfoo"):
            split = self.host("settings", "--apply", f"work_mem={value}")
            self.assertEqual(split.status, 64, f"{value!r}: {split.stderr}")
            self.assertIn('the value of "work_mem" holds a line feed', split.stderr)
        self.assertEqual(job_file_bytes(), before, "nothing written")
        self.assertFalse(os.path.exists(planted), "no shell ran any of it")


if __name__ == "__main__":
    sys.exit(harness.scenario_main(SettingsPlan, __file__, __doc__))

#!/usr/bin/python3
"""The audit trail: every change through velnord and in the client's own process recorded with who
asked and how, read back by velnor history; a trail that another account could write is refused
and nothing is written through it; velnord killed at random moments leaves whole lines and every
answered change recorded."""

import json
import os
import random
import signal
import socket
import subprocess
import sys
import time

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import ACCOUNT, ACCOUNT_ID, sandbox  # noqa: E402

TRAIL_FOLDER = "/var/lib/velnor"
TRAIL = TRAIL_FOLDER + "/audit.jsonl"
SOCKET = "/run/velnor/velnord.sock"
# How many changes the kill scenario makes; bench/killed_audit.py makes 1000.
KILLED_CALLS = int(os.environ.get("VELNOR_AUDIT_CALLS", 60))


def trail_lines():
    with open(TRAIL, "rb") as trail:
        return trail.read().decode().splitlines()


def trail_records():
    return [json.loads(line) for line in trail_lines()]


def serving():
    """True once velnord answers on its socket."""
    try:
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(SOCKET)
            return True
    except OSError:
        return False


def start_daemon(host):
    daemon = subprocess.Popen([harness.velnord_beside(host.velnor), "--plugin", host.plugin])
    harness.wait_until(serving, "velnord serves")
    return daemon


def run(host, *arguments):
    """velnor with arguments, quietly; its exit status and pid (which velnor-direct keeps)."""
    client = subprocess.Popen([host.velnor, "--plugin", host.plugin, "-q", *arguments],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    _, stderr = client.communicate(timeout=120)
    return client.returncode, client.pid, stderr


def killed_daemon_calls(host, count, seed=22):
    """Makes count housekeeping calls through velnord, each asked for by hand with a count of its
    own (`velnor call doIdleAtCount N`: a change that is recorded and takes milliseconds), and
    SIGKILLs velnord at a random moment during every other one, starting it again after. Answers
    the counts: calls, answered, records, torn lines, and the answered calls without a record."""
    chance = random.Random(seed)
    daemon = start_daemon(host)
    window, answered = 0.0, []
    for call in range(1, count + 1):
        began = time.monotonic()
        client = subprocess.Popen([host.velnor, "--plugin", host.plugin, "-q", "call", "doIdleAtCount",
                                   str(call)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        killed = call % 2 == 0
        if killed:
            # A random moment within as long as the last call that was let be took.
            time.sleep(chance.uniform(0, window))
            daemon.send_signal(signal.SIGKILL)
            daemon.wait()
        if client.wait(timeout=120) == 0:
            answered.append(call)
        if not killed:
            window = time.monotonic() - began
        if daemon.poll() is not None:
            daemon = start_daemon(host)
    daemon.send_signal(signal.SIGTERM)
    daemon.wait(timeout=60)
    records, torn = [], 0
    for line in trail_lines():
        try:
            records.append(json.loads(line))
        except json.JSONDecodeError:
            torn += 1
    recorded = {record.get("argument") for record in records if record["outcome"] == "done"}
    missing = [call for call in answered if call not in recorded]
    return count, len(answered), len(records), torn, missing


class Audit(harness.ScenarioCase):
    @sandbox("--initdb")
    def test_changes_through_the_daemon_and_in_process_are_recorded_with_who_asked(self):
        daemon = start_daemon(self.host)
        self.addCleanup(lambda: daemon.poll() is None and daemon.kill())
        runs = [("start",), ("settings", "work_mem=8MB"), ("status",), ("stop",),
                ("--direct", "settings", "work_mem=16MB", "jit=off"), ("--direct", "idle"),
                ("--direct", "log-path")]
        pids = []
        for arguments in runs:
            status, pid, stderr = run(self.host, *arguments)
            self.assertEqual(status, 0, f"{arguments}: {stderr}")
            pids.append(pid)
        self.assertEqual(harness.attributes(TRAIL_FOLDER), harness.folder(0o700, "root"))
        self.assertEqual(harness.attributes(TRAIL), harness.regular_file(0o600, "root"))
        seen = [(r["verb"], r["operations"], r["channel"], r["uid"], r["account"], r["pid"],
                 r["outcome"], r.get("changes")) for r in trail_records()]
        daemon_channel, direct = "control socket", "in-process host"
        self.assertEqual(seen, [
            ("start", ["startServiceWithVariant"], daemon_channel, 0, "root", pids[0], "done", None),
            ("settings", ["writeSettingsWithRequest"], daemon_channel, 0, "root", pids[1], "done",
             [{"key": "work_mem", "new": "8MB"}]),
            ("stop", ["stopServiceWithVariant"], daemon_channel, 0, "root", pids[3], "done", None),
            ("settings", ["writeSettingsWithRequest"], direct, 0, "root", pids[4], "done",
             [{"key": "jit", "new": "off"}, {"key": "work_mem", "old": "8MB", "new": "16MB"}]),
            ("idle", ["doIdleAtCount"], direct, 0, "root", pids[5], "done", None),
        ], "one record per change, none for the reads")
        self.assertTrue(all(r["time"].endswith("Z") and r["tookMs"] >= 0 for r in trail_records()))

        history = subprocess.run([self.host.velnor, "history"], capture_output=True, text=True)
        self.assertEqual(history.returncode, 0, history.stderr)
        lines = history.stdout.splitlines()
        self.assertEqual(len(lines), 5, history.stdout)
        self.assertIn(f" root (uid 0, control socket, pid {pids[0]}) start: done in ", lines[0])
        self.assertEqual(self.velnor("history", "--since", "1h").response, trail_records(),
                         "the records as JSON, through velnord")
        self.assertEqual(self.velnor("history", "--since", "2099-01-01").response, [])
        if harness.under_systemd():
            # Where journald runs, each record is in the journal with fields of its own.
            journal = subprocess.run(["journalctl", "--no-pager", "-o", "json", "VELNOR_AUDIT_VERB=start"],
                                     capture_output=True, text=True)
            entries = [json.loads(line) for line in journal.stdout.splitlines()]
            self.assertEqual([(e["VELNOR_AUDIT_ACCOUNT"], e["VELNOR_AUDIT_CHANNEL"], e["VELNOR_AUDIT_PID"],
                               e["PRIORITY"]) for e in entries],
                             [("root", daemon_channel, str(pids[0]), "5")], journal.stderr)
            self.assertEqual(json.loads(entries[0]["VELNOR_AUDIT_RECORD"]), trail_records()[0])

    @sandbox("--initdb")
    def test_a_trail_another_account_can_write_is_refused_and_nothing_is_written_through_it(self):
        """The trail's folder, handed to the service account by mistake, holds what that account
        planted: a link to a file of root's, or a file of its own. Root's change goes ahead and
        says why it was not recorded; the planted file and the file linked to keep every byte;
        velnor history refuses to read what the account could have forged."""
        os.makedirs(TRAIL_FOLDER, mode=0o700)
        os.chown(TRAIL_FOLDER, ACCOUNT_ID, ACCOUNT_ID)
        shadow = "/etc/velnor-precious"
        with open(shadow, "w") as precious:
            precious.write("root's\n")
        for what, plant, reason in [
                ("a link to a file of root's", ["ln", "-s", shadow, TRAIL], "it is a symbolic link"),
                ("the account's own file", ["sh", "-c", f"echo forged > {TRAIL}; chmod 600 {TRAIL}"],
                 f"belongs to uid {ACCOUNT_ID}, not root")]:
            with self.subTest(what):
                planted = harness.as_account(plant)
                self.assertEqual(planted.returncode, 0, planted.stderr)
                before = open(TRAIL, "rb").read()
                status, _, stderr = run(self.host, "--direct", "settings", "work_mem=9MB")
                self.assertEqual(status, 0, f"root's change goes ahead: {stderr}")
                self.assertIn(f'could not open the audit folder "{TRAIL_FOLDER}": it belongs to uid '
                              f"{ACCOUNT_ID}, not root", stderr)
                self.assertEqual(open(TRAIL, "rb").read(), before, "nothing written through it")
                history = subprocess.run([self.host.velnor, "history"], capture_output=True, text=True)
                self.assertEqual((history.returncode, history.stdout), (69, ""), history.stderr)
                self.assertIn("not root", history.stderr)
                os.unlink(TRAIL)
        # Given back to root, with the account's plant still there, the file itself is refused.
        os.chown(TRAIL_FOLDER, 0, 0)
        os.symlink(shadow, TRAIL)
        status, _, stderr = run(self.host, "--direct", "settings", "work_mem=10MB")
        self.assertEqual(status, 0, stderr)
        self.assertIn(f'could not open "{TRAIL}": it is a symbolic link', stderr)
        self.assertEqual(open(shadow).read(), "root's\n", "the file linked to keeps every byte")
        del reason

    @sandbox("--initdb")
    def test_a_killed_daemon_leaves_whole_lines_and_every_answered_change_recorded(self):
        calls, answered, records, torn, missing = killed_daemon_calls(self.host, KILLED_CALLS)
        self.assertEqual((torn, missing), (0, []), "no torn line, no answered change unrecorded")
        self.assertGreaterEqual(records, answered, "every answered change has its record")
        self.assertGreaterEqual(answered, calls // 2, "the calls that were not killed were answered")


if __name__ == "__main__":
    sys.exit(harness.scenario_main(Audit, __file__, __doc__))

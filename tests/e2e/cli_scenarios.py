#!/usr/bin/python3
"""velnor as an administrator types it: a failed start that explains itself with the server's
own log lines, in words or as JSON; restart and try-restart as service managers mean them."""

import glob
import os
import subprocess
import sys

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import DATA_DIR, LOG_FILE, sandbox  # noqa: E402

CHECKPOINT_LOST = "PANIC:  could not locate a valid checkpoint record"


class CommandLine(harness.ScenarioCase):
    def typed(self, *arguments):
        """velnor as typed, without --json: exit status, output and errors."""
        done = subprocess.run([self.host.velnor, "--plugin", self.host.plugin, *arguments],
                              capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout, done.stderr

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_failed_start_shows_the_servers_log(self):
        """A server that cannot recover (its WAL is gone) fails the start: the words, the code,
        and the lines it logged since; with --json, an object naming the failure."""
        self.assert_started(self.velnor("start"))
        self.velnor("stop")
        self.wait_for_server_to_end()
        with open(LOG_FILE) as log:
            before = log.read()
        for segment in glob.glob(os.path.join(DATA_DIR, "pg_wal", "0*")):
            os.remove(segment)

        status, out, err = self.typed("start")
        self.assertEqual((status, out), (1, ""), err)
        self.assertIn("velnor: start failed: the server did not answer within 2 s "
                      "(CANNOT_START_SERVICE_TIMEOUT_ERR)\n"
                      f'velnor: the server\'s log "{LOG_FILE}" since the start:\n', err)
        self.assertIn(CHECKPOINT_LOST, err)
        with open(LOG_FILE) as log:
            added = log.read()[len(before):]
        shown = err.split("since the start:\n", 1)[1]
        self.assertTrue(shown and added.startswith(shown), "what the start added, from its beginning")

        answer = self.host("start")
        self.assertEqual((answer.status, answer.response), (1, {"error": "CANNOT_START_SERVICE_TIMEOUT_ERR"}))
        self.assertEqual(answer.failure, {"verb": "start", "operation": "startServiceWithVariant",
                                          "code": "CANNOT_START_SERVICE_TIMEOUT_ERR",
                                          "words": "the server did not answer within 2 s",
                                          "exitStatus": 1})

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_restart_leaves_the_service_running_and_try_restart_needs_it_running(self):
        status, out, err = self.typed("try-restart")
        self.assertEqual((status, out), (0, ""), err)
        self.assertNotIn("waiting for postgres", err, "try-restart of a stopped service starts nothing")
        self.assertEqual(self.velnor("status", status=3).response, {"state": "STOPPED"})
        server = None
        for verb in ("restart", "restart", "try-restart"):
            status, out, err = self.typed(verb)
            self.assertEqual((status, out), (0, ""), f"{verb}: {err}")
            self.assertEqual(self.velnor("status").response, {"state": "RUNNING"}, f"after {verb}")
            self.assertNotEqual(self.running_server(), server, f"{verb} runs a new server")
            server = self.running_server()


if __name__ == "__main__":
    sys.exit(harness.scenario_main(CommandLine, __file__, __doc__))

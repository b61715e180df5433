#!/usr/bin/python3
"""launchd's semantics for the job: a restart that waits for a long query, a job stopped after its
file was removed, a server that ignores SIGTERM killed once its ExitTimeOut has passed, and output
files opened with the job's account's rights only."""

import os
import subprocess
import sys
import time

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import JOB_FILE, read_job_file, sandbox, write_job_file  # noqa: E402

QUERY_SECONDS = 10
EXIT_TIME_OUT = 3


class LaunchdScenarios(harness.ScenarioCase):
    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_settings_change_during_a_long_query(self):
        """The write answers; the old server finishes the query, then the new one runs with the
        new setting."""
        self.velnor("start")
        old = self.running_server()
        query = subprocess.Popen(["psql", "-X", "-h", harness.SOCKET_DIR, "-U", harness.ACCOUNT, "-d",
                                  "postgres", "-c", f"SELECT pg_sleep({QUERY_SECONDS})"],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        harness.wait_until(lambda: harness.psql("SELECT count(*) FROM pg_stat_activity WHERE query "
                                                "LIKE 'SELECT pg_sleep%' AND state = 'active'") == "1",
                           "the query runs")
        self.velnor("settings", "work_mem=12MB")
        self.assertEqual((query.wait(timeout=60), query.stderr.read()), (0, ""), "the query ends well")
        harness.wait_until(harness.answers, "the new server answers")
        self.assertEqual(harness.psql("SHOW work_mem"), "12MB", "the new server has the new setting")
        self.assertNotEqual(self.running_server(), old, "a new server process")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_job_whose_file_was_removed_still_stops(self):
        """The running job is stopped by its label; the next start reads the file as it is then."""
        job = read_job_file()
        self.assert_started(self.velnor("start"))
        os.remove(JOB_FILE)
        self.assert_stopped(self.velnor("stop"))
        self.wait_for_server_to_end()
        self.assert_state("STOPPED")
        job["ProgramArguments"] += ["-c", "work_mem=9MB"]
        write_job_file(job)
        self.assert_started(self.velnor("start"))
        self.assertEqual(harness.psql("SHOW work_mem"), "9MB", "the start used the new file")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_server_ignoring_sigterm_is_killed_after_exit_time_out(self):
        """A job whose main process ignores SIGTERM, its server beside it: both are gone
        ExitTimeOut seconds after the stop, and not before. The main process has the job's Umask
        (the server sets its own)."""
        job = read_job_file()
        server = " ".join(f"'{argument}'" for argument in job["ProgramArguments"])
        job.update(ProgramArguments=["/bin/sh", "-c", f"trap '' TERM; {server} & wait"],
                   ExitTimeOut=EXIT_TIME_OUT, Umask=0o027)
        write_job_file(job)
        self.assert_started(self.velnor("start"))
        with open(f"/proc/{harness.parent_of(self.running_server())}/status") as status:
            self.assertIn("Umask:\t0027\n", status.read(), "the umask of the job's process")
        began = time.monotonic()
        self.assertEqual(self.velnor("stop", status=1).response,
                         {"error": "CANNOT_STOP_SERVICE_TIMEOUT_ERR"}, "the server still answers")
        self.assert_state("RUNNING")
        harness.wait_until(lambda: self.host("status").response == {"state": "STOPPED"},
                           "the job has been killed")
        took = time.monotonic() - began
        self.assertTrue(EXIT_TIME_OUT <= took < EXIT_TIME_OUT + 1.5, f"killed after {took:.1f} s")
        # The server's own children end once they find their parent killed.
        harness.wait_until(lambda: not harness.server_titles(), "no server process is left", 5)

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_output_file_linked_by_the_account_to_a_root_file(self):
        """A link that the service account lays at the job's StandardErrorPath, to a file only root
        may write, makes the start fail and leaves the file as it was, and a FIFO nobody reads
        makes it fail at once rather than hang; without them the start works and the account's
        own file receives the output."""
        victim, output = "/etc/velnor-root-only", harness.LOG_DIR + "/stderr.log"
        with open(victim, "w") as file:
            file.write("root's\n")
        write_job_file({**read_job_file(), "StandardErrorPath": output})
        harness.as_account(["ln", "-s", victim, output], check=True)
        answer = self.velnor("start", status=1)
        self.assertEqual(answer.response, {"error": "CANNOT_START_SERVICE_ERR"})
        self.assertIn(f'could not start job "org.postgresql.postgres": could not open for standard '
                      f'error "{output}": Permission denied', answer.stderr)
        self.assert_state("STOPPED")
        with open(victim) as file:
            self.assertEqual(file.read(), "root's\n", "the root file is unchanged")
        os.remove(output)
        harness.as_account(["mkfifo", output], check=True)
        answer = self.velnor("start", status=1)
        self.assertIn(f'"{output}": No such device or address', answer.stderr)
        os.remove(output)
        self.assert_started(self.velnor("start"))
        self.assertEqual(harness.attributes(output), harness.regular_file(0o644))


if __name__ == "__main__":
    sys.exit(harness.scenario_main(LaunchdScenarios, __file__, __doc__))

#!/usr/bin/python3
"""End-to-end scenarios: the host loads the plug-in and administers a real PostgreSQL 15 server,
each scenario in its own fresh sandbox built with the options it declares.

Each scenario reads the host's JSON responses (checking the kind of every value: an integer is never
a boolean), the plug-in's log messages on standard error, and the files, processes and server
inside the sandbox.
"""

import os
import shutil
import sys
import time

# The tests run from the source tree, which the sandbox binds in: leave no byte code there.
sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import (ACCOUNT, ACCOUNT_ID, CREATED_LOG_DIR, CREATED_SOCKET_DIR, DATA_DIR, JOB_FILE,
                     LOG_DIR, LOG_FILE, MARKER, RESTARTING, SOCKET_DIR,
                     STOP_TIMED_OUT, UPDATED_JOB_FILE, WAITING_TO_RESPOND, WAITING_TO_STOP, Waits,
                     folder, job_file_bytes, job_file_format, read_job_file, regular_file, sandbox,
                     write_job_file)


def idle_titled():
    """pids of the job's server processes whose title marks an idle session."""
    return {pid for pid, title in harness.server_titles().items()
            if title.startswith("postgres:") and title.endswith("idle")}


class Scenarios(harness.ScenarioCase):
    @sandbox("--legacy-log-dir")
    def test_log_path(self):
        """The log path comes from the job file as it stands and touches nothing."""
        before = job_file_bytes()
        answer = self.velnor("log-path")
        self.assert_kinds(answer.response, {"log": str}, "log path")
        self.assertEqual(answer.response["log"], "/Library/Logs/PostgreSQL.log",
                         "a job file not yet migrated names the old folder")
        self.assertEqual(answer.log, [], "the log-path report logs nothing")
        self.assertFalse(os.path.exists(LOG_DIR) or os.path.exists(SOCKET_DIR),
                         "the log-path report creates no folder")
        self.assertEqual(job_file_bytes(), before, "the log-path report migrates nothing")

        job = read_job_file()
        job["ProgramArguments"] += ["-c", "log_directory=pg_log", "-c", "log_filename=server-%a.log"]
        write_job_file(job)
        answer = self.velnor("log-path")
        self.assertEqual(answer.response, {"log": "pg_log/server-%a.log"},
                         "the last setting of each key counts, taken verbatim")

        os.remove(JOB_FILE)
        answer = self.velnor("log-path")
        self.assertEqual(answer.response, {"log": LOG_FILE}, "without a job file, the defaults")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_state_report(self):
        """Plain and detailed state, stopped and running, and the data folder's condition."""
        answer = self.velnor("status", status=3)
        self.assertEqual(answer.response, {"state": "STOPPED"}, "plain report of a stopped service")
        self.assertEqual(answer.log, [], "a settled system logs nothing")

        details = {"state": str, "PG_VERSION": str, "setStateVersion": int, "dataDir": str,
                   "dataDirExists": bool, "dataDirIsDirectory": bool,
                   "dataDirHasBeenInitialized": bool, "postgresIsResponding": bool,
                   "PGserverVersion": int}
        stopped = self.velnor("status", "--details", status=3).response
        # The restart ledger's figures follow the plug-in's own: nothing started yet.
        self.assertEqual(stopped.pop("ledger"), {"startsToday": dict.fromkeys(harness.CAUSES, 0)},
                         "the ledger of a service never started")
        self.assert_kinds(stopped, details, "detailed report")
        self.assertEqual(stopped, {"state": "STOPPED", "PG_VERSION": "9.0.5", "setStateVersion": 1,
                                   "dataDir": DATA_DIR, "dataDirExists": True,
                                   "dataDirIsDirectory": True, "dataDirHasBeenInitialized": True,
                                   "postgresIsResponding": False, "PGserverVersion": 0},
                         "detailed report of a stopped service")

        self.assert_started(self.velnor("start"))
        running = self.velnor("status", "--details").response
        self.assertEqual(set(running.pop("ledger")["startsToday"]), set(harness.CAUSES),
                         "today's starts, by cause")
        self.assert_kinds(running, details, "detailed report")
        self.assertEqual(running["state"], "RUNNING")
        self.assertIs(running["postgresIsResponding"], True)
        self.assertEqual(running["PGserverVersion"], int(harness.psql("SHOW server_version_num")),
                         "the server's own version number")
        self.assertEqual(running["PG_VERSION"], "9.0.5", "the fixed version text, whatever the server")
        self.velnor("stop")
        self.wait_for_server_to_end()

        os.rename(DATA_DIR, DATA_DIR + ".moved")
        missing = self.velnor("status", "--details", status=3).response
        missing.pop("ledger")
        self.assertEqual((missing["dataDir"], missing["dataDirExists"], missing["dataDirIsDirectory"],
                          missing["dataDirHasBeenInitialized"]), (DATA_DIR, False, False, False),
                         "a missing data folder")
        with open(DATA_DIR, "w") as plain_file:
            plain_file.write("not a folder\n")
        blocked = self.velnor("status", "--details", status=3).response
        self.assertEqual((blocked["dataDirExists"], blocked["dataDirIsDirectory"],
                          blocked["dataDirHasBeenInitialized"]), (True, False, False),
                         "a plain file where the data folder should be")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_start_then_stop(self):
        """launchd runs the job as the job file says; start and stop wait for the probe."""
        self.assert_started(self.velnor("start"))
        pid = self.running_server()
        self.assert_job_process(pid)
        if harness.under_systemd():
            self.assert_unit_runs_server(pid)
        self.assert_state("RUNNING")
        self.assertEqual(harness.psql("SHOW unix_socket_directories"), SOCKET_DIR)
        self.assertEqual(harness.attributes(LOG_FILE), regular_file(0o600),
                         "the server writes its log into the log folder")

        again = self.velnor("start")
        self.assertEqual((again.response, again.log), (None, []),
                         "a second start finds the server answering at once")
        self.assertEqual(harness.postmaster(), pid, "a second start starts no other server")

        self.assert_stopped(self.velnor("stop"))
        self.assertFalse(harness.answers(), "once the stop returns, the server no longer answers")
        self.wait_for_server_to_end()
        self.assert_state("STOPPED")

        again = self.velnor("stop")
        self.assertEqual((again.response, again.log), (None, []), "a second stop succeeds quietly")

    @sandbox("--initdb")
    def test_first_start_creates_folders(self):
        """The first start on a fresh system creates both folders, marks the job file as migrated
        (it never held the old setting, so it stays as it was) and starts the server."""
        job_before = read_job_file()
        answer = self.velnor("start")
        self.assert_started(answer, before=[CREATED_SOCKET_DIR, CREATED_LOG_DIR])
        self.assertEqual(harness.attributes(SOCKET_DIR), folder(0o750), "socket folder")
        self.assertEqual(harness.attributes(LOG_DIR), folder(0o755), "log folder")
        self.assertEqual(harness.attributes(MARKER), regular_file(0o600), "migration marker")
        self.assertEqual(os.path.getsize(MARKER), 0, "the marker is empty")
        self.assertEqual(read_job_file(), job_before, "a job file without the old setting is kept")
        self.assert_job_process(self.running_server())

        later = self.velnor("idle")
        self.assertEqual((later.response, later.log), (0, []), "later housekeeping has nothing to do")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_stop_ends_idle_clients(self):
        """A stop ends the idle sessions and succeeds; a session idle inside a transaction is left
        alone, so the server, refusing new connections, runs on until that session leaves."""
        self.assert_started(self.velnor("start"))
        server = self.running_server()
        with harness.Client("idle-one") as one, harness.Client("idle-two") as two, \
                harness.Client("in-transaction") as busy:
            one.send("SELECT 1;")
            two.send("SELECT 1;")
            busy.send("BEGIN; SELECT 1;")
            idle = {one.wait_for_state("idle"), two.wait_for_state("idle")}
            in_transaction = busy.wait_for_state("idle in transaction")
            self.assertEqual(idle_titled(), idle, "only the two sessions sit idle")

            stop = self.velnor("stop")
            title = "postgres: _postgres postgres [local] idle"
            kills = [f'velnor_postgres: killing idle postgres process with signature "{title}", '
                     f"pid={pid}" for pid in idle]
            # The process table lists them in either order.
            if stop.log[:2] != kills:
                kills.reverse()
            self.assert_stopped(stop, before=kills)
            self.assertIn(f"  pid {in_transaction}  database postgres  user {ACCOUNT}  idle in transaction\n",
                          stop.stderr, "the stop names the client that holds the server")
            for pid in idle:
                harness.wait_until(lambda: not harness.process_alive(pid),
                                   f"the idle session's server process {pid} has ended")
            self.assertTrue(harness.process_alive(in_transaction),
                            "the session inside a transaction is not ended")
            self.assertTrue(harness.process_alive(server), "the server waits for that session")
            self.assertFalse(harness.answers(), "a server shutting down refuses new connections")
            state = self.velnor("status", "--details").response
            self.assertEqual((state["state"], state["postgresIsResponding"], state["PGserverVersion"]),
                             ("RUNNING", False, 0), "the job runs on while the probe fails")

            busy.send("COMMIT;")
            busy.close()
            self.wait_for_server_to_end()
        self.assert_state("STOPPED")

    @sandbox("--socket-dir", "--log-dir")
    def test_stop_times_out_while_a_server_started_by_hand_answers(self):
        """A server that an administrator started by hand on the service's socket keeps answering
        the probe, so a stop of the job times out; its idle sessions are not the job's to end."""
        by_hand = "/var/db/by-hand"
        os.makedirs(by_hand, mode=0o700)
        os.chown(by_hand, ACCOUNT_ID, ACCOUNT_ID)
        initdb = harness.as_account([f"{harness.PG_BIN}/initdb", "-U", ACCOUNT, "--auth=trust",
                                     "-D", by_hand], env={"LC_ALL": "C.UTF-8", "PATH": "/usr/bin:/bin"})
        self.assertEqual(initdb.returncode, 0, f"initdb: {initdb.stderr}")
        pg_ctl = harness.as_account([f"{harness.PG_BIN}/pg_ctl", "-D", by_hand, "-w", "-l",
                                     f"{by_hand}/server.log", "-o",
                                     # No autovacuum workers, which come and go on a fresh
                                     # server: the stop's scan would log each one it meets ending.
                                     f"-c listen_addresses= -c unix_socket_directories={SOCKET_DIR}"
                                     " -c autovacuum=off",
                                     "start"])
        self.assertEqual(pg_ctl.returncode, 0, f"pg_ctl start: {pg_ctl.stderr}")
        self.assert_state("STOPPED")

        with harness.Client("by-hand-idle") as client:
            client.send("SELECT 1;")
            idle = client.wait_for_state("idle")
            began = time.monotonic()
            answer = self.velnor("stop", status=1)
            took = time.monotonic() - began
            self.assertEqual(answer.response, {"error": "CANNOT_STOP_SERVICE_TIMEOUT_ERR"})
            self.assertEqual(answer.log, [WAITING_TO_STOP] * 4 + [STOP_TIMED_OUT], "log of the stop")
            self.assertGreaterEqual(took, 2.0, "the stop waited four half seconds")
            self.assertTrue(harness.process_alive(idle),
                            "an idle session of a server not run from /usr/bin/postgres is not ended")
        self.assertTrue(harness.answers(), "the server started by hand still answers")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_settings_change_restarts_server(self):
        """A settings change on a running server is stored in the job file and applied by a
        restart; on a stopped server it is only stored."""
        self.assert_started(self.velnor("start"))
        first = self.running_server()
        self.assertEqual(harness.psql("SHOW work_mem"), "4MB", "the server's default")

        answer = self.velnor("settings", "work_mem=12MB")
        self.assert_kinds(answer.response, {"configuration": dict, "writeStatus": int,
                                            "readStatus": int}, "settings write")
        expected = {setting.split("=")[0]: setting.split("=")[1] for setting in harness.DEFAULT_SETTINGS}
        expected["work_mem"] = "12MB"
        self.assertEqual(answer.response["configuration"], expected,
                         "the merged settings, without the data folder taken by position")
        self.assertEqual((answer.response["writeStatus"], answer.response["readStatus"]), (0, 0))
        self.assert_log(answer, [RESTARTING, Waits(WAITING_TO_STOP), Waits(WAITING_TO_RESPOND)],
                        "the settings change")
        self.assertEqual(harness.psql("SHOW work_mem"), "12MB", "the restarted server applies it")
        second = self.running_server()
        self.assertNotEqual(second, first, "a new server process")
        self.assert_job_process(second)

        job = read_job_file()
        self.assertEqual(job["ProgramArguments"],
                         harness.default_arguments(settings=sorted(
                             harness.DEFAULT_SETTINGS + ["work_mem=12MB"])),
                         "the job's arguments, settings in sorted order")
        self.assertEqual({key: job[key] for key in ("Label", "UserName", "GroupName")},
                         {"Label": "org.postgresql.postgres", "UserName": ACCOUNT, "GroupName": ACCOUNT},
                         "the job file's other keys are kept")

        read = self.velnor("settings").response
        self.assertEqual(read, {"configuration": {**expected, "dataDir": DATA_DIR}, "readStatus": 0},
                         "the settings read back, with the data folder")

        self.velnor("stop")
        self.wait_for_server_to_end()
        stopped = self.velnor("settings", "work_mem=16MB")
        self.assertEqual(stopped.log, [], "a stopped server is not restarted")
        self.assert_state("STOPPED")
        self.assertIn("work_mem=16MB", read_job_file()["ProgramArguments"])

    @sandbox()
    def test_initial_setup_on_fresh_system(self):
        """Initial setup writes the default arguments, creates and secures a data folder that it is
        given, and makes a job file when there is none."""
        job_before = read_job_file()
        answer = self.velnor("setup")
        self.assert_kinds(answer.response, {"command": str, "configuration": dict, "status": int},
                          "initial setup")
        self.assertEqual(answer.response, {"command": "initialSetup",
                                           "configuration": {"dataLocation": DATA_DIR}, "status": 0})
        self.assertEqual(answer.log, [], "no data location: nothing created, nothing logged")
        self.assertFalse(os.path.exists(DATA_DIR), "no data folder without a data location")
        self.assertEqual(read_job_file(), job_before, "the default job file is what setup writes")

        location = "/var/db/postgres"
        answer = self.velnor("setup", "--data-location", location)
        self.assertEqual(answer.response, {"command": "initialSetup",
                                           "configuration": {"dataLocation": location}, "status": 0})
        self.assertEqual(answer.log, [f"velnor_postgres: Created dataLocation folder {location}"])
        self.assertEqual(harness.attributes(location), folder(0o700), "the data folder")
        self.assertEqual(read_job_file()["ProgramArguments"], harness.default_arguments(location))

        again = self.velnor("setup", "--data-location", location)
        self.assertEqual(again.response["status"], 0, "setup on an existing folder succeeds")
        self.assertEqual(again.log, [f"velnor_postgres: Created dataLocation folder {location}"])

        initdb = harness.as_account([f"{harness.PG_BIN}/initdb", "-U", ACCOUNT, "--auth=trust",
                                     "-D", location], env={"LC_ALL": "C.UTF-8", "PATH": "/usr/bin:/bin"})
        self.assertEqual(initdb.returncode, 0, f"initdb: {initdb.stderr}")
        self.assert_started(self.velnor("start"), before=[CREATED_SOCKET_DIR, CREATED_LOG_DIR])
        self.assertIsNotNone(harness.postmaster(location), "the server runs on the new data folder")

        self.velnor("stop")
        harness.wait_until(lambda: harness.postmaster(location) is None, "the server has ended")
        os.remove(JOB_FILE)
        answer = self.velnor("setup")
        self.assertEqual(answer.response["status"], 0, "setup without a job file")
        self.assertEqual(read_job_file(), {"ProgramArguments": harness.default_arguments()},
                         "a missing job file is created holding just the arguments")

    @sandbox("--legacy-log-dir", "--binary-job-file", "--initdb", "--socket-dir")
    def test_log_directory_migration(self):
        """A job file holding log_directory=/Library/Logs is migrated once, by the call that
        creates the log folder, which then restarts the service."""
        job_before = read_job_file()
        self.assertEqual(self.velnor("log-path").response, {"log": "/Library/Logs/PostgreSQL.log"})

        answer = self.velnor("status", "--details", status=3)
        self.assertEqual((answer.response["state"], answer.response["postgresIsResponding"]),
                         ("STOPPED", True),
                         "the state from before the migration, the probe from after its restart")
        self.assert_log(answer, [CREATED_LOG_DIR, UPDATED_JOB_FILE, Waits(WAITING_TO_RESPOND)],
                        "the migration")

        migrated = dict(job_before)
        migrated["ProgramArguments"] = [
            "log_directory=/Library/Logs/PostgreSQL" if argument == "log_directory=/Library/Logs"
            else argument for argument in job_before["ProgramArguments"]]
        self.assertEqual(read_job_file(), migrated, "only the log directory changed, in place")
        self.assertEqual(job_file_format(), "binary", "the migrated job file keeps its format")
        self.assertEqual(harness.attributes(LOG_DIR), folder(0o755), "log folder")
        self.assertEqual(harness.attributes(MARKER), regular_file(0o600), "migration marker")
        server = self.running_server()
        self.assert_job_process(server)
        self.assertTrue(os.path.exists(LOG_FILE), "the server logs into the new folder")
        self.assertEqual(self.velnor("log-path").response, {"log": LOG_FILE})

        later = self.velnor("idle")
        self.assertEqual(later.log, [], "the migration runs once")
        self.assertEqual(harness.postmaster(), server, "no second restart")

        shutil.rmtree(LOG_DIR)
        recreated = self.velnor("idle")
        self.assertEqual(recreated.log, [CREATED_LOG_DIR],
                         "a lost log folder is created again, the marker stops a second migration")
        self.assertEqual(harness.postmaster(), server, "no restart once migrated")


if __name__ == "__main__":
    sys.exit(harness.scenario_main(Scenarios, __file__, __doc__))

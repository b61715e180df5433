#!/usr/bin/python3
"""Hostile input and interrupted writes: request files built to crash the host or to change what
it stores, job files holding every kind of value or arguments that cannot be read, and writes
killed at random moments."""

import datetime
import glob
import os
import plistlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import JOB_FILE, LOG_DIR, MARKER, UPDATED_JOB_FILE, sandbox  # noqa: E402

BAD_REQUEST = 65
TEMPORARIES = os.path.join(os.path.dirname(JOB_FILE), "." + os.path.basename(JOB_FILE) + ".*")
LEGACY_SETTING = "log_directory=/Library/Logs"
# Kills land within this many seconds of the start; the write comes about 25 ms in (on this
# machine), so they fall before, during and after it.
KILL_WINDOW = 0.05


def settings_request(settings):
    return {"configuration": settings}


def nested_arrays(depth):
    return ("<plist><dict><key>configuration</key>" + "<array>" * depth + "</array>" * depth
            + "</dict></plist>").encode()


def nested_list(depth):
    inner = []
    for _ in range(depth):
        inner = [inner]
    return inner


# Each row: what the file holds, and its bytes.
HOSTILE_REQUESTS = [
    ("a key holding a zero byte (UTF-16, which libplist keeps whole and then aborts on)",
     plistlib.dumps(settings_request({"port\x00\u00e9": "5433"}), fmt=plistlib.FMT_BINARY)),
    ("a string holding a zero byte (ASCII, which libplist cuts)",
     plistlib.dumps(settings_request({"port": "54\x0033"}), fmt=plistlib.FMT_BINARY)),
    ("arrays nested 25,000 deep, as XML", nested_arrays(25000)),
    ("arrays nested 900 deep, as a binary list (as deep as plistlib writes)",
     plistlib.dumps(settings_request(nested_list(900)), fmt=plistlib.FMT_BINARY)),
    ("a string holding U+0001",
     b"<plist><dict><key>configuration</key><dict><key>port</key><string>54&#1;33</string>"
     b"</dict></dict></plist>"),
    ("a string holding a carriage return",
     b"<plist><dict><key>configuration</key><dict><key>log_line_prefix</key>"
     b"<string>%t\r</string></dict></dict></plist>"),
]


def kill_at_random(command, latest):
    """Runs command and SIGKILLs it at a random moment within latest seconds (unless it ended)."""
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(random.uniform(0, latest))
    process.send_signal(signal.SIGKILL)
    process.wait()


def job_file_is_whole():
    try:
        return isinstance(harness.read_job_file().get("ProgramArguments"), list)
    except Exception:  # an empty, cut or garbled file: plistlib raises several kinds
        return False


def legacy_job():
    job = harness.read_job_file()
    job["ProgramArguments"] = [LEGACY_SETTING if argument.startswith("log_directory=") else argument
                               for argument in job["ProgramArguments"]]
    return job


def migrated(job):
    return {**job, "ProgramArguments": [
        "log_directory=/Library/Logs/PostgreSQL" if argument == LEGACY_SETTING else argument
        for argument in job["ProgramArguments"]]}


def write_binary_job_file(job):
    with open(JOB_FILE, "wb") as out:
        plistlib.dump(job, out, fmt=plistlib.FMT_BINARY)


def refusal(verb, reason):
    """The host library's message when it refuses to change the job file."""
    return f'could not {verb} "{JOB_FILE}": {reason}'


def prepare_migration(job):
    harness.write_job_file(job)
    shutil.rmtree(LOG_DIR, ignore_errors=True)
    if os.path.exists(MARKER):
        os.remove(MARKER)


def killed_writes(host, count, settings_writes):
    """Kills count settings writes (or migrations) at random moments; answers how many left the
    job file not whole, how many had written it all the same (kills that came before and after
    the write both happen), and how many temporary files stay once one more write has run."""
    velnor = [host.velnor, "--plugin", host.plugin]
    job = legacy_job()
    corrupt = written = 0
    for attempt in range(count):
        if settings_writes:
            expected = f"work_mem={attempt + 1}MB"
            kill_at_random([*velnor, "settings", expected], KILL_WINDOW)
        else:
            expected = "log_directory=/Library/Logs/PostgreSQL"
            prepare_migration(job)
            kill_at_random([*velnor, "idle"], KILL_WINDOW)
        if not job_file_is_whole():
            corrupt += 1
            harness.write_job_file(job)
        written += expected in harness.read_job_file()["ProgramArguments"]
    if settings_writes:
        host("settings", "work_mem=4MB")
    else:
        prepare_migration(job)
        host("idle")
    return corrupt, written, len(glob.glob(TEMPORARIES))


class InputAttacks(harness.ScenarioCase):
    @sandbox("--initdb")
    def test_hostile_request_files_are_refused(self):
        """Each hostile request file is refused with exit status 65 before the plug-in is called:
        nothing crashes, nothing is logged, the job file keeps every byte."""
        before = harness.job_file_bytes()
        for what, content in HOSTILE_REQUESTS:
            with self.subTest(what), tempfile.NamedTemporaryFile(suffix=".plist") as request:
                request.write(content)
                request.flush()
                answer = self.host("call", "writeSettingsWithRequest", request.name)
                self.assertEqual(answer.status, BAD_REQUEST, f"{what}: {answer}")
                self.assertIn(request.name, answer.stderr, f"{what}: the message names the file")
                self.assertEqual(answer.log, [], f"{what}: the plug-in is not called")
                self.assertEqual(harness.job_file_bytes(), before, f"{what}: the job file")

    @sandbox("--legacy-log-dir", "--initdb", "--socket-dir")
    def test_job_file_holding_every_kind_is_migrated(self):
        """A job file that also holds a real, a date and data is migrated like any other: only
        the log directory changes, every other value keeps its kind and exact value."""
        job = harness.read_job_file()
        job.update({"Ratio": 0.1, "Built": datetime.datetime(2024, 5, 6, 7, 8, 9),
                    "Blob": b"\x00\x01\xff", "Nested": {"Weights": [1.5, -0.0, 2]}})
        harness.write_job_file(job)

        answer = self.velnor("idle")
        self.assertIn(UPDATED_JOB_FILE, answer.log, "the migration ran")
        job["ProgramArguments"] = ["log_directory=/Library/Logs/PostgreSQL"
                                   if argument == LEGACY_SETTING else argument
                                   for argument in job["ProgramArguments"]]
        migrated = harness.read_job_file()
        self.assertEqual(migrated, job, "only the log directory changed")
        self.assertEqual([type(value) for value in migrated["Nested"]["Weights"]],
                         [float, float, int], "reals stay reals, integers integers")
        self.assertIn(b"<real>0.1</real>", harness.job_file_bytes(), "a real keeps its digits")

    @sandbox("--binary-job-file", "--initdb", "--socket-dir", "--log-dir")
    def test_job_file_holding_a_control_character_stays_readable(self):
        """A settings write keeps a binary job file binary, so that a control character in a key
        the plug-in never touches reaches every reader unchanged. An XML job file holding one is
        not well-formed already, and is left as it is, with the reason in the log."""
        job = harness.read_job_file()
        job["Comment"] = "bell\u0007here"
        write_binary_job_file(job)

        answer = self.velnor("settings", "work_mem=8MB")
        self.assertEqual(answer.response["configuration"]["work_mem"], "8MB")
        self.assertEqual(harness.job_file_format(), "binary", "binary stays binary")
        written = harness.read_job_file()
        self.assertIn("work_mem=8MB", written["ProgramArguments"])
        self.assertEqual({**written, "ProgramArguments": job["ProgramArguments"]}, job,
                         "every other value as it was")
        self.assertEqual(harness.job_file_as_libplist_reads_it(), written, "libplist reads the same")

        plain = {key: value for key, value in written.items() if key != "Comment"}
        with open(JOB_FILE, "wb") as out:
            out.write(plistlib.dumps(plain).replace(
                b"<dict>", b"<dict>\n\t<key>Comment</key>\n\t<string>bell&#7;here</string>", 1))
        before = harness.job_file_bytes()
        answer = self.velnor("settings", "work_mem=9MB")
        self.assertEqual(answer.response["configuration"]["work_mem"], "9MB", "the response as ever")
        self.assertEqual(harness.job_file_bytes(), before, "the XML job file is left as it was")
        self.assertIn(refusal("change the launch arguments in",
                              'the string under "Comment" holds U+0007, which an XML property list '
                              'cannot carry exactly'), answer.stderr)

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_arguments_holding_a_non_string_are_kept(self):
        """A job file whose argument vector holds an integer has no vector the plug-in can read;
        a settings write would compose one from nothing and lose the program. The library
        refuses to replace it, says why, and the file stays as it was."""
        job = harness.read_job_file()
        job["ProgramArguments"] = ["/usr/bin/postgres", "-D", "/d", "-c", "port=5433", 5]
        harness.write_job_file(job)
        before = harness.job_file_bytes()

        answer = self.velnor("settings", "A=1", "dataDir=/d")
        self.assertEqual(answer.response, {"configuration": {"A": "1", "dataDir": "/d"},
                                           "writeStatus": 0, "readStatus": 0}, "the response as ever")
        self.assertEqual(harness.job_file_bytes(), before, "the job file is left as it was")
        self.assertIn(refusal("change the launch arguments in",
                              "ProgramArguments is not an array of strings (element 5 is an "
                              "integer), and arguments composed without it would lose the program "
                              "and settings that it holds"), answer.stderr)

    @sandbox("--legacy-log-dir", "--initdb", "--socket-dir")
    def test_killed_writes_leave_the_job_file_whole(self):
        """Settings writes and migrations killed at random moments leave the job file whole, and
        no temporary file stays once the next write has run."""
        for settings_writes in (True, False):
            corrupt, _, temporaries = killed_writes(self.host, 15, settings_writes)
            what = "settings writes" if settings_writes else "migrations"
            self.assertEqual(corrupt, 0, f"{what}: job files left not whole")
            self.assertEqual(temporaries, 0, f"{what}: temporary files left")


if __name__ == "__main__":
    sys.exit(harness.scenario_main(InputAttacks, __file__, __doc__))

#!/usr/bin/python3
"""The host around each call, with the real plug-in: how a run ends and what it prints, where the
request comes from, and what the host lock and the job file look like whatever the caller's umask.

    host_scenarios.py --velnor PATH --plugin PATH [--bind DIR] NAME
    host_scenarios.py --list
"""

import os
import pathlib
import plistlib
import socket
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import ACCOUNT, CREATED_SOCKET_DIR, JOB_FILE, LOG_DIR, SOCKET_DIR, sandbox  # noqa: E402

RECORD = "/var/run/velnor/launchd/org.postgresql.postgres"
DETAILS = plistlib.dumps({"variant": "withDetails"})
STOPPED = '{\n  "state": "STOPPED"\n}\n'
# A module that loads but is no plug-in.
LIBC = next(line.split()[-1] for line in open("/proc/self/maps") if "/libc.so" in line)


class HostRuns(harness.ScenarioCase):
    def raw(self, *arguments, stdin=b"", stdout=subprocess.PIPE, umask=None, env=None):
        """velnor with the plug-in (unless arguments name one): exit status, output and errors."""
        plugin = [] if "--plugin" in arguments else ["--plugin", self.host.plugin]
        done = subprocess.run([self.host.velnor, *plugin, *arguments], input=stdin, stdout=stdout,
                              stderr=subprocess.PIPE, timeout=60, env={**os.environ, **(env or {})},
                              preexec_fn=None if umask is None else lambda: os.umask(umask))
        return done.returncode, (done.stdout or b"").decode(), done.stderr.decode()

    @sandbox()
    def test_each_way_a_run_ends_has_its_exit_status(self):
        """Usage, request and module faults stop the host before the lock and the plug-in; an
        answer, an error answer, a throw and an unwritable output each end in their own way."""
        scratch = tempfile.mkdtemp()
        missing, array, details = (os.path.join(scratch, name) for name in ("no", "array", "details"))
        pathlib.Path(array).write_bytes(plistlib.dumps(["x"]))
        pathlib.Path(details).write_bytes(DETAILS)
        job = harness.job_file_bytes()
        refused = [  # arguments, standard input, exit status, in standard error
            (["call", "noSuchOperation"], b"", 64, 'has no operation "noSuchOperation"\nusage: velnor'),
            (["call", "getStateWithRequest", missing], b"", 65, missing + '": No such file or directory'),
            (["call", "getStateWithRequest", array], b"", 65, array + '": it holds an array'),
            (["call", "getStateWithRequest", "-"], b'{"a": 1}', 65, 'could not read the request "standard input"'),
            (["--plugin", missing, "status"], b"", 69, f'could not load plug-in "{missing}"'),
            (["--plugin", LIBC, "status"], b"", 69, "VelnorPluginDescriptor"),
            (["call", "writeSettingsWithRequest", "-"], plistlib.dumps({"configuration": "port=5433"}),
             2, 'velnor: writeSettingsWithRequest ended without a response: '
                'velnor::postgres::RequestError: "configuration" must be a dictionary'),
        ]
        for arguments, stdin, status, error in refused:
            answer = self.raw(*arguments, stdin=stdin)
            self.assertEqual(answer[:2], (status, ""), f"{arguments}: {answer}")
            self.assertIn(error, answer[2], arguments)
            self.assertNotIn(harness.LOG_PREFIX, answer[2], f"{arguments}: the plug-in did nothing")
        self.assertFalse(os.path.exists(SOCKET_DIR), "no housekeeping ran")
        self.assertEqual(harness.job_file_bytes(), job, "the job file is as it was")

        # The log reaches standard error under the host's name and pid.
        idle = subprocess.Popen([self.host.velnor, "--plugin", self.host.plugin, "idle"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        out, err = idle.communicate(timeout=60)
        self.assertEqual((idle.returncode, out), (0, "0\n"), err)
        self.assertIn(f"velnor[{idle.pid}]: {CREATED_SOCKET_DIR}\n", err)

        with open("/dev/full", "wb") as full:
            answer = self.raw("status", stdout=full)
        self.assertEqual(answer, (74, "", "velnor: could not write the response to \"standard output\": No space left on device\n"))
        self.assertEqual(self.raw("--json", "call", "stopServiceWithVariant"), (0, "null\n", ""))
        self.assertEqual(self.raw("call", "stopServiceWithVariant"), (0, "", ""))
        xml = self.raw("call", "getStateWithRequest", details)[1]
        self.assertIn("<key>PGserverVersion</key>\n\t<integer>0</integer>", xml, "0 is no false")
        self.assertIn("<key>postgresIsResponding</key>\n\t<false/>", xml)

        # The request comes from a file or standard input when named, and never unasked.
        for source, stdin, detailed in ((details, b"", True), ("-", DETAILS, True), (None, DETAILS, False)):
            status, out, _ = self.raw("--json", "call", "getStateWithRequest",
                                      *([source] if source else []), stdin=stdin)
            self.assertEqual(status, 0)
            self.assertEqual("dataDir" in out, detailed, f"request from {source}: {out}")
            self.assertTrue(detailed or out == STOPPED, out)

        # A job whose program cannot run is refused at once, leaves no record and does not run.
        script = os.path.join(scratch, "script.sh")
        pathlib.Path(script).write_text("#!/bin/sh\n")
        job = harness.read_job_file()
        for program, reason in (("/nonexistent/program", 'could not execute "/nonexistent/program": No such file'),
                                (script, f'could not execute "{script}": Permission denied'),
                                ("velnor-no-such", 'could not find the program "velnor-no-such": it is in no folder of /usr/bin:')):
            harness.write_job_file({**job, "ProgramArguments": [program, *job["ProgramArguments"][1:]]})
            answer = self.velnor("start", status=1)
            self.assertEqual(answer.response, {"error": "CANNOT_START_SERVICE_ERR"}, program)
            self.assertIn(f'velnor: could not start job "org.postgresql.postgres": {reason}', answer.stderr)
            self.assertFalse(os.path.exists(RECORD), f"{program}: a record was left")
            self.assert_state("STOPPED")

        # A socket folder chosen by the caller is where the probe knocks.
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(os.path.join(scratch, ".s.PGSQL.5432"))
        listener.listen(8)
        listener.setblocking(False)
        self.raw("status", "--details", env={"PGHOST": scratch, "PGCONNECT_TIMEOUT": "2"})
        listener.accept()  # raises when nobody knocked

    @sandbox()
    def test_lock_and_job_file_keep_their_modes_whatever_the_umask(self):
        """Under umask 077 the lock, the folders and the job file get their own modes; a rewritten
        job file keeps its mode, group and key order."""
        job = harness.read_job_file()
        reordered = dict(reversed(list(job.items())))  # an order that no sorting writer keeps
        with open(JOB_FILE, "wb") as out:
            plistlib.dump(reordered, out, fmt=plistlib.FMT_BINARY, sort_keys=False)
        os.chown(JOB_FILE, 0, harness.ACCOUNT_ID)
        os.chmod(JOB_FILE, 0o640)
        inode = os.stat(JOB_FILE).st_ino

        status, _, err = self.raw("settings", "work_mem=8MB", umask=0o077)
        self.assertEqual(status, 0, err)
        self.assertEqual(harness.attributes(JOB_FILE), f"file 0640 root:{ACCOUNT}", "the job file")
        self.assertNotEqual(os.stat(JOB_FILE).st_ino, inode, "the job file is replaced whole")
        self.assertEqual(os.listdir(os.path.dirname(JOB_FILE)), [os.path.basename(JOB_FILE)])
        self.assertTrue(harness.job_file_bytes().startswith(b"<?xml"), "written as XML")
        rewritten = harness.read_job_file()
        self.assertEqual(list(rewritten), list(reordered), "the keys keep their order")
        self.assertIn("work_mem=8MB", rewritten.pop("ProgramArguments"))
        self.assertEqual(rewritten, {k: v for k, v in job.items() if k != "ProgramArguments"})
        for path, expected in ((SOCKET_DIR, harness.folder(0o750)), ("/Library", harness.folder(0o755)),
                               ("/Library/Logs", harness.folder(0o755)), (LOG_DIR, harness.folder(0o755))):
            self.assertEqual(harness.attributes(path), expected, path)

        os.remove(JOB_FILE)
        self.assertEqual(self.raw("setup", umask=0o077)[0], 0)
        self.assertEqual(harness.attributes(JOB_FILE), harness.regular_file(0o644, "root"),
                         "a new job file is readable by everyone")

    @sandbox()
    def test_nothing_is_made_where_something_else_stands(self):
        """A file in the way of a folder or of its parent is kept and named in one line, and the
        job file names the folder asked for all the same; a dangling link is not followed."""
        os.makedirs("/Library")
        for file in ("/srv/file", "/Library/Logs"):
            pathlib.Path(file).write_text("keep me")
        os.symlink("/srv/nowhere", "/srv/dangling")
        os.symlink("/srv/nowhere", SOCKET_DIR)
        kept = harness.attributes("/srv/file")
        for location, error in (("/srv/file", '"/srv/file": File exists'),
                                ("/srv/file/child/grandchild", '"/srv/file/child": Not a directory'),
                                ("/srv/dangling", '"/srv/dangling": File exists')):
            answer = self.velnor("setup", "--data-location", location, status=1)
            self.assertEqual(answer.response, {"error": "could not create folder " + error})
            self.assertEqual(answer.log, [f"velnor_postgres: Error trying to create dataLocation "
                                          f"folder {location}: could not create folder {error}"])
            self.assertEqual(harness.read_job_file()["ProgramArguments"],
                             harness.default_arguments(location), "the job file names the folder")
        self.assertEqual(harness.attributes("/srv/file"), kept, "the file keeps its owner and mode")
        self.assertEqual(self.velnor("idle").log[:2], [
            f'velnor_postgres: Error trying to create socket folder {SOCKET_DIR}: could not create folder "{SOCKET_DIR}": File exists',
            f'velnor_postgres: Error trying to create log folder {LOG_DIR}: could not create folder "{LOG_DIR}": Not a directory'])
        self.assertFalse(os.path.lexists("/srv/nowhere"), "a dangling link was followed")
        self.assertEqual([open(file).read() for file in ("/srv/file", "/Library/Logs")], ["keep me"] * 2)


if __name__ == "__main__":
    sys.exit(harness.scenario_main(HostRuns, __file__, __doc__))

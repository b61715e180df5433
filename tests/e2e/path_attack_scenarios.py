#!/usr/bin/python3
"""The service account turned against root's paths: each scenario plays a hostile _postgres inside
the sandbox, planting links, hard links and job files where the housekeeping and the set-up walk,
and checks that root's work never reaches past them."""

import os
import plistlib
import shutil
import subprocess
import sys

sys.dont_write_bytecode = True

import harness  # noqa: E402
from harness import ACCOUNT, DATA_DIR, LOG_DIR, MARKER, as_account, attributes, sandbox  # noqa: E402

LABEL = "org.postgresql.postgres"
PLANTED_JOB = f"/Library/LaunchDaemons/{LABEL}.plist"
RAN_AS = "/Library/ran-as"
RECORD = f"/var/run/velnor/launchd/{LABEL}"
DATA_LINK = "/Library/Data/pg"
# A file of root's that every account may write, as shared notes would be: the service account
# can hard-link it, so a root that writes through a planted link would damage it.
SHARED_FILE = "/var/local/shared-notes"
SHARED_TEXT = "root's notes\n"
# Root's job file kept with the data, behind a link, and another job file of root's.
KEPT_JOB = f"{DATA_DIR}/{LABEL}.plist"
OTHER_JOB = "/var/local/org.example.other.plist"

# How many set-ups face the racer, and how many idle ticks face the marker's racer: against a
# build that follows the links, the racers won most of them.
SETUP_ROUNDS = 40
RACER_STOP = "/var/empty-racer-stop"
MARKER_ROUNDS = 5

# The set-up's racer, as the service account: until the stop file appears, it turns each folder
# that root has just made at the data folder's place into a link to another file, and prints how
# often it did.
SWAPPER = """
import os, stat, sys
path, other, stop = sys.argv[1:]
swaps = 0
while not os.path.exists(stop):
    try:
        if stat.S_ISDIR(os.lstat(path).st_mode):
            os.rename(path, f"{path}.{swaps}")
            os.symlink(other, path)
            swaps += 1
    except OSError:
        pass
print(swaps)
"""

# The marker's racer, as the service account: a tick reads the job file once for the data
# folder, tests for the marker, then reads the job file again for the migration before it
# creates the marker. Told by inotify of that second read, the racer puts a hard link to
# another file in the marker's place, then says whether it came before the marker.
MARKER_LINKER = """
import ctypes, os, sys
job_file, marker, other = sys.argv[1:]
libc = ctypes.CDLL(None, use_errno=True)
IN_OPEN = 0x20
events = libc.inotify_init1(0)
if events < 0 or libc.inotify_add_watch(events, job_file.encode(), IN_OPEN) < 0:
    sys.exit("no inotify watch on the job file")
print("ready", flush=True)
opened = 0
while opened < 2:
    opened += len(os.read(events, 4096)) // 16  # events on a watched file carry no name
try:
    os.link(other, marker)
    print("linked")
except FileExistsError:
    print("late")
"""


def as_account_in_background(script, *arguments):
    return subprocess.Popen(["setpriv", f"--reuid={harness.ACCOUNT_ID}", f"--regid={harness.ACCOUNT_ID}",
                             "--init-groups", sys.executable, "-c", script, *arguments],
                            stdout=subprocess.PIPE, text=True)


def unchanged(path):
    """What must stay as it is about a file of root's: attributes, and contents for a file."""
    contents = None
    if os.path.isfile(path):
        with open(path, "rb") as file:
            contents = file.read()
    return repr(attributes(path)), contents


class PathAttacks(harness.ScenarioCase):

    def as_service_account(self, *command):
        done = as_account(list(command))
        self.assertEqual(done.returncode, 0, f"{command} as {ACCOUNT}: {done.stderr}")

    def library_of_the_service_account(self):
        """/Library as the housekeeping leaves it on a machine that had none: the service
        account's, as the parent of its log folder."""
        self.velnor("idle")
        self.assertEqual(attributes("/Library"), harness.folder(0o755), "/Library after the housekeeping")

    @sandbox("--no-job-file")
    def test_planted_job_and_linked_log_folder_stay_harmless(self):
        self.library_of_the_service_account()

        # A job file with no UserName beside the housekeeping's folders, and the log folder gone
        # so that the next tick migrates and restarts the job.
        job = {"Label": LABEL, "ProgramArguments": ["/bin/sh", "-c", f"id -u > {RAN_AS}"]}
        self.as_service_account("mkdir", "/Library/LaunchDaemons")
        self.as_service_account(sys.executable, "-c",
                                f"import plistlib; plistlib.dump({job!r}, open({PLANTED_JOB!r}, 'wb'))")
        self.as_service_account("rm", "-r", LOG_DIR)
        answer = self.host("idle")
        self.assertFalse(os.path.exists(RECORD), "the planted job was started")
        self.assertFalse(os.path.exists(RAN_AS), "the planted job ran")
        self.assertEqual(answer.status, 0, answer)
        self.assertIn(f'could not start job "{LABEL}": "/Library" is owned by an account other than root',
                      answer.stderr, "the refusal of the planted job")

        # The log folder's parent swapped for a link to /etc.
        self.as_service_account("rm", "-r", "/Library/Logs")
        self.as_service_account("ln", "-s", "/etc", "/Library/Logs")
        etc = unchanged("/etc")
        answer = self.host("idle")
        self.assertFalse(os.path.lexists("/etc/PostgreSQL"), "a log folder was made in /etc")
        self.assertEqual(unchanged("/etc"), etc, "/etc")
        self.assertIn(f"velnor_postgres: Error trying to create log folder {LOG_DIR}: "
                      f'could not create folder "{LOG_DIR}": cannot follow the symbolic link '
                      f'"/Library/Logs": "/Library" is owned by an account other than root',
                      answer.log, "the housekeeping says why it stops at the link")

    @sandbox()
    def test_setup_never_follows_a_planted_link(self):
        self.library_of_the_service_account()
        self.as_service_account("mkdir", "/Library/Data")

        # A link planted where the data folder is to be.
        self.as_service_account("ln", "-s", "/etc", DATA_LINK)
        etc = unchanged("/etc")
        answer = self.host("setup", "--data-location", DATA_LINK)
        self.assertEqual(unchanged("/etc"), etc, "/etc after a set-up through a link")
        self.assertEqual(answer.status, 1, answer)
        self.assertEqual(answer.response, {
            "error": f'could not create folder "{DATA_LINK}": cannot follow the symbolic link '
                     f'"{DATA_LINK}": "/Library/Data" is owned by an account other than root'})

        # A racer that swaps each freshly made data folder for a link to /etc/shadow.
        self.as_service_account("rm", DATA_LINK)
        shadow = unchanged("/etc/shadow")
        racer = as_account_in_background(SWAPPER, DATA_LINK, "/etc/shadow", RACER_STOP)
        for _ in range(SETUP_ROUNDS):
            self.host("setup", "--data-location", DATA_LINK)
            subprocess.run(["rm", "-rf", DATA_LINK])
        open(RACER_STOP, "w").close()
        swaps = int(racer.communicate(timeout=60)[0])
        self.assertGreater(swaps, 0, "the racer never found a data folder to swap")
        self.assertEqual(unchanged("/etc/shadow"), shadow, f"/etc/shadow after {swaps} swaps")

        # A link that root placed in a folder of its own is followed as ever.
        os.makedirs("/srv/pg")
        os.symlink("/srv/pg", DATA_DIR)
        self.velnor("setup", "--data-location", DATA_DIR)
        self.assertEqual(attributes("/srv/pg"), harness.folder(0o700), "the data folder behind root's link")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_job_file_never_reached_through_the_accounts_link(self):
        """Root keeps the job file with the data, behind a link; the service account swaps it
        for a link to another job file of root's. The settings write neither reads nor writes
        through that link, and says why."""
        shutil.copy(harness.JOB_FILE, KEPT_JOB)
        os.remove(harness.JOB_FILE)
        os.symlink(KEPT_JOB, harness.JOB_FILE)
        with open(OTHER_JOB, "wb") as other:
            plistlib.dump({"Label": "org.example.other", "ProgramArguments": ["/bin/true"]}, other)
        other = unchanged(OTHER_JOB)
        self.as_service_account("ln", "-sf", OTHER_JOB, KEPT_JOB)

        # With no arguments to read, the write names the data folder itself, after a setting.
        answer = self.velnor("settings", "DateStyle=ISO", f"dataDir={DATA_DIR}")
        self.assertEqual(unchanged(OTHER_JOB), other, "the other job file")
        self.assertIn(f'could not open "{harness.JOB_FILE}": cannot follow the symbolic link '
                      f'"{KEPT_JOB}": "{DATA_DIR}" is owned by an account other than root',
                      answer.stderr, "the refusal")
        self.assertEqual(os.readlink(KEPT_JOB), OTHER_JOB, "the account's link stays as it was")

    @sandbox("--initdb")
    def test_marker_never_written_through_a_hard_link(self):
        with open(SHARED_FILE, "w") as file:
            file.write(SHARED_TEXT)
        os.chmod(SHARED_FILE, 0o666)
        shared = unchanged(SHARED_FILE)
        links = 0
        for _ in range(MARKER_ROUNDS):
            # The log folder and the marker gone, so that the tick migrates and marks again.
            self.as_service_account("rm", "-rf", LOG_DIR, MARKER)
            linker = as_account_in_background(MARKER_LINKER, harness.JOB_FILE, MARKER, SHARED_FILE)
            self.assertEqual(linker.stdout.readline(), "ready\n", "the marker's racer is watching")
            self.velnor("idle")
            links += linker.communicate(timeout=60)[0] == "linked\n"
            self.assertEqual(unchanged(SHARED_FILE), shared, f"{SHARED_FILE} after a linked marker")
        self.assertGreater(links, 0, "the racer never linked the marker before the tick created it")


if __name__ == "__main__":
    sys.exit(harness.scenario_main(PathAttacks, __file__, __doc__))

#!/usr/bin/python3
"""The Debian package installed with apt-get in a sandbox: the service's tour through the
installed programs, the manual pages and the completion of the verbs."""

import os
import shutil
import subprocess
import sys

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import sandbox  # noqa: E402

VELNOR = "/usr/bin/velnor"
COMPLETE = ('source /usr/share/bash-completion/completions/velnor; complete -p velnor; '
            'COMP_WORDS=($WORDS); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _velnor; echo "${COMPREPLY[*]}"')


def run(command, **kwargs):
    done = subprocess.run(command, capture_output=True, text=True, timeout=300, cwd="/", **kwargs)
    return done.returncode, done.stdout, done.stderr


class InstalledPackage(harness.ScenarioCase):
    @sandbox("--initdb")
    def test_installed_package_tour(self):
        package = os.environ.get("VELNOR_PACKAGE", "")
        if not os.path.exists(package):
            harness.skip(f"no package at {package!r}: scripts/package builds it")
        status, out, err = run(["apt-get", "install", "-y", "-q", package],
                               env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
        self.assertEqual(status, 0, out + err)

        environment = {key: value for key, value in os.environ.items() if key != "VELNOR_PLUGIN"}
        tour = [  # arguments, exit status, output
            (["--version"], 0, "0.1\n"), (["status"], 3, "state: stopped\n"), (["start", "-q"], 0, ""),
            (["status"], 0, "state: running\n"), (["status", "--json"], 0, '{\n  "state": "RUNNING"\n}\n'),
            (["stop", "-q"], 0, ""), (None, 0, ""),
            (["status"], 3, "state: stopped\n"),
        ]
        for arguments, expected, text in tour:
            if arguments is None:
                self.wait_for_server_to_end()
                continue
            status, out, err = run([VELNOR, *arguments], env=environment)
            self.assertEqual((status, out), (expected, text), f"{arguments}: {err}")

        for page, path in (("velnor", "/usr/share/man/man1/velnor.1.gz"),
                           ("velnord", "/usr/share/man/man8/velnord.8.gz")):
            self.assertEqual(run(["man", "-w", page])[1], path + "\n")
        for words, completions in (("velnor st", "status start stop"),
                                   ("velnor status --d", "--details --direct"),
                                   ("velnor --json re", "restart")):
            status, out, err = run(["bash", "-c", COMPLETE], env={"WORDS": words})
            self.assertEqual(out, f"complete -F _velnor velnor\n{completions}\n", f"{words}: {err}")

    @sandbox()
    def test_installed_tree_runs_from_anywhere(self):
        # The README's commands, word for word, in a copy of the sources with no build folder:
        # nothing that another build did may help the install.
        source = "/tmp/velnor-postgres"
        shutil.copytree(harness.PROJECT, source, ignore=shutil.ignore_patterns(".git", "build*"))
        for command in ("cmake -S . -B build && cmake --build build -j2",
                        "cmake --install build --prefix /opt/velnor",
                        "cmake --build build --target install"):
            done = subprocess.run(["bash", "-c", command], capture_output=True, text=True, cwd=source)
            self.assertEqual(done.returncode, 0, f"{command}: {done.stdout[-4000:]}{done.stderr}")
        environment = {key: value for key, value in os.environ.items() if key != "VELNOR_PLUGIN"}
        for prefix in ("/opt/velnor", "/usr/local"):
            programs = [f"{prefix}/{path}" for path in
                        ["sbin/velnord", "libexec/velnor/velnor-direct", "lib/velnor/plugins/velnor_postgres.so"]]
            # The build folder's programs are the same files, run by root in these tests: no
            # element that means "here".
            for program in programs + [f"{source}/build/{path}" for path in ("sbin/velnord",
                                                                             "libexec/velnor/velnor-direct")]:
                dynamic = run(["readelf", "-d", program])[1]
                runpath = dynamic.split("Library runpath: [", 1)[1].split("]", 1)[0]
                self.assertNotIn("", runpath.split(":"), f"{program}: an empty runpath element")
            # The client needs no library; the in-process host it becomes loads the plug-in.
            self.assertIn("There is no dynamic section", run(["readelf", "-d", f"{prefix}/bin/velnor"])[1])
            done = subprocess.run([f"{prefix}/bin/velnor", "--version"], capture_output=True,
                                  text=True, cwd="/tmp", env=environment)
            self.assertEqual((done.returncode, done.stdout), (0, "0.1\n"), f"{prefix}: {done.stderr}")
            done = subprocess.run([f"{prefix}/bin/velnor", "status"], capture_output=True,
                                  text=True, cwd="/tmp", env=environment)
            self.assertEqual((done.returncode, done.stdout), (3, "state: stopped\n"), f"{prefix}: {done.stderr}")
        # Without its plug-in, the installed program never reaches into the build tree.
        os.remove("/opt/velnor/lib/velnor/plugins/velnor_postgres.so")
        done = subprocess.run(["/opt/velnor/bin/velnor", "status"], capture_output=True,
                              text=True, cwd="/tmp", env=environment)
        self.assertEqual(done.returncode, 69, done.stderr)
        self.assertIn("/opt/velnor/lib/velnor/plugins/velnor_postgres.so", done.stderr)
        # Nor does it without the in-process host, which it becomes when no daemon answers.
        os.remove("/opt/velnor/libexec/velnor/velnor-direct")
        done = subprocess.run(["/opt/velnor/bin/velnor", "status"], capture_output=True,
                              text=True, cwd="/tmp", env=environment)
        self.assertEqual(done.returncode, 69, done.stderr)
        self.assertIn('could not run the in-process host "/opt/velnor/libexec/velnor/velnor-direct"',
                      done.stderr)

if __name__ == "__main__":
    sys.exit(harness.scenario_main(InstalledPackage, __file__, __doc__))

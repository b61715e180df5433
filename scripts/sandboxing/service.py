"""The PostgreSQL service in the sandbox's root: its account, its server under /usr/bin, its job
file and, as the options ask, its folders and initialised data folder."""

import os
import plistlib
import shutil
import subprocess

from .layout import (ACCOUNT, ACCOUNT_ID, DATA_DIR, INITDB_BINARY, JOB_FILE, JOB_LABEL,
                     LEGACY_LOG_DIR, LOG_DIR, SERVER_BINARY, SOCKET_DIR)
from .processes import could_not, fail

# The account's lines in each account file, and the field that holds an id (0: none).
ACCOUNT_ENTRIES = (
    ("/etc/group", f"{ACCOUNT}:x:{ACCOUNT_ID}:", 3),
    ("/etc/gshadow", f"{ACCOUNT}:!::", 0),
    ("/etc/passwd",
     f"{ACCOUNT}:x:{ACCOUNT_ID}:{ACCOUNT_ID}:PostgreSQL Server:/var/empty:/usr/sbin/nologin", 3),
    ("/etc/shadow", f"{ACCOUNT}:*:::::::", 0),
)

LAUNCHER = """\
#!/bin/sh
# Runs the PostgreSQL 15 server with the job's arguments. The job file names the socket folder
# with unix_socket_directory=, which the server has called unix_socket_directories= since 9.3.
for argument do
    shift
    case $argument in
        unix_socket_directory=*) argument="unix_socket_directories=${argument#*=}" ;;
    esac
    set -- "$@" "$argument"
done
exec /usr/bin/postgres-15 "$@"
"""


def add_entry(root, file, line, id_field):
    """Appends line to the account file unless an entry of that name is there already; a
    different entry holding the account's id would make the sandbox lie about who owns what, so
    it is refused."""
    path = root + file
    try:
        with open(path, "rb") as entries:
            content = entries.read()
    except FileNotFoundError:
        return
    rows = [row.split(b":") for row in content.splitlines()]
    name = line.split(":")[0].encode()
    if any(row[0] == name for row in rows):
        return
    account_id = str(ACCOUNT_ID).encode()
    if id_field > 0 and any(len(row) >= id_field and row[id_field - 1] == account_id
                            for row in rows):
        fail(f"{file} already has an entry with id {ACCOUNT_ID}")
    with open(path, "ab") as entries:
        # A last line without its newline would swallow the entry.
        separator = b"\n" if content and not content.endswith(b"\n") else b""
        entries.write(separator + line.encode() + b"\n")


def install_account(root):
    for file, line, id_field in ACCOUNT_ENTRIES:
        add_entry(root, file, line, id_field)
    os.makedirs(root + "/var/empty", exist_ok=True)


def install_server(root):
    """Copies the server to /usr/bin, so that its processes are seen as started from an executable
    whose path begins with /usr/bin/postgres. It still finds /usr/share/postgresql/15 and
    /usr/lib/postgresql/15/lib: a path that does not lie in its build's bin folder makes it fall
    back to the folders it was built with. Beside it, the launcher that the job file names."""
    server = root + "/usr/bin/postgres-15"
    shutil.copyfile(SERVER_BINARY, server)
    os.chmod(server, 0o755)
    launcher = root + "/usr/bin/postgres"
    with open(launcher, "w") as out:
        out.write(LAUNCHER)
    os.chmod(launcher, 0o755)


def job(log_directory):
    """Returns the job that the job file holds, for the data folder /var/pgsql."""
    settings = [
        "listen_addresses=",
        "log_connections=on",
        f"log_directory={log_directory}",
        "log_filename=PostgreSQL.log",
        "log_lock_waits=on",
        "log_statement=ddl",
        "log_line_prefix=%t ",
        "logging_collector=on",
        f"unix_socket_directory={SOCKET_DIR}",
        f"unix_socket_group={ACCOUNT}",
        "unix_socket_permissions=0770",
    ]
    arguments = ["/usr/bin/postgres", "-D", DATA_DIR]
    for setting in settings:
        arguments += ["-c", setting]
    return {"Label": JOB_LABEL, "UserName": ACCOUNT, "GroupName": ACCOUNT,
            "ProgramArguments": arguments}


def write_job_file(root, options):
    if options.job_file_format == "none":
        return
    path = root + JOB_FILE
    os.makedirs(os.path.dirname(path), exist_ok=True)
    log_directory = LEGACY_LOG_DIR if options.legacy_log else LOG_DIR
    binary = options.job_file_format == "binary"
    with open(path, "wb") as out:
        plistlib.dump(job(log_directory), out,
                      fmt=plistlib.FMT_BINARY if binary else plistlib.FMT_XML)
    os.chmod(path, 0o644)


def make_folder(root, path, mode):
    """Creates a folder of the service with mode, owned by the account."""
    folder = root + path
    os.makedirs(os.path.dirname(folder), exist_ok=True)
    try:
        os.mkdir(folder)
    except OSError as error:
        fail(could_not("create folder", path, error))
    os.chmod(folder, mode)
    os.chown(folder, ACCOUNT_ID, ACCOUNT_ID)


def enter_as_account(root):
    """Returns what a child does before it runs a program inside the sandbox as the service
    account: the sandbox's root, the account's ids and no other groups."""

    def enter():
        os.chroot(root)
        os.chdir("/")
        os.setgroups([])
        os.setresgid(ACCOUNT_ID, ACCOUNT_ID, ACCOUNT_ID)
        os.setresuid(ACCOUNT_ID, ACCOUNT_ID, ACCOUNT_ID)

    return enter


def initialise_data_folder(root):
    """Runs initdb as the service account, with a plain environment; stops with its output when
    it fails."""
    done = subprocess.run([INITDB_BINARY, "-U", ACCOUNT, "--auth=trust", "-D", DATA_DIR],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          env={"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"},
                          preexec_fn=enter_as_account(root))
    if done.returncode != 0:
        output = done.stdout.decode(errors="replace").rstrip("\n")
        fail(f"initdb of {DATA_DIR} failed:\n{output}")


def make_folders(root, options):
    if options.make_socket_dir:
        make_folder(root, SOCKET_DIR, 0o750)
    if options.make_log_dir:
        make_folder(root, LOG_DIR, 0o755)
    if options.initdb:
        make_folder(root, DATA_DIR, 0o700)
        initialise_data_folder(root)

"""Where things are: the project, and the PostgreSQL service as the sandbox installs it."""

import os

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
SELF = os.path.join(PROJECT, "scripts", "sandbox")
# Debian's own interpreter, which scripts/setup installs: a python3 found first on PATH may be a
# slow shim or lack the standard library's plistlib.
PYTHON = "/usr/bin/python3"
# How each stage starts the next: isolated from PYTHON* settings and the user's site.
STAGE = (PYTHON, "-IS", SELF)

SERVER_BINARY = "/usr/lib/postgresql/15/bin/postgres"
INITDB_BINARY = "/usr/lib/postgresql/15/bin/initdb"
ACCOUNT = "_postgres"
ACCOUNT_ID = 216
JOB_FILE = "/System/Library/LaunchDaemons/org.postgresql.postgres.plist"
JOB_LABEL = "org.postgresql.postgres"
DATA_DIR = "/var/pgsql"
SOCKET_DIR = "/var/pgsql_socket"
LOG_DIR = "/Library/Logs/PostgreSQL"
LEGACY_LOG_DIR = "/Library/Logs"

SYSTEMD_BINARY = "/lib/systemd/systemd"
DBUS_DAEMON = "/usr/bin/dbus-daemon"
POLKITD = "/usr/lib/polkit-1/polkitd"
# velnord renames its control socket into place once it listens.
DAEMON_SOCKET = "/run/velnor/velnord.sock"


def logical_folder():
    """Returns the caller's folder as its shell names it: $PWD when that is the current folder
    (its links kept), else the physical path."""
    named = os.environ.get("PWD", "")
    try:
        if os.path.isabs(named) and os.path.samestat(os.stat(named), os.stat(".")):
            return named
    except OSError:
        pass
    return os.getcwd()


def environment_of_a_fresh_system():
    """Returns the caller's environment without its libpq settings: a fresh system has none."""
    return {name: value for name, value in os.environ.items() if not name.startswith("PG")}

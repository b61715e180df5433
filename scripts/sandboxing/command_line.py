"""The command line of scripts/sandbox, and its help."""

import argparse
import os

from . import layout
from .layout import ACCOUNT, ACCOUNT_ID
from .options import Options
from .processes import EXIT_REFUSED, EXIT_USAGE, PROGRAM, Stop

DESCRIPTION = f"""\
Runs COMMAND as root inside a throwaway copy-on-write view of this machine (root only, Linux)
with:
  - the account {ACCOUNT} (uid {ACCOUNT_ID}, gid {ACCOUNT_ID}, group {ACCOUNT});
  - /usr/bin/postgres-15, a copy of the PostgreSQL 15 server, and /usr/bin/postgres, a launcher
    that passes unix_socket_directory=... on as unix_socket_directories=...;
  - the job file {layout.JOB_FILE}
    (Label, UserName, GroupName, and ProgramArguments for the data folder {layout.DATA_DIR}).
There is no socket, log or data folder unless an option asks for one. The project folder
({layout.PROJECT}) is bound in at the same path, read-write; everything else is gone
when COMMAND ends."""

EPILOG = f"""\
Exit status: COMMAND's; 130 or 143 when the sandbox was interrupted or terminated;
{EXIT_USAGE} for bad usage; {EXIT_REFUSED} when this machine cannot run a sandbox (not root, no
overlayfs, no namespaces); 1 when the sandbox could not be built."""


class HelpFormatter(argparse.RawTextHelpFormatter):
    def add_usage(self, usage, actions, groups, prefix=None):
        super().add_usage(usage, actions, groups, "Usage: ")


class Parser(argparse.ArgumentParser):
    def error(self, message):
        """Stops with status 64 and a pointer to the help, for any usage error."""
        raise Stop(f"{message}\nTry '{PROGRAM} --help'.", EXIT_USAGE)


def folder_to_bind(path):
    """Returns the physical path of a folder to bind in; refuses anything else."""
    if not os.path.isdir(path):
        raise argparse.ArgumentTypeError(f"{path}: not a folder")
    return os.path.realpath(path)


def make_parser():
    parser = Parser(prog=PROGRAM, usage=f"{PROGRAM} [OPTIONS] [--] COMMAND [ARGUMENT ...]",
                    description=DESCRIPTION, epilog=EPILOG, formatter_class=HelpFormatter,
                    add_help=False, allow_abbrev=False)
    group = parser.add_argument_group("Options")
    add = group.add_argument
    add("--initdb", action="store_true",
        help=f"create {layout.DATA_DIR} (0700, {layout.ACCOUNT}) and initialise it as "
        f"{layout.ACCOUNT}\nwith initdb -U {layout.ACCOUNT} --auth=trust")
    add("--no-data", dest="initdb", action="store_false", help="no data folder (the default)")
    add("--socket-dir", dest="make_socket_dir", action="store_true",
        help=f"create {layout.SOCKET_DIR} (0750, {layout.ACCOUNT}:{layout.ACCOUNT})")
    add("--log-dir", dest="make_log_dir", action="store_true",
        help=f"create {layout.LOG_DIR} (0755, {layout.ACCOUNT}:{layout.ACCOUNT})")
    add("--legacy-log-dir", dest="legacy_log", action="store_true",
        help=f"the job file holds log_directory={layout.LEGACY_LOG_DIR}")
    add("--binary-job-file", dest="job_file_format", action="store_const", const="binary",
        help="write the job file as a binary property list instead of XML")
    add("--no-job-file", dest="job_file_format", action="store_const", const="none",
        help="write no job file")
    add("--bind", dest="binds", action="append", metavar="DIR", type=folder_to_bind,
        help="also bind DIR in at the same path, read-write (repeatable)")
    add("--systemd", action="store_true",
        help="boot systemd as the sandbox's first process and run COMMAND once it says\n"
        "it is running; it is shut down when COMMAND ends")
    add("--daemon", action="store_true",
        help=f"start $VELNORD (default {layout.PROJECT}/build/sbin/velnord) --foreground before\n"
        "COMMAND, with --idle-interval $VELNORD_IDLE_INTERVAL when set, its web\n"
        "console on $VELNORD_WEB_LISTEN (ADDR:PORT) when set and none otherwise,\n"
        "its metrics on $VELNORD_METRICS_LISTEN likewise,\n"
        "its log to the sandbox's file $VELNORD_LOG when set and to standard error\n"
        "otherwise, and run COMMAND once its control socket answers; with --systemd,\n"
        "as velnord.service, the unit as built beside it with that command line")
    add("-h", "--help", action="help", help="show this help")
    return parser


def split_command(arguments):
    """Returns the sandbox's options and the command: the command begins after "--" or at the
    first word that is not an option (nor the folder of --bind), and keeps every word after it."""
    index = 0
    while index < len(arguments):
        word = arguments[index]
        if word == "--":
            return arguments[:index], arguments[index + 1:]
        if not word.startswith("-"):
            return arguments[:index], arguments[index:]
        index += 2 if word == "--bind" else 1
    return arguments, []


def parse(arguments):
    """Returns the options of a command line; stops with status 64 on bad usage, and prints the
    help and exits 0 when asked for it."""
    words, command = split_command(arguments)
    parser = make_parser()
    parsed, unknown = parser.parse_known_args(words, namespace=Options())
    if unknown:
        parser.error(f"unknown option {unknown[0]}")
    if not command:
        parser.error("no command given")
    parsed.binds = parsed.binds or []
    parsed.command = command
    return parsed

"""What every stage shares: how the sandbox says why it stops, and how it finds, signals and
waits for processes."""

import enum
import os
import select
import signal
import sys

PROGRAM = "scripts/sandbox"

# Exit statuses of the sandbox itself; any other status is the command's.
EXIT_FAILED = 1
EXIT_USAGE = 64
EXIT_REFUSED = 77


class Stop(Exception):
    """The sandbox cannot go on: what to say and the status to exit with."""

    def __init__(self, words, status=EXIT_FAILED):
        super().__init__(words)
        self.words = words
        self.status = status


def fail(words):
    """Stops with status 1: the sandbox could not be built or run."""
    raise Stop(words)


def refuse(words):
    """Stops with status 77: this machine cannot run a sandbox."""
    raise Stop(words, EXIT_REFUSED)


def say(words):
    print(f"{PROGRAM}: {words}", file=sys.stderr, flush=True)


def could_not(verb, path, error):
    """Returns the words for a failed step on a path: could not VERB "path": reason."""
    return f'could not {verb} "{path}": {error.strerror or error}'


def run_stage(stage, arguments):
    """Returns the exit status of a stage, after saying why it stopped when it could not go on."""
    try:
        return stage(arguments)
    except Stop as stop:
        if stop.words:
            say(stop.words)
        return stop.status
    except OSError as error:
        say(could_not("run the sandbox", error.filename or "", error))
        return EXIT_FAILED


def exit_status(code):
    """Returns the status a shell reports for a child that ended with code (an exit status, or
    minus the signal that ended it, as subprocess and os.waitstatus_to_exitcode give it): its exit
    status, or 128 + the signal."""
    return 128 - code if code < 0 else code


def child_of(parent):
    """Returns the pid of the first child of parent, or None: of unshare, it is the first process
    of the new PID namespace."""
    try:
        with open(f"/proc/{parent}/task/{parent}/children") as children:
            pids = children.read().split()
    except OSError:
        return None
    return int(pids[0]) if pids else None


def command_name(pid):
    """Returns the name the kernel shows for a process (its comm), or None once it has gone."""
    try:
        with open(f"/proc/{pid}/comm") as comm:
            return comm.read().strip()
    except OSError:
        return None


def takes(pid, number):
    """Whether process pid takes signal number: has a handler for it, or blocks it to read it
    from a signalfd, as systemd does (False once it has gone)."""
    mask = 0
    try:
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                if line.startswith(("SigCgt:", "SigBlk:")):
                    mask |= int(line.split()[1], 16)
    except OSError:
        return False
    return bool(mask >> (number - 1) & 1)


def open_child(parent, pid):
    """Returns a pidfd of pid while it is still parent's child, or None. Through the descriptor a
    signal can never reach another process that was given the same pid in between."""
    try:
        pidfd = os.pidfd_open(pid)
    except OSError:
        return None
    if child_of(parent) != pid:
        os.close(pidfd)
        return None
    return pidfd


def send(pidfd, number):
    """Sends signal number through a pidfd; a process that has ended meanwhile is left alone."""
    try:
        signal.pidfd_send_signal(pidfd, number)
    except ProcessLookupError:
        pass


class Outcome(enum.Enum):
    ENDED = "the process ended"
    TIMED_OUT = "the time ran out"


class Interrupted(Exception):
    """A signal that ends the whole sandbox; status is what the sandbox exits with."""

    def __init__(self, number):
        super().__init__(signal.Signals(number).name)
        self.status = 128 + number


class Child:
    """A process this stage started, with a pidfd to wait for its end beside other events."""

    def __init__(self, popen):
        self.popen = popen
        self.pid = popen.pid
        # Opened before anything can reap it, so the pid is still this child's.
        self.pidfd = os.pidfd_open(popen.pid)

    def running(self):
        return self.popen.poll() is None

    def status(self):
        """Returns the status the child ended with, once it has ended (see exit_status)."""
        return exit_status(self.popen.wait())


# The signals that end the whole sandbox, taken as events by Interrupts.wait.
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Interrupts:
    """Turns SIGINT, SIGTERM and SIGHUP into events: the handlers only note the signal in a pipe,
    and every wait of the outer stage also watches that pipe, so an interrupt is acted on at one
    place, whatever the stage was doing when it came. A signal ignored on entry stays ignored, as
    it would in a shell script."""

    def __init__(self):
        self.read_end, write_end = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        signal.set_wakeup_fd(write_end)
        for number in ENDING_SIGNALS:
            if signal.getsignal(number) is not signal.SIG_IGN:
                signal.signal(number, lambda number, frame: None)

    def ignore(self):
        """Ignores the ending signals from now on: the sandbox is being ended already."""
        for number in ENDING_SIGNALS:
            signal.signal(number, signal.SIG_IGN)

    def check(self):
        """Raises Interrupted when an ending signal has come."""
        try:
            noted = os.read(self.read_end, 64)
        except BlockingIOError:
            return
        for number in noted:
            if number in ENDING_SIGNALS:
                raise Interrupted(number)

    def wait(self, child, seconds=None):
        """Returns ENDED once child has ended, TIMED_OUT after seconds (None: never); raises
        Interrupted when an ending signal comes first."""
        poller = select.poll()
        poller.register(self.read_end, select.POLLIN)
        poller.register(child.pidfd, select.POLLIN)
        while True:
            self.check()
            ready = poller.poll(None if seconds is None else seconds * 1000)
            self.check()
            if any(fd == child.pidfd for fd, _ in ready):
                return Outcome.ENDED
            if not ready:
                return Outcome.TIMED_OUT


def wait_quietly(child, seconds):
    """Returns ENDED once child has ended or TIMED_OUT after seconds, whatever signals come."""
    poller = select.poll()
    poller.register(child.pidfd, select.POLLIN)
    return Outcome.ENDED if poller.poll(seconds * 1000) else Outcome.TIMED_OUT

#!/usr/bin/python3
"""What the daemon buys, measured inside a sandbox with the server stopped, printed as a table.

Run by hand, as root: build/bench/daemon-benchmark [--runs 200] (the launcher that the build
writes starts the sandbox and this script inside it). Nothing is asserted: the figures are
printed beside their targets.

- velnor status through velnord, direct velnor status and pg_ctl status, whole processes
  (median and p90), beside the floors: /bin/true, the --floor programs (a static C and a C++
  hello) and the bare round trip that velnor status rides on (a static C client that connects,
  sends a request and prints the answer, and a one-thread C server that answers at once), all
  timed by bench/startup/spawn_timer, the kinds taking turns;
- the idle tick in the settled state: the system calls of one tick (strace on the daemon), and
  the processor time per tick of a velnord that ticks every few milliseconds (its threads'
  schedstat) beside the same system calls made bare in one C process (bench/idle/bare_tick.c);
- many clients sending state reports at once: every reply arrives, in order, with the latency's
  p50 and p99;
- many mixed operations through the socket: velnord's resident memory and descriptors before
  and after;
- a scrape of the metrics endpoint: velnord's processor time per scrape (median and p90),
  beside the same listener answering a path it does not serve.
- root's velnor status alone, and while another account holds 200 idle connections open.
"""

import argparse
import http.client
import os
import plistlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

SOCKET = "/run/velnor/velnord.sock"
ROUND_TRIP_SOCKET = "/run/velnor-round-trip.sock"
HOST_LOCK = "/var/run/velnor/host.lock"
PG_CTL = "/usr/lib/postgresql/15/bin/pg_ctl"
DATA_DIR = "/var/pgsql"
ACCOUNT_ID = 216
VERSION = 1


def quantile(samples, fraction):
    ordered = sorted(samples)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def milliseconds(seconds):
    return f"{seconds * 1000:.2f} ms"


def frame(message):
    body = plistlib.dumps(message, fmt=plistlib.FMT_BINARY)
    return struct.pack(">I", len(body)) + body


def read_exactly(connection, size):
    data = b""
    while len(data) < size:
        chunk = connection.recv(size - len(data))
        if not chunk:
            return None
        data += chunk
    return data


def read_frame(connection):
    prefix = read_exactly(connection, 4)
    return plistlib.loads(read_exactly(connection, struct.unpack(">I", prefix)[0])) if prefix else None


def outcome_of(connection, request):
    """Sends one request and answers the reply that ends it (logs skipped)."""
    connection.sendall(frame(request))
    while True:
        reply = read_frame(connection)
        if reply is None or reply["kind"] != "log":
            return reply


def connect():
    client = socket.socket(socket.AF_UNIX)
    client.connect(SOCKET)
    return client


class Daemon:
    def __init__(self, velnord, plugin, interval, metrics=None):
        self.log = tempfile.TemporaryFile("w+")
        listen = ["--metrics-listen", metrics] if metrics else ["--no-metrics"]
        self.process = subprocess.Popen([velnord, "--plugin", plugin, "--foreground", "--no-web",
                                         *listen, "--idle-interval", str(interval)], stderr=self.log)
        while not os.path.exists(SOCKET):
            if self.process.poll() is not None:
                sys.exit("velnord ended before it served")
            time.sleep(0.01)

    def resources(self):
        with open(f"/proc/{self.process.pid}/status") as status:
            rss = int(re.search(r"VmRSS:\s+(\d+) kB", status.read()).group(1))
        return rss, len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def processor_time(self):
        """The nanoseconds each of its threads has run, by name, and how often its worker has been
        woken."""
        ran, worker_wakes = {}, 0
        for task in os.listdir(f"/proc/{self.process.pid}/task"):
            with open(f"/proc/{self.process.pid}/task/{task}/schedstat") as schedstat:
                nanoseconds, _, wakes = (int(field) for field in schedstat.read().split())
            with open(f"/proc/{self.process.pid}/task/{task}/comm") as comm:
                name = comm.read().strip()
            if name == "velnord worker":
                worker_wakes = wakes
            ran[name] = ran.get(name, 0) + nanoseconds
        return ran, worker_wakes

    def stop(self):
        """Ends the daemon and answers the line in which it counted what it ran."""
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(timeout=30)
        self.log.seek(0)
        counts = [line for line in self.log.read().splitlines() if "idle ticks" in line]
        return counts[-1] if counts else "no count logged"


class Table:
    def __init__(self):
        self.rows = []

    def add(self, what, figure, target=""):
        self.rows.append((what, figure, target))

    def print(self):
        widths = [max(len(row[column]) for row in self.rows) for column in range(3)]
        for row in [("measure", "figure", "target"), tuple("-" * width for width in widths), *self.rows]:
            print("| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |")


def status_runs(arguments, table):
    commands = {
        "daemon": [arguments.velnor, "--plugin", arguments.plugin, "status"],
        "direct": [arguments.velnor, "--direct", "--plugin", arguments.plugin, "status"],
        "pg_ctl": [PG_CTL, "status", "-D", DATA_DIR],
        # What starting a process alone costs here, and a program of each kind.
        "round trip": [arguments.round_trip_client, ROUND_TRIP_SOCKET],
        "/bin/true": ["/bin/true"],
        **{os.path.basename(program): [program] for program in arguments.floor},
    }
    # pg_ctl refuses root: it runs as the service account. It answers 3 for a stopped server, as
    # velnor status does.
    accounts = {"pg_ctl": str(ACCOUNT_ID)}
    expected = {"pg_ctl": 3, "daemon": 3, "direct": 3, "round trip": 3}
    daemon = Daemon(arguments.velnord, arguments.plugin, 10)
    server = subprocess.Popen([arguments.round_trip_server, ROUND_TRIP_SOCKET])
    while not os.path.exists(ROUND_TRIP_SOCKET):
        time.sleep(0.01)
    timer = [arguments.timer, str(arguments.runs)]
    for name, command in commands.items():
        timer += [name.replace(" ", "_"), accounts.get(name, "-"), *command, "--"]
    # Kinds take turns, round after round, timed by a C program: see bench/startup/spawn_timer.c.
    measured = subprocess.run(timer[:-1], capture_output=True, text=True, check=True).stdout
    daemon.stop()
    server.kill()
    server.wait()
    os.unlink(ROUND_TRIP_SOCKET)
    medians = {}
    for line, name in zip(measured.splitlines(), commands):
        median, p90, status = line.split()[1:]
        if int(status) != expected.get(name, 0):
            sys.exit(f"{' '.join(commands[name])} exited {status}")
        medians[name] = float(median)
        label = f"{name} status" if name in ("daemon", "direct", "pg_ctl") else name
        table.add(f"{label}, {arguments.runs} runs, whole process", f"median {median} ms, p90 {p90} ms")
    for name, target in [("daemon", "<= 0.5"), ("direct", "<= 1.5")]:
        table.add(f"{name} / pg_ctl (medians)", f"{medians[name] / medians['pg_ctl']:.2f}", target)
    table.add("daemon status / bare round trip (medians)",
              f"{medians['daemon'] / medians['round trip']:.2f}", "<= 1.3")
    client_share(arguments, table)


def client_share(arguments, table):
    """velnor's own share of the round trip: velnor status and the bare client, each against the
    bare server, which listens on velnord's socket for this pass."""
    server = subprocess.Popen([arguments.round_trip_server, SOCKET])
    while not os.path.exists(SOCKET):
        time.sleep(0.01)
    timer = [arguments.timer, str(arguments.runs),
             "velnor", "-", arguments.velnor, "--plugin", arguments.plugin, "status", "--",
             "round_trip", "-", arguments.round_trip_client, SOCKET]
    measured = subprocess.run(timer, capture_output=True, text=True, check=True).stdout
    server.kill()
    server.wait()
    os.unlink(SOCKET)
    medians = [float(line.split()[1]) for line in measured.splitlines()]
    table.add("  velnor status / bare client, both against the bare server",
              f"{medians[0] / medians[1]:.2f} (medians {medians[0]:.3f} and {medians[1]:.3f} ms)")


# Run as another account: opens COUNT connections to the socket and sends nothing; a connection
# that the daemon ends at its frame deadline is opened again, so that COUNT stay asked for
# throughout. Prints "open" once all have been asked for.
IDLE_CONNECTIONS = r"""
import select, socket, sys
def opened():
    connection = socket.socket(socket.AF_UNIX)
    connection.connect(sys.argv[1])
    return connection
connections = [opened() for _ in range(int(sys.argv[2]))]
print("open", flush=True)
while connections:
    ready, _, _ = select.select(connections, [], [])
    for connection in ready:
        data = connection.recv(4096)
        connections.remove(connection)
        connection.close()
        if b"try again later" not in data:
            connections.append(opened())
"""


def root_beside_idle_connections(arguments, table):
    """root's velnor status, whole processes, alone and with 200 idle connections of another
    account open: root's own allowance of connections is no one else's."""
    daemon = Daemon(arguments.velnord, arguments.plugin, 10)
    status = [arguments.velnor, "--plugin", arguments.plugin, "status"]

    def timed(label):
        measured = subprocess.run([arguments.timer, str(arguments.runs), "status", "-", *status],
                                  capture_output=True, text=True, check=True).stdout
        median, p90, _ = measured.split()[1:]
        table.add(f"root's status, {arguments.runs} runs, {label}", f"median {median} ms, p90 {p90} ms")
        return float(median)

    alone = timed("no other account connected")
    hog = subprocess.Popen(["setpriv", f"--reuid={ACCOUNT_ID}", f"--regid={ACCOUNT_ID}", "--clear-groups",
                            sys.executable, "-c", IDLE_CONNECTIONS, SOCKET, "200"],
                           stdout=subprocess.PIPE, text=True)
    hog.stdout.readline()
    beside = timed("200 idle connections of another account open")
    hog.kill()
    hog.wait()
    daemon.stop()
    table.add("  root's status delayed by the idle connections (medians)", f"{beside - alone:+.2f} ms",
              "a few ms at most")


def traced_tick(arguments, table):
    """The system calls of one settled tick, by thread (strace on a serving velnord); answers the
    folders that the tick tests."""
    daemon = Daemon(arguments.velnord, arguments.plugin, 0.25)
    time.sleep(0.5)
    traced = subprocess.Popen(["strace", "-f", "-qq", "-p", str(daemon.process.pid), "-e", "signal=none"],
                              stderr=subprocess.PIPE, text=True)
    time.sleep(1.2)
    traced.send_signal(signal.SIGINT)
    traced_lines = [re.match(r"^(?:\[pid\s+(\d+)\] )?(.*)$", line).groups()
                    for line in traced.communicate()[1].splitlines()]
    daemon.stop()
    # The worker is the thread that tests the folders.
    worker = next((thread for thread, call in traced_lines if call.startswith("openat2(")), None)
    folders = []
    for thread, call in traced_lines:
        found = re.match(r'openat2\(AT_FDCWD, "([^"]+)"', call)
        if thread == worker and found and found.group(1) not in folders:
            folders.append(found.group(1))
    # Each call by its name and first two arguments, from the worker's first lock to its release.
    # A call that another thread's interrupted shows whole, and its resumption not at all.
    calls = [call.replace(" <unfinished ...>", "") for thread, call in traced_lines
             if thread == worker and not call.startswith("<...")]
    begin = next((index for index, call in enumerate(calls) if call.startswith("flock(")), 0)
    end = next((index for index in range(begin + 1, len(calls)) if calls[index].startswith("flock(")), begin)
    tick = [re.sub(r"^(\w+\([^,)]*(?:, [^,)]*)?).*$", r"\1)", line) for line in calls[begin:end + 1]]
    tests = sum(1 for line in tick if re.match(r"open\w*\(AT_FDCWD", line))
    table.add("idle tick, existence tests in one tick (strace)", f"{tests} ({len(tick)} calls: {'; '.join(tick)})",
              "2")
    return folders


def idle_tick(arguments, table):
    folders = traced_tick(arguments, table)
    interval = arguments.tick_interval / 1000
    daemon = Daemon(arguments.velnord, arguments.plugin, interval)
    time.sleep(0.5)
    ran_before, wakes_before = daemon.processor_time()
    began = time.perf_counter()
    time.sleep(arguments.ticks * interval)
    ran_after, wakes_after = daemon.processor_time()
    elapsed = time.perf_counter() - began
    daemon.stop()
    # The worker is woken once per tick and by nothing else in the settled state.
    ticks = max(1, wakes_after - wakes_before)
    spent = {name: ran_after[name] - ran_before.get(name, 0) for name in ran_after}
    per_tick = sum(spent.values()) / ticks
    table.add(f"idle tick, velnord every {arguments.tick_interval} ms: processor time per tick",
              f"{per_tick / 1000:.2f} us ({ticks} ticks seen, {elapsed / interval:.0f} intervals)")
    table.add("  of which each thread", ", ".join(f"{name} {nanoseconds / ticks / 1000:.2f} us"
                                                  for name, nanoseconds in sorted(spent.items())))
    bare = subprocess.run([arguments.bare_tick, str(int(interval * 1e6)), str(arguments.ticks), HOST_LOCK, *folders],
                          capture_output=True, text=True, check=True).stdout
    timed, back_to_back = (float(value) for value in re.findall(r"_ns (\d+)", bare))
    table.add("  the same system calls bare in C, woken by a timer", f"{timed / 1000:.2f} us per tick")
    table.add("  the same system calls bare in C, back to back", f"{back_to_back / 1000:.2f} us per tick")
    table.add("idle tick / bare, woken by a timer", f"{per_tick / timed:.2f}", "<= 1.3")
    table.add("idle tick / bare, back to back", f"{per_tick / back_to_back:.2f}")


def concurrent_clients(arguments, table):
    daemon = Daemon(arguments.velnord, arguments.plugin, 10)
    latencies, failures = [], []
    lock = threading.Lock()

    def client(number):
        mine = []
        with connect() as connection:
            for index in range(arguments.reports):
                began = time.perf_counter()
                reply = outcome_of(connection, {"version": VERSION, "operation": "getStateWithRequest",
                                                "request": {}})
                mine.append(time.perf_counter() - began)
                if reply != {"kind": "outcome", "answered": True, "response": {"state": "STOPPED"}}:
                    failures.append(f"client {number}, report {index}: {reply}")
        with lock:
            latencies.extend(mine)

    threads = [threading.Thread(target=client, args=(number,)) for number in range(arguments.clients)]
    began = time.perf_counter()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    took = time.perf_counter() - began
    counts = daemon.stop()
    expected = arguments.clients * arguments.reports
    table.add(f"{arguments.clients} clients x {arguments.reports} state reports: replies",
              f"{len(latencies)} of {expected}, {len(failures)} wrong or out of order", "all, in order")
    table.add("  latency per report", f"p50 {milliseconds(quantile(latencies, 0.5))}, "
              f"p99 {milliseconds(quantile(latencies, 0.99))}; {expected / took:.0f} reports/s")
    table.add("  velnord's own count", re.sub(r"^.*?ran ", "ran ", counts))
    for failure in failures[:5]:
        print(failure, file=sys.stderr)


MIXED = [
    {"version": VERSION, "operation": "getStateWithRequest", "request": {}},
    {"version": VERSION, "operation": "getStateWithRequest", "request": {"variant": "withDetails"}},
    {"version": VERSION, "operation": "readSettingsWithRequest", "request": {}},
    {"version": VERSION, "operation": "getLogPathsWithRequest", "request": {}},
    {"version": VERSION, "operation": "doIdleAtCount", "count": 7},
    {"version": VERSION, "operation": "getStateWithRequest", "describe": True},
    {"version": VERSION, "operation": "noSuchOperation"},
]


def mixed_operations(arguments, table):
    daemon = Daemon(arguments.velnord, arguments.plugin, 10)

    def run(count):
        connection = connect()
        for index in range(count):
            if index % 50 == 49:
                # A malformed frame: an error, and the daemon closes the connection.
                connection.sendall(struct.pack(">I", 5) + b"hello")
                read_frame(connection)
                connection.close()
                connection = connect()
            elif index % 100 == 99:
                # A client that goes mid-operation.
                connection.sendall(frame(MIXED[1]))
                connection.close()
                connection = connect()
            else:
                outcome_of(connection, MIXED[index % len(MIXED)])
        connection.close()

    # Warm: libpq loaded, the allocator's arenas in use.
    run(200)
    time.sleep(0.2)
    before = daemon.resources()
    run(arguments.mixed)
    time.sleep(0.2)
    after = daemon.resources()
    daemon.stop()
    table.add(f"{arguments.mixed} mixed operations: velnord's RSS",
              f"{before[0]} kB -> {after[0]} kB ({after[0] - before[0]:+d} kB)", "growth < 1024 kB")
    table.add("  velnord's open descriptors", f"{before[1]} -> {after[1]}", "equal")


def scrape_cost(arguments, table):
    """velnord's processor time (all its threads) across one scrape, scrape after scrape on one
    connection, beside the same request for a path the endpoint does not serve: the HTTP
    library's own share."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    daemon = Daemon(arguments.velnord, arguments.plugin, 10, f"127.0.0.1:{port}")
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    # Every family filled in: the figures of a service that has been called.
    subprocess.run([arguments.velnor, "status", "--details"], capture_output=True)

    def cost(path):
        samples = []
        for _ in range(arguments.scrapes):
            before = sum(daemon.processor_time()[0].values())
            connection.request("GET", path)
            connection.getresponse().read()
            samples.append(sum(daemon.processor_time()[0].values()) - before)
        samples.sort()
        return samples

    cost("/metrics")  # warm-up
    scrapes, floors = cost("/metrics"), cost("/none")
    connection.request("GET", "/metrics")
    size = len(connection.getresponse().read())
    connection.close()
    daemon.stop()
    table.add(f"metrics scrape ({size} bytes), velnord's processor time",
              f"median {quantile(scrapes, 0.5) / 1000:.0f} us, p90 {quantile(scrapes, 0.9) / 1000:.0f} us",
              "<= 300 us")
    table.add("  floor: the same listener answering 404",
              f"median {quantile(floors, 0.5) / 1000:.0f} us, p90 {quantile(floors, 0.9) / 1000:.0f} us")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--velnor", required=True)
    parser.add_argument("--velnord", required=True)
    parser.add_argument("--plugin", required=True)
    parser.add_argument("--timer", required=True, help="bench/startup/spawn_timer, built")
    parser.add_argument("--floor", action="append", default=[],
                        help="a program whose start-up is measured beside the others")
    parser.add_argument("--runs", type=int, default=200)
    parser.add_argument("--round-trip-client", required=True, help="bench/floor/round_trip_client.c, built")
    parser.add_argument("--round-trip-server", required=True, help="bench/floor/round_trip_server.c, built")
    parser.add_argument("--bare-tick", required=True, help="bench/idle/bare_tick.c, built")
    parser.add_argument("--ticks", type=int, default=2000)
    parser.add_argument("--tick-interval", type=float, default=2, help="milliseconds between ticks")
    parser.add_argument("--clients", type=int, default=50)
    parser.add_argument("--reports", type=int, default=100)
    parser.add_argument("--mixed", type=int, default=10000)
    parser.add_argument("--scrapes", type=int, default=500)
    parser.add_argument("--status-only", action="store_true",
                        help="measure the status runs and their floor alone")
    arguments = parser.parse_args()
    if os.path.exists(SOCKET):
        sys.exit("a velnord runs already: the benchmark starts its own")
    table = Table()
    status_runs(arguments, table)
    if not arguments.status_only:
        root_beside_idle_connections(arguments, table)
        idle_tick(arguments, table)
        concurrent_clients(arguments, table)
        mixed_operations(arguments, table)
        scrape_cost(arguments, table)
    table.print()


if __name__ == "__main__":
    main()

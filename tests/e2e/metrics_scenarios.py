#!/usr/bin/python3
"""velnord's metrics endpoint: what promtool makes of a scrape, a real Prometheus server that
follows the service through a start, a settings change's restart, a stop and a server killed
behind its back, a scrape that answers while a start waits for the server, the ledger's count
of a start at load and of a kill that velnord makes on time at a stop's deadline, and the restart
ledger kept across a restart of the daemon, or refused whole when its file is not one."""

import http.client
import json
import os
import plistlib
import signal
import subprocess
import sys
import tempfile
import time
import urllib.parse

sys.dont_write_bytecode = True
import harness  # noqa: E402
from harness import sandbox  # noqa: E402

LEDGER = "/var/lib/velnor/ledger.plist"
LOAD_FOLDER = "/Library/LaunchDaemons"
CONTROL_SOCKET = "/run/velnor/velnord.sock"
# Longer than a stop waits for the server, so that the kill comes after the operator's stop.
EXIT_TIME_OUT = 3

# Prometheus scrapes velnord every second, so that a change shows within a few polls.
PROMETHEUS_CONFIG = """global:
  scrape_interval: 1s
  evaluation_interval: 1s
scrape_configs:
  - job_name: velnord
    static_configs:
      - targets: ["127.0.0.1:{port}"]
"""


def get(port, path, timeout=30):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=timeout)
    connection.request("GET", path)
    answer = connection.getresponse()
    body = answer.read().decode()
    connection.close()
    return answer, body


def series(exposition):
    """The samples of an exposition: {'name{labels}': value}."""
    samples = {}
    for line in exposition.splitlines():
        if line and not line.startswith("#"):
            name, value = line.rsplit(" ", 1)
            samples[name] = float(value)
    return samples


class Metrics(harness.ScenarioCase):
    def start_daemon(self, log=None, interval=1):
        """velnord with its metrics on a port of its own, no console and a tick every interval
        seconds; it serves once its control socket is there."""
        if os.path.exists(CONTROL_SOCKET):
            os.unlink(CONTROL_SOCKET)
        self.port = getattr(self, "port", None) or harness.free_port()
        daemon = subprocess.Popen([harness.velnord_beside(self.host.velnor), "--plugin",
                                   self.host.plugin, "--idle-interval", str(interval), "--no-web",
                                   "--metrics-listen", f"127.0.0.1:{self.port}", "--foreground"],
                                  stderr=log or subprocess.DEVNULL)
        self.addCleanup(lambda: daemon.poll() is None and (daemon.terminate(), daemon.wait()))
        harness.wait_until(lambda: os.path.exists(CONTROL_SOCKET), "velnord serves")
        return daemon

    def stop_daemon(self, daemon):
        daemon.terminate()
        self.assertEqual(daemon.wait(timeout=30), 0, "velnord ends on SIGTERM")

    def scrape(self):
        answer, body = get(self.port, "/metrics")
        self.assertEqual(answer.status, 200, body)
        self.assertEqual(answer.getheader("Content-Type"), "text/plain; version=0.0.4; charset=utf-8")
        return series(body)

    def wait_for_sample(self, name, value):
        harness.wait_until(lambda: self.scrape().get(name) == value, f"{name} is {value}")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_a_scrape_passes_promtool(self):
        self.start_daemon()
        self.velnor("start")
        self.velnor("settings", "work_mem=12MB")
        self.velnor("status", "--details")
        _, body = get(self.port, "/metrics")
        checked = subprocess.run(["promtool", "check", "metrics"], input=body, capture_output=True,
                                 text=True)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""), body)
        # The counts by cause are Prometheus's scenario below; the probe is seen only here.
        self.assertEqual(series(body).get("velnor_server_probe_answered"), 1)
        self.assertEqual(get(self.port, "/")[0].status, 404, "only /metrics is served")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_prometheus_follows_the_service(self):
        self.start_daemon()
        prometheus_port = harness.free_port()
        folder = tempfile.mkdtemp(prefix="prometheus.")
        with open(os.path.join(folder, "prometheus.yml"), "w") as config:
            config.write(PROMETHEUS_CONFIG.format(port=self.port))
        server = subprocess.Popen(["prometheus", f"--config.file={folder}/prometheus.yml",
                                   f"--storage.tsdb.path={folder}/data",
                                   f"--web.listen-address=127.0.0.1:{prometheus_port}"],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: server.poll() is None and (server.terminate(), server.wait()))

        def query(expression):
            try:
                answer, body = get(prometheus_port, "/api/v1/query?" +
                                   urllib.parse.urlencode({"query": expression}))
            except OSError:
                return None  # not listening yet
            result = json.loads(body)["data"]["result"] if answer.status == 200 else []
            return float(result[0]["value"][1]) if result else None

        def sees(expression, value, what):
            harness.wait_until(lambda: query(expression) == value, f"Prometheus sees {what}",
                               seconds=60)

        sees('velnor_service_state{state="stopped"}', 1, "the service stopped")
        self.velnor("start")
        sees('velnor_service_state{state="running"}', 1, "the service running")
        self.velnor("settings", "work_mem=12MB")
        sees('velnor_service_starts_total{cause="settings change"}', 1, "the settings change's start")
        # The counter rose from 0 to 1 within the minute; Prometheus extrapolates to the window's
        # end, so the increase is 1 once rounded.
        sees('round(increase(velnor_service_starts_total{cause="settings change"}[1m]))', 1,
             "one start for the settings change in the last minute")
        self.velnor("stop")
        sees('velnor_service_state{state="stopped"}', 1, "the service stopped again")
        sees('velnor_service_stops_total{cause="operator"}', 1, "the operator's stop")

        self.velnor("start")
        sees('velnor_service_state{state="running"}', 1, "the service running again")
        # Behind velnord's back: the next idle tick finds the job's process gone.
        os.kill(self.running_server(), signal.SIGKILL)
        sees('velnor_service_state{state="stopped"}', 1, "the killed server stopped")
        sees('velnor_service_starts_total{cause="operator"}', 2, "both of the operator's starts")
        sees('up{job="velnord"}', 1, "velnord scraped all along")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_the_ledger_counts_starts_at_load_and_kills_at_the_deadline(self):
        """The service's job runs at load, and ignores SIGTERM: the operator's stop times out,
        and velnord kills the job when its ExitTimeOut ends, on time, with no idle tick and no
        call of anyone's in between (a scrape calls nothing)."""
        job = harness.read_job_file()
        server = " ".join(f"'{argument}'" for argument in job["ProgramArguments"])
        job.update(ProgramArguments=["/bin/sh", "-c", f"trap '' TERM; {server} & wait"],
                   ExitTimeOut=EXIT_TIME_OUT)
        harness.write_job_file(job)
        os.makedirs(LOAD_FOLDER, mode=0o755, exist_ok=True)
        with open(os.path.join(LOAD_FOLDER, "org.postgresql.postgres.plist"), "wb") as out:
            plistlib.dump({**job, "RunAtLoad": True}, out)
        self.start_daemon(interval=600)
        self.wait_for_sample('velnor_service_starts_total{cause="at load"}', 1)
        harness.wait_until(harness.answers, "the server started at load answers")
        began = time.monotonic()
        self.assertEqual(self.velnor("stop", status=1).response,
                         {"error": "CANNOT_STOP_SERVICE_TIMEOUT_ERR"}, "the server still answers")
        self.wait_for_sample('velnor_service_stops_total{cause="stop deadline"}', 1)
        took = time.monotonic() - began
        # The next idle tick is ten minutes away: a kill within seconds of the deadline is the
        # deadline's own, however loaded the machine.
        self.assertTrue(EXIT_TIME_OUT <= took < EXIT_TIME_OUT + 10, f"killed after {took:.1f} s")
        samples = self.scrape()
        for name, value in [('velnor_service_stops_total{cause="operator"}', 1),
                            ('velnor_service_stop_failures_total{code="CANNOT_STOP_SERVICE_TIMEOUT_ERR"}', 1),
                            ('velnor_service_state{state="stopped"}', 1)]:
            self.assertEqual(samples.get(name), value, name)

    @sandbox("--socket-dir", "--log-dir")
    def test_a_scrape_answers_while_a_start_waits(self):
        """The data folder is not there: the server ends at once, and the start probes it for two
        seconds before it gives up. Scrapes meanwhile answer at once."""
        self.start_daemon()
        start = subprocess.Popen([self.host.velnor, "start"], stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        states, slowest = set(), 0.0
        while start.poll() is None:
            began = time.monotonic()
            samples = self.scrape()
            slowest = max(slowest, time.monotonic() - began)
            states |= {name for name, value in samples.items()
                       if name.startswith("velnor_service_state") and value == 1}
        self.assertEqual(start.returncode, 1, "the start fails")
        print(f"slowest scrape while the start waited: {slowest * 1000:.1f} ms")
        self.assertLess(slowest, 0.5, "a scrape never waits for the worker")
        self.assertIn('velnor_service_state{state="starting"}', states, "the start showed")
        self.assertEqual(
            self.scrape().get('velnor_service_start_failures_total{code="CANNOT_START_SERVICE_TIMEOUT_ERR"}'),
            1, "the failed start, by its code")

    @sandbox("--initdb", "--socket-dir", "--log-dir")
    def test_the_ledger_outlives_the_daemon(self):
        daemon = self.start_daemon()
        self.velnor("start")
        self.velnor("stop")
        self.wait_for_server_to_end()
        self.assertEqual(harness.attributes(LEDGER), harness.regular_file(0o600, "root"))
        self.stop_daemon(daemon)

        self.start_daemon()
        samples = self.scrape()
        self.assertEqual((samples['velnor_service_starts_total{cause="operator"}'],
                          samples['velnor_service_stops_total{cause="operator"}']), (1, 1),
                         "the counts of the daemon before")
        self.assertGreater(samples["velnor_service_last_start_timestamp_seconds"], 0)
        ledger = self.velnor("status", "--details", status=3).response["ledger"]
        self.assertEqual(ledger["startsToday"]["operator"], 1, ledger)
        self.assertIn("lastStart", ledger)
        direct = self.velnor("--direct", "status", "--details", status=3).response["ledger"]
        self.assertEqual(direct, ledger, "velnor --direct reads the same ledger from its file")

    @sandbox("--initdb")
    def test_an_account_holding_the_port_keeps_no_daemon_from_serving(self):
        """nobody listens on the metrics port first: velnord serves without its endpoint."""
        self.port = harness.free_port()
        nobody = harness.as_user(65534, [harness.PYTHON, "-c",
                                         "import socket, sys\n"
                                         "s = socket.socket()\n"
                                         f"s.bind(('127.0.0.1', {self.port}))\n"
                                         "s.listen()\n"
                                         "print('listening', flush=True)\n"
                                         "sys.stdin.read()\n"])
        squatter = subprocess.Popen(nobody, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (squatter.kill(), squatter.wait()))
        self.assertEqual(squatter.stdout.readline().strip(), "listening")
        log_path = tempfile.mktemp(prefix="velnord.", suffix=".log")
        with open(log_path, "wb") as log:
            self.start_daemon(log)
        self.assert_state("STOPPED")
        with open(log_path) as log:
            self.assertIn(f'the metrics endpoint is off: could not listen on "127.0.0.1:{self.port}"',
                          log.read())


if __name__ == "__main__":
    sys.exit(harness.scenario_main(Metrics, __file__, __doc__))

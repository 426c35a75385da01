#!/usr/bin/env python3
"""Filedrop and chat under a mixed load: resources, response times, growth.

The servers are their real executables, on free ports of 127.0.0.1 and with a temporary directory.
Order: start, everything once ("prime": threads that start with the first use), a look at
descriptors and threads, the load, its end, another look, SIGTERM, the verdict.
"""

import argparse
import collections
import csv
import http.client
import json
import os
import pathlib
import queue
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import plot
import verdict

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parent / "support"))
from processes import free_port

START_LIMIT_SECONDS = 60
PRIME_LIMIT_SECONDS = 120
LOAD_END_LIMIT_SECONDS = 180  # the operations that run then are finished
STEADY_LIMIT_SECONDS = 60
SHORT_DRAIN_LIMIT_SECONDS = 60
DRAIN_LIMIT_SECONDS = 420  # the daemon's timeout of 360 s, and some more
STOP_LIMIT_SECONDS = 30
STEADY_SAMPLES = 5
POLL_INTERVAL_SECONDS = 0.2
MAX_SHORT_SECONDS = 120
LARGEST_SHOWN_COMPLAINTS = 40


class RunFailed(Exception):
    """Nothing more can be learnt from this run."""


class Server:
    """A server under load: its process and its resources."""

    def __init__(self, name, command, directory, environment):
        self.name = name
        self.port = int(command[command.index("--port") + 1])
        self.output = open(directory / f"{name}.log", "w+", encoding="utf-8")
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=self.output,
                                        stderr=subprocess.STDOUT, env=environment)
        self.proc = pathlib.Path("/proc") / str(self.process.pid)

    def text(self):
        self.output.flush()
        return pathlib.Path(self.output.name).read_text(encoding="utf-8", errors="replace")

    def wait_ready(self):
        end = time.monotonic() + START_LIMIT_SECONDS
        while f"http://127.0.0.1:{self.port}/" not in self.text():
            if self.process.poll() is not None or time.monotonic() > end:
                raise RunFailed(f"{self.name} did not start:\n{self.text()}")
            time.sleep(0.02)

    def check_alive(self):
        code = self.process.poll()
        if code is not None:
            raise RunFailed(f"{self.name} died under the load with exit code {code}:\n"
                            f"{self.text()[-4000:]}")

    def look(self):
        """Descriptors and threads."""
        try:
            return {"descriptors": len(os.listdir(self.proc / "fd")),
                    "threads": len(os.listdir(self.proc / "task"))}
        except OSError:
            self.check_alive()
            raise

    def sample(self):
        sizes = dict(re.findall(r"^(VmRSS|RssAnon):\s+(\d+) kB", (self.proc / "status").read_text(),
                                re.MULTILINE))
        shares = (self.proc / "smaps_rollup").read_text()
        ticks = (self.proc / "stat").read_text().rpartition(")")[2].split()
        return {"rss_kib": int(sizes["VmRSS"]), "anonymous_kib": int(sizes["RssAnon"]),
                "pss_kib": int(re.search(r"^Pss:\s+(\d+)", shares, re.MULTILINE).group(1)),
                **self.look(),
                "cpu_seconds": (int(ticks[11]) + int(ticks[12])) / os.sysconf("SC_CLK_TCK")}

    def stop(self):
        """Failures of its exit."""
        started = time.monotonic()
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            code = self.process.wait(STOP_LIMIT_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return [f"{self.name}: did not end within {STOP_LIMIT_SECONDS} s of SIGTERM"]
        self.stop_seconds = time.monotonic() - started
        complaints = []
        if code != 0:
            complaints.append(f"{self.name}: exit code {code} after SIGTERM:\n{self.text()[-4000:]}")
        if "Sanitizer" in self.text():
            complaints.append(f"{self.name}: a sanitizer has complained:\n{self.text()[-8000:]}")
        return complaints

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.output.close()


class Client:
    """A client process whose lines are read as they come."""

    def __init__(self, *command):
        self.process = subprocess.Popen([sys.executable, *command], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, text=True)
        self.lines = queue.SimpleQueue()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line)

    def take_lines(self):
        taken = []
        while not self.lines.empty():
            taken.append(self.lines.get())
        return taken

    def wait(self, seconds, what):
        try:
            code = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise RunFailed(f"{what} did not end within {seconds} s") from None
        self.reader.join(seconds)
        if code != 0:
            raise RunFailed(f"{what} failed with exit code {code}")
        return self.take_lines()

    def ask_to_end(self):
        if self.process.poll() is None:
            self.process.terminate()

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class Tables:
    """The measurements, as files and for the verdict."""

    COLUMNS = {
        "servers": ("seconds", "server", "rss_kib", "pss_kib", "anonymous_kib", "descriptors",
                    "threads", "cpu_seconds"),
        "latencies": ("seconds", "probe", "count", "median_ms", "p99_ms", "max_ms"),
        "operations": ("seconds", "operation", "done", "failed"),
    }

    def __init__(self, directory):
        self.files = {name: open(directory / f"{name}.csv", "w", newline="", encoding="utf-8")
                      for name in self.COLUMNS}
        self.writers = {}
        for name, file in self.files.items():
            self.writers[name] = csv.DictWriter(file, self.COLUMNS[name], lineterminator="\n")
            self.writers[name].writeheader()

    def add(self, table, **row):
        self.writers[table].writerow(row)

    def flush(self):
        for file in self.files.values():
            file.flush()

    def close(self):
        for file in self.files.values():
            file.close()


def percentile(ordered, share):
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


class Soak:
    def __init__(self, arguments):
        self.arguments = arguments
        self.seconds = arguments.seconds or 60 * arguments.minutes
        self.period = 1.0 if self.seconds <= MAX_SHORT_SECONDS else 5.0
        self.pace = "short" if self.seconds <= MAX_SHORT_SECONDS else "long"
        self.output = arguments.output
        self.output.mkdir(parents=True, exist_ok=True)
        self.tables = Tables(self.output)
        self.servers = []
        self.clients = []
        self.complaints = []
        self.latencies = collections.defaultdict(list)
        self.all_latencies = collections.defaultdict(list)
        self.load_state = {"done": {}, "failed": {}, "failures": [], "bytes": {}, "cpu": 0}
        self.peaks = {}
        self.memory = {}  # at rest, by phase and server
        limit = SHORT_DRAIN_LIMIT_SECONDS if self.pace == "short" else DRAIN_LIMIT_SECONDS
        self.phases = {"before": {}, "after": {}, "drain_seconds": arguments.drain_limit or limit}

    # Phases

    def run(self):
        work = pathlib.Path(tempfile.mkdtemp(prefix="wendrel-soak-"))
        try:
            self.started = time.monotonic()
            self.start_servers(work)
            self.prime()
            self.phases["before"] = self.wait_steady()
            self.memory["before"] = self.sample_servers()
            self.load()
            self.drain()
            self.memory["after"] = self.sample_servers()
            for server in self.servers:
                self.complaints += server.stop()
        except RunFailed as failure:
            self.complaints.append(str(failure))
        finally:
            self.count_failures()
            for each in self.clients + self.servers:
                each.end()
            self.tables.close()
            shutil.rmtree(work, ignore_errors=True)

    def start_servers(self, work):
        (work / "served").mkdir()
        environment = dict(os.environ)
        if self.arguments.preload:
            environment["LD_PRELOAD"] = str(self.arguments.preload)
        self.start("filedrop", [str(self.arguments.filedrop), "--directory", str(work / "served"),
                                "--log-file", str(work / "filedrop.log")], environment)
        self.start("chat", [str(self.arguments.chat)], environment)
        self.filedrop, self.chat = self.servers

    def start(self, name, command, environment):
        server = Server(name, [*command, "--port", str(free_port())], self.output, environment)
        self.servers.append(server)
        server.wait_ready()

    def client(self, script, *arguments):
        client = Client(str(HERE / script), str(self.filedrop.port), str(self.chat.port), *arguments)
        self.clients.append(client)
        return client

    def prime(self):
        client = self.client("load.py", "prime")
        for line in client.wait(PRIME_LIMIT_SECONDS, "doing everything once"):
            failures = json.loads(line)["failures"]
            if failures:
                raise RunFailed("even before the load: " + "; ".join(failures))
        # A stream whose client has left ends when a later write fails.
        end = time.monotonic() + PRIME_LIMIT_SECONDS
        while self.open_requests() > 1:
            if time.monotonic() > end:
                raise RunFailed("requests of clients that have left stay open")
            time.sleep(POLL_INTERVAL_SECONDS)

    def open_requests(self):
        """Of filedrop, this one included."""
        connection = http.client.HTTPConnection("127.0.0.1", self.filedrop.port, timeout=PRIME_LIMIT_SECONDS)
        try:
            connection.request("GET", "/api/status", headers={"Connection": "close"})
            return json.loads(connection.getresponse().read())["openRequests"]
        finally:
            connection.close()

    def wait_steady(self):
        """Descriptors and threads in a steady state."""
        looks = []
        end = time.monotonic() + STEADY_LIMIT_SECONDS
        while len(looks) < STEADY_SAMPLES or any(look != looks[0] for look in looks):
            if time.monotonic() > end:
                raise RunFailed(f"descriptors and threads are not steady before the load: {looks}")
            looks = looks[-STEADY_SAMPLES + 1:] + [{each.name: each.look() for each in self.servers}]
            time.sleep(POLL_INTERVAL_SECONDS)
        return looks[0]

    def load(self):
        load = self.client("load.py", self.pace)
        probe = self.client("probe.py", str(self.arguments.probes))
        self.phases["load_start"] = self.now()
        end = time.monotonic() + self.seconds
        try:
            while time.monotonic() < end:
                time.sleep(min(self.period, max(0.0, end - time.monotonic())))
                self.take_sample(load, probe)
        finally:
            self.phases["load_end"] = self.now()
        load.ask_to_end()
        probe.ask_to_end()
        self.take_load(load.wait(LOAD_END_LIMIT_SECONDS, "the load"))
        self.take_probes(probe.wait(LOAD_END_LIMIT_SECONDS, "the probe"))
        if not all(self.all_latencies[name] for name in ("get", "chat")):
            self.complaints.append("nothing was probed")

    def count_failures(self):
        for client in self.clients:
            lines = client.take_lines()
            self.take_load([line for line in lines if line.startswith("{")])
        for name, count in self.load_state["failed"].items():
            self.complaints.append(f"{name} failed {count} times")
        self.complaints += self.load_state["failures"]

    def drain(self):
        """Waits until descriptors and threads are back at their first values; the verdict checks it."""
        started = time.monotonic()
        while True:
            after = {each.name: each.look() for each in self.servers}
            taken = time.monotonic() - started
            if after == self.phases["before"] or taken > self.phases["drain_seconds"]:
                break
            self.sample_servers()
            time.sleep(min(self.period, 1.0 if taken > 5 else POLL_INTERVAL_SECONDS))
        self.phases["after"] = after
        self.phases["drained_after"] = taken
        end = time.monotonic() + 2 * self.period  # the end of the curves
        while time.monotonic() < end:
            self.sample_servers()
            time.sleep(min(self.period, 1.0))

    # Measuring

    def now(self):
        return round(time.monotonic() - self.started, 2)

    def take_sample(self, load, probe):
        for client, name in ((load, "the load"), (probe, "the probe")):
            if client.process.poll() is not None:
                raise RunFailed(f"{name} ended too early")
        self.sample_servers()
        self.take_load(load.take_lines())
        self.take_probes(probe.take_lines())
        self.tables.flush()

    def sample_servers(self):
        """Resident bytes by server; everything goes into the table."""
        now = self.now()
        memory = {}
        for server in self.servers:
            server.check_alive()
            try:
                sample = server.sample()
            except (OSError, KeyError):
                server.check_alive()
                raise
            self.tables.add("servers", seconds=now, server=server.name, **sample)
            memory[server.name] = sample["rss_kib"] * 1024
            peaks = self.peaks.setdefault(server.name, dict(sample))
            for name, value in sample.items():
                peaks[name] = max(peaks[name], value)
        return memory

    def take_load(self, lines):
        if not lines:
            return
        self.load_state = json.loads(lines[-1])
        for name, count in sorted(self.load_state["done"].items()):
            self.tables.add("operations", seconds=self.now(), operation=name, done=count,
                            failed=self.load_state["failed"].get(name, 0))

    def take_probes(self, lines):
        taken = collections.defaultdict(list)
        for line in lines:
            name, _, rest = line.strip().partition(" ")
            if name == "failed":
                self.complaints.append(rest)
            else:
                taken[name].append(1000 * float(rest))
        for name, values in taken.items():
            values.sort()
            self.all_latencies[name] += values
            self.tables.add("latencies", seconds=self.now(), probe=name, count=len(values),
                            median_ms=round(statistics.median(values), 3),
                            p99_ms=round(percentile(values, 0.99), 3), max_ms=round(values[-1], 3))

    # Results

    def finish(self):
        """Writes verdict and plot; the exit code."""
        (self.output / "phases.json").write_text(json.dumps(self.phases, indent=1) + "\n")
        growths = {}
        if "load_start" in self.phases:
            growths, found = verdict.judge_directory(self.output)
            self.complaints += found
        summary = self.summary(growths)
        (self.output / "summary.md").write_text(summary, encoding="utf-8")
        print(summary, flush=True)
        if not self.arguments.no_plot and "load_start" in self.phases:
            plot.draw(self.output)
        return 1 if self.complaints else 0

    def summary(self, growths):
        lines = [f"Load for {self.seconds / 60:g} minutes, sampled every {self.period:g} s.", ""]
        lines += self.table_of_levels(growths) + self.table_of_latencies()
        lines += self.table_of_operations() + [""]
        for server in self.servers:
            cpu = self.peaks.get(server.name, {}).get("cpu_seconds", 0)
            lines.append(f"{server.name}: {cpu:.0f} s of processor time, ended "
                         f"{getattr(server, 'stop_seconds', float('nan')):.2f} s after SIGTERM.")
        moved = self.load_state["bytes"]
        lines.append(f"Client of the load: {self.load_state['cpu']:.0f} s of processor time; large "
                     f"files: {moved.get('up', 0) / verdict.MIB:.0f} MiB up, "
                     f"{moved.get('down', 0) / verdict.MIB:.0f} MiB down.")
        if "drained_after" in self.phases:
            lines.append(f"Descriptors and threads were looked at "
                         f"{self.phases['drained_after']:.1f} s after the load.")
        if "load_start" in self.phases and not all(growths.values()):
            lines.append("Growth under the load was not judged: the run was too short for that.")
        lines += ["", "**Passed.**" if not self.complaints else "**Failed:**"]
        shown = list(dict.fromkeys(self.complaints))
        lines += [f"- {complaint}" for complaint in shown[:LARGEST_SHOWN_COMPLAINTS]]
        if len(shown) > LARGEST_SHOWN_COMPLAINTS:
            lines.append(f"- and {len(shown) - LARGEST_SHOWN_COMPLAINTS} more")
        return "\n".join(lines) + "\n"

    def table_of_levels(self, growths):
        lines = ["| Server | Quantity | Before | First third | Last third | By slope | Allowed "
                 "| Most | After |", "|---|---|---|---|---|---|---|---|---|"]
        for server in self.servers:
            for quantity in verdict.ALLOWANCES:
                growth = growths.get(server.name, {}).get(quantity)
                levels = (None, None, None, None) if growth is None else (
                    growth.first, growth.last, growth.rise, growth.allowed)
                values = (self.at_rest("before", server.name, quantity), *levels,
                          self.most(server.name, quantity),
                          self.at_rest("after", server.name, quantity))
                cells = ["-" if value is None else verdict.shown(quantity, value)
                         for value in values]
                lines.append("| " + " | ".join([server.name, quantity, *cells]) + " |")
        return lines + [""]

    def at_rest(self, phase, name, quantity):
        if quantity == "memory":
            return self.memory.get(phase, {}).get(name)
        return self.phases[phase].get(name, {}).get(quantity)

    def most(self, name, quantity):
        peaks = self.peaks.get(name, {})
        return 1024 * peaks.get("rss_kib", 0) if quantity == "memory" else peaks.get(quantity, 0)

    def table_of_latencies(self):
        lines = ["| Probe | Count | Median | p99 | Longest |", "|---|---|---|---|---|"]
        for name, values in sorted(self.all_latencies.items()):
            values = sorted(values)
            lines.append(f"| {name} | {len(values)} | {statistics.median(values):.1f} ms | "
                         f"{percentile(values, 0.99):.1f} ms | {values[-1]:.1f} ms |")
        return lines + [""]

    def table_of_operations(self):
        lines = ["| Operation | Done | Failed |", "|---|---|---|"]
        names = {*self.load_state["done"], *self.load_state["failed"]}
        return lines + [f"| {name} | {self.load_state['done'].get(name, 0)} | "
                        f"{self.load_state['failed'].get(name, 0)} |" for name in sorted(names)]


def parse_arguments():
    parser = argparse.ArgumentParser(
        description=__doc__, epilog=verdict.RULE,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--filedrop", type=pathlib.Path, required=True, help="its executable")
    parser.add_argument("--chat", type=pathlib.Path, required=True, help="its executable")
    length = parser.add_mutually_exclusive_group(required=True)
    length.add_argument("--minutes", type=float, help="how long the load lasts")
    length.add_argument("--seconds", type=float, help="the same, in seconds")
    parser.add_argument("--output", type=pathlib.Path, required=True,
                        help="directory for tables, plot and summary")
    parser.add_argument("--probes", type=float, default=10, help="probes of each kind a second")
    parser.add_argument("--drain-limit", type=float, metavar="SECONDS",
                        help="how long descriptors and threads may take to come back")
    parser.add_argument("--preload", type=pathlib.Path, help="a library that the servers load first")
    parser.add_argument("--no-plot", action="store_true", help="without gnuplot")
    return parser.parse_args()


def main():
    # Ends like a failure, so that nothing is left running.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    soak = Soak(parse_arguments())
    soak.run()
    sys.exit(soak.finish())


if __name__ == "__main__":
    main()

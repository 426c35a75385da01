#!/usr/bin/env python3
"""Measures the servers in turn with each workload and prints the results; see run.sh --help."""

import argparse
import dataclasses
import fnmatch
import json
import pathlib
import sys
import tempfile
import time

import connections
import drive
import memory
import micro
import report

BUILD = pathlib.Path("build/bench/bench")
# Name: the program and its options.
SERVERS = {"event": ("server", ()), "polling": ("server", ("--polling",)), "bare": ("bare", ()),
           "suspend": ("bare", ("--suspend",)), "civetweb": ("civetweb", ()), "beast": ("beast", ()),
           "libwebsockets": ("libwebsockets", ())}
WITH_WEBSOCKETS = ("event", "polling", "bare", "civetweb", "beast", "libwebsockets")
WITH_REQUESTS = ("event", "polling", "bare", "suspend", "civetweb", "beast")
ON_SEVERAL_CORES = ("event", "polling", "bare", "suspend", "beast")
STREAM_BYTES = 1 << 30
UPLOAD_BYTES = 512 << 20
CORE = 0
EPOLL_EVENTS = 128  # fetched by the daemon at once


@dataclasses.dataclass(frozen=True)
class Goal:
    """A target for the ratio of a server to another one: at least for rates, at most otherwise."""

    server: str
    other: str
    field: str
    limit: float


def rate(server, other, limit):
    return Goal(server, other, "rate", limit)


def p99(server, other, limit):
    return Goal(server, other, "p99_ms", limit)


def cpu(server, other, limit):
    return Goal(server, other, "cpu_seconds", limit)


@dataclasses.dataclass(frozen=True)
class Row:
    """A workload."""

    name: str
    kind: str
    mode: str
    unit: str
    connections: int = 1
    size: int = 0
    goals: tuple[Goal, ...] = ()


def rows():
    for connections, of_bare, of_beast in ((32, 1.10, 0.92), (250, 1.35, 1.0)):
        yield Row(f"hello inline {connections}", "hello", "inline", "requests/s", connections,
                  goals=(rate("event", "bare", of_bare), rate("event", "beast", of_beast),
                         rate("polling", "bare", 0.95), cpu("polling", "bare", 1.10)))
    for connections, of_suspending in ((1, None), (32, 0.90), (250, 0.88)):
        goals = (rate("polling", "bare", 1.0), p99("polling", "bare", 1.0))
        if of_suspending:
            goals = (rate("event", "suspend", of_suspending), p99("event", "suspend", 1.2), *goals)
        yield Row(f"hello worker {connections}", "hello", "worker", "requests/s", connections,
                  goals=goals)
    for mode in ("inline", "worker"):
        yield Row(f"big {mode} 32", "big", mode, "requests/s", 32,
                  goals=(rate("event", "bare", 0.95), rate("polling", "bare", 0.95)))
    for mode in ("inline", "worker"):
        yield Row(f"stream {mode}", "stream", mode, "MiB/s", size=STREAM_BYTES,
                  goals=(rate("polling", "bare", 0.95),))
    for mode in ("inline", "worker"):
        yield Row(f"upload {mode}", "upload", mode, "MiB/s", size=UPLOAD_BYTES,
                  goals=(rate("polling", "bare", 0.90),))
    for connections in (1, 50):
        yield Row(f"websocket 64 B {connections}", "websocket", "worker", "messages/s", connections,
                  64, goals=(rate("event", "beast", 1.0), p99("event", "beast", 1.0),
                             rate("event", "libwebsockets", 1.0),
                             p99("event", "libwebsockets", 1.0),
                             rate("polling", "bare", 1.0), p99("polling", "bare", 1.0)))
    yield Row("websocket 1 MiB", "websocket", "worker", "messages/s", 1, 1 << 20,
              goals=(rate("event", "beast", 1.0), rate("event", "libwebsockets", 1.0),
                     rate("polling", "bare", 0.90)))


def servers_of(row, placement):
    names = WITH_WEBSOCKETS if row.kind == "websocket" else WITH_REQUESTS
    return tuple(name for name in names if placement == "one core" or name in ON_SEVERAL_CORES)


@dataclasses.dataclass
class Run:
    seconds: int
    divisor: int  # of the transferred size
    upload_file: pathlib.Path

    def measure(self, name, row, core):
        workers = max(4, row.connections + 4) if name == "civetweb" else 4
        # One thread per core: with more, the result depends on the random number of connections that
        # each accepts. But the daemon stalls when exactly 128 connections of a thread, or a
        # multiple, are ready at once, which is likely when a thread has no others.
        threads = 1 if core is not None and row.connections < EPOLL_EVENTS else 2
        program, options = SERVERS[name]
        # Messages are echoed on the event loops, as the others do.
        mode = "inline" if row.kind == "websocket" and name == "event" else row.mode
        options = [*options, "--mode", mode, "--workers", workers, "--threads", threads]
        if row.kind == "websocket":
            options.append("--websocket")
        with drive.Server(BUILD, program, options, core) as server:
            match row.kind:
                case "hello" | "big":
                    return drive.wrk(server, f"/{row.kind}", row.connections, self.seconds, core)
                case "stream":
                    return drive.stream(server, row.size // self.divisor, core)
                case "upload":
                    return drive.upload(server, self.upload_file, core)
                case "websocket":
                    path = "/ws" if name == "event" else "/echo"
                    return drive.websockets(BUILD, server, row.connections, row.size, self.seconds,
                                            core, path)


def zeros(folder, size):
    file = pathlib.Path(folder) / "upload"
    with open(file, "wb") as out:
        out.truncate(size)
    return file


def measure_all(arguments, wanted, placements):
    """{(row, placement): {server: [Measured, one a round]}}"""
    found = {(row, placement): {name: [] for name in servers_of(row, placement)}
             for placement in placements for row in wanted}
    divisor = 4 if arguments.quick else 1
    with tempfile.TemporaryDirectory() as folder:
        run = Run(arguments.seconds, divisor, zeros(folder, UPLOAD_BYTES // divisor))
        for turn in range(arguments.rounds):
            for (row, placement), measurements in found.items():
                names = list(measurements)
                start = turn % len(names)
                for name in names[start:] + names[:start]:
                    core = CORE if placement == "one core" else None
                    measurements[name].append(run.measure(name, row, core))
                print(f"  round {turn + 1}, {placement}, {row.name}: " + ", ".join(
                    f"{name} {measurements[name][-1].rate:,.0f}" for name in names), flush=True)
    return found


def arguments_of(words):
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--seconds", type=int)
    parser.add_argument("--only", action="append", default=[])
    parser.add_argument("--no-micro", action="store_true")
    parser.add_argument("--no-memory", action="store_true")
    parser.add_argument("--no-connections", action="store_true")
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("build/bench/results"))
    arguments = parser.parse_args(words)
    arguments.rounds = arguments.rounds or (3 if arguments.quick else 5)
    arguments.seconds = arguments.seconds or (1 if arguments.quick else 2)
    return arguments


def main():
    arguments = arguments_of(sys.argv[1:])
    wanted = [row for row in rows()
              if not arguments.only
              or any(fnmatch.fnmatch(row.name, pattern) for pattern in arguments.only)]
    if not wanted:
        sys.exit(f"run.py: no such row; there are: {', '.join(row.name for row in rows())}")
    placements = ["one core"] if arguments.quick else ["one core", "two cores"]
    began = time.monotonic()
    try:
        found = measure_all(arguments, wanted, placements)
        used = [] if arguments.no_memory or arguments.quick else memory.measure(BUILD)
        crowds = [] if arguments.no_connections else connections.measure(BUILD)
        small = [] if arguments.no_micro else micro.measure(BUILD, arguments.quick)
    except drive.Failed as failure:
        sys.exit(f"run.py: {failure}")
    arguments.output.mkdir(parents=True, exist_ok=True)
    result = report.Result(found, used, crowds, small, arguments.rounds, arguments.seconds,
                           (time.monotonic() - began) / 60)
    (arguments.output / "measurements.json").write_text(json.dumps(result.as_json(), indent=1) + "\n")
    text = result.markdown()
    (arguments.output / "results.md").write_text(text)
    result.draw(arguments.output)
    print(text)
    if arguments.write:
        result.write_into(pathlib.Path("docs/performance.md"), pathlib.Path("docs/performance"))
    print(f"Measurements, tables and charts are in {arguments.output}.")


if __name__ == "__main__":
    main()

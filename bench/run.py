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
import extremes
import memory
import micro
import report

# Name: the program and its options.
SERVERS = {"event": ("server", ()), "kit": ("server", ()), "polling": ("server", ("--polling",)), "bare": ("bare", ()),
           "suspend": ("bare", ("--suspend",)), "civetweb": ("civetweb", ()), "beast": ("beast", ()),
           "libwebsockets": ("libwebsockets", ())}
WITH_WEBSOCKETS = ("event", "polling", "bare", "civetweb", "beast", "libwebsockets")
WITH_REQUESTS = ("event", "polling", "bare", "suspend", "civetweb", "beast")
WITH_WORKERS = ("event", "kit", "polling", "bare", "suspend", "civetweb", "beast")
WITH_TLS = ("event", "beast")
ON_SEVERAL_CORES = ("event", "kit", "polling", "bare", "suspend", "beast")
STREAM_BYTES = 1 << 30
UPLOAD_BYTES = 512 << 20
SECURE_BYTES = 64 << 20
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
    is_secure: bool = False


def rows():
    for connections, of_bare, of_beast in ((32, 1.10, 0.92), (250, 1.35, 1.0)):
        yield Row(f"hello inline {connections}", "hello", "inline", "requests/s", connections,
                  goals=(rate("event", "bare", of_bare), rate("event", "beast", of_beast),
                         rate("polling", "bare", 0.95), cpu("polling", "bare", 1.10)))
    for connections, of_suspending in ((1, None), (32, 0.90), (250, 0.88)):
        goals = (rate("polling", "bare", 1.0), p99("polling", "bare", 1.0))
        if of_suspending:
            goals = (rate("event", "suspend", of_suspending), p99("event", "suspend", 1.2),
                     rate("kit", "event", 0.95), *goals)
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
    for name, kind, unit, connections, size, of_beast in (
            ("https hello 32", "hello", "requests/s", 32, 0, 0.7),
            ("https download of 64 MiB", "stream", "MiB/s", 1, SECURE_BYTES, 0.8),
            ("https upload of 64 MiB", "upload", "MiB/s", 1, SECURE_BYTES, 0.8),
            ("full handshakes", "handshake", "connections/s", 1, 0, 1.0),
            ("resumed handshakes", "resumption", "connections/s", 1, 0, 1.0),
            ("wss 64 B 1", "websocket", "messages/s", 1, 64, 0.9),
            ("wss 64 B 50", "websocket", "messages/s", 50, 64, 0.9),
            ("wss 1 MiB", "websocket", "messages/s", 1, 1 << 20, 0.9)):
        yield Row(name, kind, "inline", unit, connections, size,
                  (rate("event", "beast", of_beast),), True)


def servers_of(row, placement, is_quick):
    if row.is_secure:
        names = WITH_TLS
    elif row.kind == "websocket":
        names = WITH_WEBSOCKETS
    else:
        names = WITH_WORKERS if row.kind == "hello" and row.mode == "worker" else WITH_REQUESTS
    compared = {name for goal in row.goals for name in (goal.server, goal.other)}
    return tuple(name for name in names if (placement == "one core" or name in ON_SEVERAL_CORES)
                 and (name in compared or not is_quick))


@dataclasses.dataclass
class Run:
    build: pathlib.Path
    seconds: int
    divisor: int  # of the transferred size
    folder: pathlib.Path
    certificate: drive.Certificate

    def measure(self, name, row, core):
        workers = max(4, row.connections + 4) if name == "civetweb" else 4
        # One thread per core: with more, the result depends on the random number of connections that
        # each accepts. But the daemon stalls when exactly 128 connections of a thread, or a
        # multiple, are ready at once, which is likely when a thread has no others.
        threads = 1 if core is not None and row.connections < EPOLL_EVENTS else 2
        program, options = SERVERS[name]
        # Messages are echoed on the event loops, as the others do.
        mode = "inline" if row.kind == "websocket" and name == "event" else row.mode
        if name == "kit":
            mode = "kit"
        options = [*options, "--mode", mode, "--workers", workers, "--threads", threads]
        if row.kind == "websocket":
            options.append("--websocket")
        size = row.size // (1 if row.is_secure else self.divisor)
        certificate = self.certificate if row.is_secure else None
        with drive.Server(self.build, program, options, core, certificate) as server:
            match row.kind:
                case "hello" | "big":
                    return drive.wrk(server, f"/{row.kind}", row.connections, self.seconds, core)
                case "stream":
                    return drive.stream(server, size, core)
                case "upload":
                    return drive.upload(server, zeros(self.folder, size), core)
                case "handshake" | "resumption":
                    return drive.handshakes(server, self.seconds, core, row.kind == "resumption")
                case "websocket":
                    path = "/ws" if name == "event" else "/echo"
                    return drive.websockets(self.build, server, row.connections, row.size, self.seconds,
                                            core, path)


def zeros(folder, size):
    file = folder / "upload"
    with open(file, "wb") as out:
        out.truncate(size)
    return file


def measure_all(arguments, wanted, placements, folder, certificate):
    """{(row, placement): {server: [Measured, one a round]}}"""
    found = {(row, placement): {name: [] for name in servers_of(row, placement, arguments.quick)}
             for placement in placements for row in wanted}
    run = Run(arguments.build, arguments.seconds, 4 if arguments.quick else 1, folder, certificate)
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


def measure_named(rows):
    """The results of rows that have a function each."""
    found = []
    for name, measure in rows.items():
        print(f"  {name}", flush=True)
        found.append(measure())
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
    # For the tests: each row once, as small as it can be.
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/bench/bench"))
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("build/bench/results"))
    arguments = parser.parse_args(words)
    arguments.quick |= arguments.smoke
    arguments.rounds = arguments.rounds or (1 if arguments.smoke else 2 if arguments.quick else 5)
    arguments.seconds = arguments.seconds or (1 if arguments.quick else 2)
    return arguments


def scale_of(arguments):
    if arguments.smoke:
        return connections.Scale(100, 5, 0.1, 1, 1, 2)
    return connections.Scale(1, 100, 1, 1, 1, 5) if arguments.quick else connections.Scale()


def measure(arguments, folder):
    certificate = drive.make_certificate(folder)
    given = arguments.build, scale_of(arguments), certificate
    crowds, others = connections.rows(*given), extremes.rows(*given)
    names = [row.name for row in rows()] + [*crowds, *others]

    def is_wanted(name):
        return not arguments.only or any(fnmatch.fnmatch(name, each) for each in arguments.only)

    wanted = [row for row in rows() if is_wanted(row.name)]
    if arguments.no_connections:
        crowds = others = {}
    crowds = {name: each for name, each in crowds.items() if is_wanted(name)}
    others = {name: each for name, each in others.items() if is_wanted(name)}
    if not (wanted or crowds or others):
        raise drive.Failed(f"no such row; there are: {', '.join(names)}")
    placements = ["one core"] if arguments.quick else ["one core", "two cores"]
    found = measure_all(arguments, wanted, placements, folder, certificate)
    used = [] if arguments.no_memory or arguments.quick else memory.measure(arguments.build)
    return report.Result(found, used, measure_named(crowds), sum(measure_named(others), []),
                         [] if arguments.no_micro else micro.measure(arguments.build, arguments.quick),
                         arguments.rounds, arguments.seconds)


def main():
    arguments = arguments_of(sys.argv[1:])
    began = time.monotonic()
    with tempfile.TemporaryDirectory() as folder:
        try:
            result = measure(arguments, pathlib.Path(folder))
        except drive.Failed as failure:
            sys.exit(f"run.py: {failure}")
    result.minutes = (time.monotonic() - began) / 60
    arguments.output.mkdir(parents=True, exist_ok=True)
    (arguments.output / "measurements.json").write_text(json.dumps(result.as_json(), indent=1) + "\n")
    text = result.markdown()
    (arguments.output / "results.md").write_text(text)
    if not arguments.smoke:
        result.draw(arguments.output)
    print(text)
    if arguments.write:
        result.write_into(pathlib.Path("docs/performance.md"), pathlib.Path("docs/performance"))
    print(f"Measurements, tables and charts are in {arguments.output}.")


if __name__ == "__main__":
    main()

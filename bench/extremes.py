"""Rows that compare a server with itself: beside idle WebSockets and handshakes, and as it stops."""

import json
import select
import signal
import socket
import statistics
import subprocess
import time

import connections
import drive
from drive import Check

FLOODERS = 2
RENEWED_EACH = 7  # responses of a connection, then there is a new one
POLL_SECONDS = 0.05
MALFORMED = (b"GET / HTTP/1.1\r\n\r\n", b"GET / HTTP/1.1\r\nHost: x", b"GE",
             b"GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n",
             b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: -1\r\n\r\n",
             b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n12345",
             b"POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
             b"GET /\0 HTTP/1.1\r\n\r\n", b"GET / HTTP/1.1\r\n folded\r\n\r\n")


def beside_idle_sessions(build, scale, name):
    """The same echo before and while others are open."""
    count = 10_000 // scale.divisor
    connections.allow_descriptors(count + 100)
    ratios, bytes_each = [], []
    for _ in range(scale.rounds):
        with drive.Server(build, "server", ["--websocket"], None) as server:
            def echo():
                return drive.websockets(build, server, 50, 64, scale.seconds, None, "/ws").rate

            alone, before = echo(), server.resident_bytes()
            clients = connections.open_all(count, lambda: connections.Client(server.port),
                                           connections.Client.upgrade)
            bytes_each.append((server.resident_bytes() - before) / count)
            ratios.append(echo() / alone)
            connections.close_all(clients)
    return [Check(f"{name}: rate, ratio to without", statistics.median(ratios), 0.95, True),
            Check(f"{name}: kB each", statistics.median(bytes_each) / 1000, 8)]


def broadcast(build, scale, name):
    count = 9000 // scale.divisor
    text = drive.run_client([str(build / "broadcast" / "wendrel-bench-broadcast"), str(count), "100"],
                            0, connections.LIMIT_SECONDS)
    found = json.loads(text)
    return [Check(f"{name}: rate, ratio to a loop of send", found["ratio"], 0.8, True),
            Check(f"{name}: messages/s", found["sessions_per_second"], 130_000, True),
            Check(f"{name}: kB of a session that has had a message", found["idle_bytes_after_use"]
                  / 1000, 4)]


def beside_handshakes(build, scale, name, certificate):
    """The flood is nice: its clients take no time from the others, only the server does."""
    ratios = []
    for _ in range(scale.rounds):
        with drive.Server(build, "server", ["--threads", 2], None, certificate) as server:
            def p99():
                return drive.wrk(server, "/hello", 32, scale.seconds, None).p99_ms

            alone = p99()
            command = ["nice", "-n", "19", "openssl", "s_time", "-new", "-time",
                       str(scale.seconds + 1), "-connect", f"127.0.0.1:{server.port}"]
            flood = [subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                      text=True) for _ in range(FLOODERS)]
            ratios.append(p99() / alone)
            for flooder in flood:
                text, _ = flooder.communicate(timeout=connections.LIMIT_SECONDS)
                if "connections in" not in text:
                    raise drive.Failed(f"{name}: no handshakes: {text[-500:]}")
    return [Check(f"{name}: p99 of requests, ratio to without", statistics.median(ratios), 3)]


class Caller:
    """One request after the other, until the server closes the connection."""

    def __init__(self, port, poll):
        self.poll = poll
        self.port = port
        self.responses = 0
        self.connect()

    def connect(self):
        self.socket = socket.create_connection(("127.0.0.1", self.port), connections.LIMIT_SECONDS)
        self.poll.register(self.socket, select.EPOLLIN)

    def ask(self, is_stopping):
        self.received = b""
        self.is_owed = not is_stopping  # a later request may meet a connection that is being closed
        self.socket.sendall(b"GET /hello HTTP/1.1\r\nHost: localhost\r\n\r\n")

    def receive(self, is_stopping):
        """Whether it goes on, and whether a response is lost."""
        try:
            data = self.socket.recv(65536)
            self.received += data
            if not data:
                return False, self.is_owed or self.received != b""
            if not self.received.endswith(b"Hello, World!"):
                return True, False
            self.responses += 1
            if b"connection: close" in self.received.lower():
                return False, False
            if self.responses % RENEWED_EACH == 0 and not is_stopping:
                self.end()
                self.connect()
            self.is_owed, self.received = False, b""
            self.ask(is_stopping)
            return True, False
        except OSError:  # closed, or reset
            return False, self.is_owed or self.received != b""

    def end(self):
        self.poll.unregister(self.socket)
        self.socket.close()


def stop_under_load(build, count, wanted):
    """How many responses are lost."""
    lost, responses, is_stopping = 0, 0, False
    with drive.Server(build, "server", ["--mode", "worker", "--threads", 2], None) as server, \
            select.epoll() as poll:
        callers = [Caller(server.port, poll) for _ in range(count)]
        known = set(callers)
        for caller in callers:
            caller.ask(False)
        end = time.monotonic() + connections.LIMIT_SECONDS
        while known:
            if time.monotonic() > end:
                raise drive.Failed(f"{len(known)} of {count} connections were not closed")
            ready = {number for number, _ in poll.poll(POLL_SECONDS)}
            for caller in [each for each in known if each.socket.fileno() in ready]:
                goes_on, is_lost = caller.receive(is_stopping)
                lost += is_lost
                if not goes_on:
                    caller.end()
                    known.discard(caller)
            if not is_stopping and sum(caller.responses for caller in callers) >= wanted:
                is_stopping = True
                server.process.send_signal(signal.SIGTERM)
    return lost


def stops(build, scale, name):
    checks = []
    for count in 8, 200:
        lost = sum(stop_under_load(build, count, count + 10 * (turn % 10))
                   for turn in range(scale.stops))
        checks.append(Check(f"{name}, {count} clients, {scale.stops} times: lost responses", lost, 0))
    times, crashes = scale.stops * 10, 0
    for turn in range(times):
        options = ["--threads", 2, "--stop-limit", turn % 3 * 10]
        with drive.Server(build, "server", options, None) as server:
            clients = [connections.Client(server.port) for _ in range(40)]
            for number, client in enumerate(clients[:turn % 40 + 1]):
                client.socket.sendall(MALFORMED[(turn + number) % len(MALFORMED)])
            server.is_checked = False
        crashes += server.status != 0
        connections.close_all(clients)
    return [*checks, Check(f"{name}, malformed requests, {times} times: crashes", crashes, 0)]


def rows(build, scale, certificate):
    """{name: a function that returns its checks}"""
    idle, flood = "WebSocket echo beside 10,000 idle", "https beside a flood of handshakes"
    cast, stop = "broadcast of 100 B to 9,000", "stop"
    return {idle: lambda: beside_idle_sessions(build, scale, idle),
            cast: lambda: broadcast(build, scale, cast),
            flood: lambda: beside_handshakes(build, scale, flood, certificate),
            stop: lambda: stops(build, scale, stop)}

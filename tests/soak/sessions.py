#!/usr/bin/env python3
"""Thousands of WebSocket sessions that come and go, on a server that echoes messages.

    python3 sessions.py --server build/release/tests/integration/websocket_session_server \\
        [--connections 9500] [--seconds 60]

Opens the connections, then replaces them at random for the given time: each exchanges messages and
ends by a close frame, a reset, a close, a half-close, or inside a frame. Prints a line of JSON with
the memory and descriptors of the server; exit code 1 when something is left or, from 90 s on, the
memory has grown: in less time the allocator has not settled.
"""

import argparse
import base64
import collections
import json
import os
import pathlib
import random
import resource
import select
import socket
import statistics
import struct
import sys
import time

sys.path.append(str(pathlib.Path(__file__).parents[1] / "support"))
from processes import Process
from verdict import ALLOWANCES, MIN_JUDGED_SECONDS

LIMIT_SECONDS = 60
ADDRESSES = 50  # of the clients: each has ports of its own
RESET = struct.pack("ii", 1, 0)
REQUEST = ("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
           "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: "
           f"{base64.b64encode(bytes(16)).decode()}\r\n\r\n").encode()
MASK = bytes(4)
CLOSE = b"\x88\x82" + MASK + b"\x03\xe8"


def text(size):
    head = bytes([0x81, 0x80 | size]) if size < 126 else b"\x81\xfe" + size.to_bytes(2, "big")
    return head + MASK + b"t" * size


class Connection:
    """One client: its socket, and the size of the echo that it waits for until its next step."""

    pings = 0  # of all

    def __init__(self, port, number):
        self.socket = socket.socket()
        self.socket.setsockopt(socket.IPPROTO_IP, 24, 1)  # IP_BIND_ADDRESS_NO_PORT
        self.socket.bind((f"127.0.0.{2 + number % ADDRESSES}", 0))
        self.socket.connect(("127.0.0.1", port))
        self.socket.setblocking(False)
        self.socket.sendall(REQUEST)
        self.awaited = None  # the response to the handshake
        self.buffer = b""
        self.ending = None

    def act(self, dice):
        """Sends something, when nothing is awaited. False when the connection has ended."""
        kind = dice.randrange(8)
        if kind > 4:
            size = dice.choice((1, 125, 126, 4000, 30000))
            self.socket.sendall(text(size))
            self.awaited = size
            return True
        self.ending = ("close frame", "reset", "close", "half-close", "inside a frame")[kind]
        if kind == 0:
            self.socket.sendall(CLOSE)
            return True
        if kind == 1:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
        elif kind == 3:
            self.socket.shutdown(socket.SHUT_WR)
            return True
        elif kind == 4:
            self.socket.sendall(text(4000)[:200])
        return False

    def receive(self):
        """False at the end."""
        received = self.socket.recv(65536)
        if not received:
            assert self.ending, "the server has closed the connection"
            return False
        if self.ending:
            return True
        if self.awaited is None:
            self.buffer += received
            if b"\r\n\r\n" not in self.buffer:
                return True
            if self.buffer.startswith(b"HTTP/1.1 503 "):
                # The server has not noticed yet that others have ended: it is at its limit.
                self.ending = "refused"
                return False
            assert self.buffer.startswith(b"HTTP/1.1 101 "), self.buffer
            self.awaited = 0
            self.buffer = b""
            return True
        self.buffer += received
        while self.take_frame():
            pass
        return True

    def take_frame(self):
        """An echo, or a ping, which is responded to. False when it is not complete."""
        if len(self.buffer) < 2:
            return False
        first, size = self.buffer[:2]
        head = 4 if size == 126 else 2
        if size == 126:
            size = int.from_bytes(self.buffer[2:4], "big")
        if len(self.buffer) < head + size:
            return False
        self.buffer = self.buffer[head + size:]
        if first == 0x89:
            self.socket.sendall(b"\x8a\x80" + MASK)
            Connection.pings += 1
        else:
            assert (first, size) == (0x81, self.awaited), "not the echo"
            self.awaited = 0
        return True


class Load:
    def __init__(self, port, count, seed):
        self.port = port
        self.count = count
        self.dice = random.Random(seed)
        self.poller = select.epoll()
        self.open = {}
        self.ready = []
        self.opened = 0
        self.ended = collections.Counter()

    def add(self):
        connection = Connection(self.port, self.opened)
        self.opened += 1
        self.open[connection.socket.fileno()] = connection
        self.poller.register(connection.socket, select.EPOLLIN)

    def remove(self, connection):
        descriptor = connection.socket.fileno()
        self.poller.unregister(descriptor)
        del self.open[descriptor]
        connection.socket.close()
        self.ended[connection.ending] += 1

    def receive(self, seconds):
        for descriptor, _ in self.poller.poll(seconds, 1024):
            connection = self.open[descriptor]
            if not connection.receive():
                self.remove(connection)

    def open_all(self):
        end = time.monotonic() + LIMIT_SECONDS
        while len(self.open) < self.count or any(c.awaited is None for c in self.open.values()):
            assert time.monotonic() < end, "not all connections were opened"
            for _ in range(min(64, self.count - len(self.open))):
                self.add()
            self.receive(0.01)

    def turn(self):
        """Some connections act; those that have ended are replaced."""
        for connection in self.dice.sample(list(self.open.values()), min(64, len(self.open))):
            if connection.awaited == 0 and not connection.ending and not connection.act(self.dice):
                self.remove(connection)
        for _ in range(self.count - len(self.open)):
            self.add()
        self.receive(0)

    def close_all(self):
        for connection in list(self.open.values()):
            connection.ending = connection.ending or "close"
            self.remove(connection)


def memory_of(pid):
    pages = int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[1])
    return pages * resource.getpagesize()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--server", required=True)
    parser.add_argument("--connections", type=int, default=9500)
    parser.add_argument("--seconds", type=float, default=120)
    options = parser.parse_args()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    server = Process(options.server, limit=options.seconds + 10 * LIMIT_SECONDS)
    try:
        return run(server, options)
    finally:
        server.kill()


def run(server, options):
    port = int(server.wait_line(r"port (\d+)").group(1))
    pid = server.process.pid
    before = server.descriptors()
    empty = memory_of(pid)
    load = Load(port, options.connections, os.getpid())
    load.open_all()
    idle = memory_of(pid)
    samples = []
    begin = time.monotonic()
    while (passed := time.monotonic() - begin) < options.seconds:
        load.turn()
        if passed >= len(samples) * options.seconds / 60:
            samples.append(memory_of(pid))
    load.close_all()
    end = time.monotonic() + LIMIT_SECONDS
    while server.descriptors() != before and time.monotonic() < end:
        time.sleep(0.1)
    left = server.descriptors() - before
    third = len(samples) // 3
    first, last = statistics.median(samples[third:2 * third]), statistics.median(samples[-third:])
    allowed = ALLOWANCES["memory"].of(first)
    code = server.stop()
    print(json.dumps({
        "connections": options.connections, "seconds": options.seconds, "opened": load.opened,
        "ended": dict(load.ended), "pings": Connection.pings, "idle_bytes_per_session": (idle - empty) // options.connections,
        "memory_second_third": int(first), "memory_last_third": int(last),
        "memory_allowed_growth": int(allowed), "descriptors_left": left, "exit_code": code}))
    has_grown = options.seconds >= MIN_JUDGED_SECONDS and last - first > allowed
    return 0 if left == 0 and not has_grown and code == 0 else 1


if __name__ == "__main__":
    sys.exit(main())

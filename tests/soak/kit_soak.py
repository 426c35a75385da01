#!/usr/bin/env python3
"""A server of the kit under every kind of request, and every end of one: resources and growth.

Order: start, every operation once, a look at descriptors and threads, the load, its end, another
look, SIGTERM, the verdict.
"""

import argparse
import collections
import json
import os
import pathlib
import random
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time

import verdict
from soak import RunFailed, Server, Tables

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from processes import free_port

LIMIT_SECONDS = 60
MAX_SHORT_SECONDS = 120
DRAIN_SECONDS = 60
CLIENTS = 8
STREAM_BYTES = 64 * 16384
FILE_BYTES = 3000000
UPLOAD_BYTES = 300000
HANDSHAKE = ("Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n")


class Wrong(Exception):
    """A response that is not the expected one."""


class Connection:
    """A client that knows as much of HTTP as it needs; over TLS with a context for it."""

    def __init__(self, port, chance, context=None):
        self.chance = chance
        self.socket = socket.create_connection(("127.0.0.1", port), LIMIT_SECONDS)
        if context:
            self.socket = context.wrap_socket(self.socket, server_hostname="127.0.0.1")
        self.file = self.socket.makefile("rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.socket.close()

    def send(self, *parts):
        for part in parts:
            self.socket.sendall(part if isinstance(part, bytes) else part.encode())

    def head(self, method, target, more=""):
        self.send(f"{method} {target} HTTP/1.1\r\nHost: x\r\n{more}\r\n")

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def receive(self, to_head=False):
        """Status and body."""
        line = self.file.readline()
        if not line:
            raise Wrong("no response")
        status = int(line.split()[1])
        headers = {}
        while (line := self.file.readline()) not in (b"\r\n", b""):
            name, _, value = line.decode().partition(":")
            headers[name.lower()] = value.strip()
        if status == 100:
            return self.receive(to_head)
        if to_head or status in (101, 204, 304):
            return status, b""
        if headers.get("transfer-encoding") == "chunked":
            return status, b"".join(self.chunks())
        return status, self.file.read(int(headers["content-length"]))

    def chunks(self):
        while size := int(self.file.readline(), 16):
            yield self.file.read(size)
            self.file.readline()
        self.file.readline()

    def expect(self, status, body=None, to_head=False):
        found = self.receive(to_head)
        if found[0] != status or (body is not None and found[1] != body):
            raise Wrong(f"{found[0]} with {len(found[1])} bytes {found[1][:80]!r} instead of {status}")


# Operations: each on a connection of its own.

def get(target, status, body=None):
    def operation(client):
        for _ in range(client.chance.randint(1, 5)):
            client.head("GET", target)
            client.expect(status, body)
    return operation


def head_only(client):
    client.head("HEAD", client.chance.choice(("/inline", "/worker", "/stream", "/file")))
    client.expect(200, to_head=True)


def put(target):
    def operation(client):
        size = client.chance.randint(0, UPLOAD_BYTES)
        client.head("PUT", target, f"Content-Length: {size}\r\n")
        for at in range(0, size, 50000):
            client.send(b"x" * min(50000, size - at))
            time.sleep(client.chance.choice((0, 0.002)))
        client.expect(200, str(size).encode())
    return operation


def put_chunked(target):
    def operation(client):
        client.head("PUT", target, "Transfer-Encoding: chunked\r\n")
        total = 0
        for _ in range(client.chance.randint(0, 5)):
            size = client.chance.randint(1, 50000)
            client.send(f"{size:x}\r\n", b"x" * size, "\r\n")
            total += size
        client.send("0\r\n\r\n")
        client.expect(200, str(total).encode())
    return operation


def early(client):
    client.head("PUT", "/early", "Content-Length: 1000\r\n")
    client.send(b"x" * 1000)
    client.expect(403)


def pipelined(client):
    client.send("GET /inline HTTP/1.1\r\nHost: x\r\n\r\nGET /worker HTTP/1.1\r\nHost: x\r\n\r\n")
    client.expect(200, b"inline")
    client.expect(200, b"worker")


def malformed(client):
    client.send(client.chance.choice((
        "GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n", "GET / HTTP/1.1\r\n\r\n",
        "GET /\x01 HTTP/1.1\r\nHost: x\r\n\r\n", "GET / HTTP/1.1\r\nHost: x\r\nbad header\r\n\r\n",
        "GET /?" + "a&" * 2000 + " HTTP/1.1\r\nHost: x\r\n\r\n")))
    status, _ = client.receive()
    if status not in (400, 414, 431):
        raise Wrong(f"{status} to a malformed request")


def end(client):
    """In any place of a request, in any way."""
    request = client.chance.choice((
        "GET /stream HTTP/1.1\r\nHost: x\r\n\r\n", "GET /stream-later HTTP/1.1\r\nHost: x\r\n\r\n",
        "GET /file HTTP/1.1\r\nHost: x\r\n\r\n", "GET /later HTTP/1.1\r\nHost: x\r\n\r\n",
        "PUT /delivered HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n" + 50000 * "x",
        "PUT /buffered HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n" + 50000 * "x",
        "PUT /streaming HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n" + 50000 * "x"))
    client.send(request[:client.chance.randint(1, len(request))])
    time.sleep(client.chance.choice((0, 0.005)))
    kind = client.chance.randint(0, 2)
    if kind == 0:
        client.reset()
    elif kind == 1:
        client.socket.shutdown(socket.SHUT_WR)
        time.sleep(client.chance.choice((0, 0.005)))


def slow(client):
    """Beyond the deadlines of the server."""
    client.send(client.chance.choice((
        "GET /inline HTTP/1.1\r\nHost:",
        "PUT /delivered HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\nx",
        "PUT /buffered HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\nx")))
    client.expect(408)


def web_socket(client):
    client.head("GET", "/echo", HANDSHAKE)
    client.expect(101)
    for _ in range(client.chance.randint(0, 5)):
        client.send(b"\x81\x85\0\0\0\0hello")
        if client.file.read(7) != b"\x81\x05hello":
            raise Wrong("no echo")
    if client.chance.randint(0, 1):
        client.send(b"\x88\x82\0\0\0\0\x03\xe8")
        if client.file.read(4) != b"\x88\x02\x03\xe8":
            raise Wrong("no close frame")
    elif client.chance.randint(0, 1):
        client.reset()


OPERATIONS = {
    "inline": get("/inline", 200, b"inline"), "worker": get("/worker", 200, b"worker"),
    "deferred": get("/later", 200, b"later"), "deadline": get("/limited", 503),
    "stream": get("/stream", 200, b"p" * STREAM_BYTES),
    "deferred stream": get("/stream-later", 200, b"p" * STREAM_BYTES), "file": get("/file", 200),
    "HttpError": get("/error", 409), "exception": get("/failure", 500), "missing": get("/none", 404),
    "HEAD": head_only, "buffered body": put("/buffered"), "streaming body": put("/streaming"),
    "delivered body": put("/delivered"), "chunked delivered body": put_chunked("/delivered"),
    "chunked buffered body": put_chunked("/buffered"), "early response": early,
    "pipelined": pipelined, "malformed": malformed, "end": end, "slow": slow,
    "WebSocket": web_socket,
}


class Load:
    """Threads of clients until `stop`."""

    def __init__(self, port, seed, secure_port=None, context=None):
        self.places = [(port, None)] + ([(secure_port, context)] if context else [])
        self.done = collections.Counter()
        self.failed = collections.Counter()
        self.failures = []
        self.ends = threading.Event()
        self.lock = threading.Lock()
        self.threads = [threading.Thread(target=self.run, args=(random.Random(f"{seed} {i}"),))
                        for i in range(CLIENTS)]

    def once(self, name, chance, place):
        port, context = place
        shown = f"{name} over TLS" if context else name
        try:
            with Connection(port, chance, context) as client:
                OPERATIONS[name](client)
            with self.lock:
                self.done[shown] += 1
        except (Wrong, OSError, ValueError, KeyError) as error:
            with self.lock:
                self.failed[shown] += 1
                self.failures.append(f"{shown}: {error!r}")

    def run(self, chance):
        names = [name for name in OPERATIONS if name != "slow"]
        while not self.ends.is_set():
            self.once("slow" if chance.random() < 0.01 else chance.choice(names), chance,
                      chance.choice(self.places))

    def stop(self):
        self.ends.set()
        for thread in self.threads:
            thread.join(LIMIT_SECONDS)


def make_certificate(directory):
    """A certificate for 127.0.0.1 that is signed by itself, its key, and a client's context for it."""
    chain, key = directory / "chain.pem", directory / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-days", "2", "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                    "-keyout", key, "-out", chain], check=True, capture_output=True, timeout=LIMIT_SECONDS)
    return chain, key, ssl.create_default_context(cafile=chain)


def status(port):
    """Open, begun and completed requests, this one included."""
    with Connection(port, random.Random(0)) as client:
        client.head("GET", "/status", "Connection: close\r\n")
        return [int(number) for number in client.receive()[1].split()]


def wait_idle(server, wanted=None):
    """Descriptors and threads without a connection."""
    end_time = time.monotonic() + DRAIN_SECONDS
    while time.monotonic() < end_time:
        if status(server.port)[0] == 1:
            time.sleep(0.5)
            found = server.look()
            if wanted is None or found == wanted:
                return found
        time.sleep(0.1)
    return server.look()


def run(arguments, work, tables, complaints):
    """Leaves complaints; returns the phases."""
    seconds = arguments.seconds or 60 * arguments.minutes
    content = work / "file"
    content.write_bytes(os.urandom(FILE_BYTES))
    command = [str(arguments.server), "--port", str(free_port()), str(content)]
    secure = {}
    if arguments.tls:
        chain, key, context = make_certificate(work)
        secure = {"secure_port": free_port(), "context": context}
        command += [str(secure["secure_port"]), str(chain), str(key)]
    server = Server("kit", command, arguments.output, dict(os.environ))
    phases = {"before": {}, "after": {}, "drain_seconds": DRAIN_SECONDS}
    try:
        server.wait_ready()
        load = Load(server.port, arguments.seed, **secure)
        for name in OPERATIONS:
            for place in load.places:
                load.once(name, random.Random(name), place)
        if load.failures:
            raise RunFailed("even before the load: " + "; ".join(load.failures))
        phases["before"]["kit"] = wait_idle(server)
        started = time.monotonic()
        phases["load_start"] = 0
        for thread in load.threads:
            thread.start()
        period = 1 if seconds <= MAX_SHORT_SECONDS else 5
        while time.monotonic() - started < seconds:
            time.sleep(period)
            server.check_alive()
            tables.add("servers", seconds=round(time.monotonic() - started, 2), server="kit",
                       **server.sample())
            tables.flush()
        load.stop()
        phases["load_end"] = time.monotonic() - started
        phases["after"]["kit"] = wait_idle(server, phases["before"]["kit"])
        complaints += load.failures[:20]
        opened, begun, completed = status(server.port)
        # Completed ones include those that no handler has seen; only this one is open.
        if opened != 1 or completed < begun - 1:
            complaints.append(f"{opened} open, {begun} begun and {completed} completed requests")
        for name in sorted(load.done | load.failed):
            tables.add("operations", seconds=0, operation=name, done=load.done[name],
                       failed=load.failed[name])
        print(f"{sum(load.done.values())} operations of {len(load.done)} kinds, "
              f"{begun} requests, {completed} completed")
        complaints += server.stop()
    except RunFailed as failure:
        complaints.append(str(failure))
    finally:
        server.end()
    return phases


def main():
    parser = argparse.ArgumentParser(description=__doc__, epilog=verdict.RULE,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--server", type=pathlib.Path, required=True, help="soak_every_kind")
    length = parser.add_mutually_exclusive_group(required=True)
    length.add_argument("--minutes", type=float, help="how long the load lasts")
    length.add_argument("--seconds", type=float, help="the same, in seconds")
    parser.add_argument("--output", type=pathlib.Path, required=True, help="directory of the tables")
    parser.add_argument("--tls", action="store_true", help="half of the clients over TLS, at an endpoint of its own")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    print(f"seed {arguments.seed}", flush=True)
    arguments.output.mkdir(parents=True, exist_ok=True)
    tables = Tables(arguments.output)
    work = pathlib.Path(tempfile.mkdtemp(prefix="wendrel-soak-"))
    complaints = []
    try:
        phases = run(arguments, work, tables, complaints)
    finally:
        tables.close()
        shutil.rmtree(work, ignore_errors=True)
    (arguments.output / "phases.json").write_text(json.dumps(phases, indent=1) + "\n")
    if "load_end" in phases:
        growths, found = verdict.judge_directory(arguments.output)
        complaints += found
        for quantity, growth in growths["kit"].items():
            print(f"{quantity}: {verdict.shown(quantity, growth.first)} in the first third, "
                  f"{verdict.shown(quantity, growth.last)} in the last, "
                  f"by slope {verdict.shown(quantity, growth.rise)}")
    print("\n".join(complaints) or "Passed.")
    sys.exit(1 if complaints else 0)


if __name__ == "__main__":
    main()

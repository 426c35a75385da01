"""Many connections at a time, and their effect on another client."""

import dataclasses
import resource
import select
import socket
import ssl
import statistics
import time

import drive

PING_PAUSE_SECONDS = 0.01
PINGS_LIMIT_SECONDS = 20
LIMIT_SECONDS = 120
BATCH = 500  # opened at a time: the queue of the listening socket is not endless
MAX_PING = {"ping_p99_ms": 5.0}
MAX_COSTS = {**MAX_PING, "core_share": 0.01}
SLOW_BODY_BYTES = 1_000_000
SLOW_PIECE = bytes(500)  # more than the least rate, in turn between two pings
SMALL_WINDOW_BYTES = 4096
UPGRADE = ("GET /ws HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
           "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n")


@dataclasses.dataclass
class Scale:
    """How much of each row is measured."""

    divisor: int = 1  # of the connections
    pings: int = 400
    quiet_seconds: float = 3
    rounds: int = 3
    seconds: int = 2
    stops: int = 100


@dataclasses.dataclass
class Crowd:
    """The costs of a number of connections, and their effect on another client."""

    name: str
    server: str
    connections: int
    ping_p50_ms: float
    ping_p99_ms: float
    core_share: float  # of a core, while nothing happens
    bytes_each: float | None = None  # resident memory
    response_seconds: float | None = None  # from the event to the last response
    maxima: dict[str, float] = dataclasses.field(default_factory=dict)  # the goals: of these fields


def allow_descriptors(count):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < count:
        raise drive.Failed(f"{count} descriptors are needed, and {hard} allowed (ulimit -Hn)")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, count), hard))


class Client:
    """One connection, kept alive."""

    def __init__(self, port, tls=None, window_bytes=None):
        self.socket = socket.socket()
        self.socket.settimeout(LIMIT_SECONDS)
        if window_bytes:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, window_bytes)
        self.socket.connect(("127.0.0.1", port))
        if tls:
            self.socket = tls.wrap_socket(self.socket)

    def send(self, path):
        self.send_text(f"GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n")

    def send_text(self, text):
        self.socket.sendall(text.encode())

    def upgrade(self):
        self.send_text(UPGRADE)
        self.receive_head(101)

    def receive_head(self, status):
        data = b""
        while b"\r\n\r\n" not in data:
            data += self._some()
        head, rest = data.split(b"\r\n\r\n", 1)
        if not head.startswith(b"HTTP/1.1 %d " % status):
            raise drive.Failed(f"unexpected response: {head.splitlines()[0]}")
        return head, rest

    def receive(self):
        head, body = self.receive_head(200)
        length = int(head.lower().split(b"content-length:")[1].split(b"\r\n")[0])
        while len(body) < length:
            body += self._some()
        return body

    def _some(self):
        data = self.socket.recv(65536)
        if not data:
            raise drive.Failed("the server has closed a connection")
        return data

    def ask(self, path):
        self.send(path)
        return self.receive()


def open_all(count, make, send):
    """`count` clients that have sent one request each."""
    clients = []
    while len(clients) < count:
        batch = [make() for _ in range(min(BATCH, count - len(clients)))]
        for client in batch:
            send(client)
        clients += batch
    return clients


def ask_all(port, count, path):
    return open_all(count, lambda: Client(port), lambda client: client.send(path))


def receive_all(clients):
    """Seconds until each has its response."""
    start = time.monotonic()
    poll = select.epoll()
    known = {client.socket.fileno(): client for client in clients}
    for number in known:
        poll.register(number, select.EPOLLIN)
    while known:
        events = poll.poll(LIMIT_SECONDS)
        if not events:
            raise drive.Failed(f"{len(known)} of {len(clients)} have no response")
        for number, _ in events:
            known.pop(number).receive()
            poll.unregister(number)
    poll.close()
    return time.monotonic() - start


def ping_times(client, path, scale, between=lambda turn: None):
    times = []
    for turn in range(scale.pings):
        start = time.monotonic()
        client.ask(path)
        times.append((time.monotonic() - start) * 1000)
        if sum(times) > PINGS_LIMIT_SECONDS * 1000:
            break
        between(turn)
        time.sleep(PING_PAUSE_SECONDS)
    times.sort()
    return statistics.median(times), times[min(len(times) - 1, len(times) * 99 // 100)]


def core_share(server, scale):
    before = server.cpu_seconds()
    time.sleep(scale.quiet_seconds)
    return (server.cpu_seconds() - before) / scale.quiet_seconds


def close_all(clients):
    for client in clients:
        client.socket.close()


def waiting(build, scale, name, server_name, options, count, maxima, ping="/hello"):
    count //= scale.divisor
    allow_descriptors(count + 100)
    with drive.Server(build, "server", [*options, "--threads", 2], None) as server:
        other = Client(server.port)
        other.ask("/hello")
        before = server.resident_bytes()
        clients = ask_all(server.port, count, "/wait")
        end = time.monotonic() + LIMIT_SECONDS
        while int(other.ask("/waiting")) != count:
            if time.monotonic() > end:
                raise drive.Failed(f"{name}: the server does not see {count} requests")
        each = (server.resident_bytes() - before) / count
        share = core_share(server, scale)
        p50, p99 = ping_times(other, ping, scale)
        other.send("/release")
        seconds = receive_all(clients)
        other.receive()
        close_all([*clients, other])
        return Crowd(name, server_name, count, p50, p99, share, each, seconds, maxima)


def idle(build, scale, name, count, maxima, certificate=None):
    count //= scale.divisor
    allow_descriptors(count + 100)
    tls = None
    if certificate:
        tls = ssl.create_default_context(cafile=certificate.file)
        tls.check_hostname = False
    with drive.Server(build, "server", ["--threads", 2], None, certificate) as server:
        other = Client(server.port, tls)
        other.ask("/hello")
        before = server.resident_bytes()
        clients = open_all(count, lambda: Client(server.port, tls),
                           lambda client: client.ask("/hello"))
        each = (server.resident_bytes() - before) / count
        share = core_share(server, scale)
        p50, p99 = ping_times(other, "/hello", scale)
        close_all([*clients, other])
        return Crowd(name, "event-driven mode", count, p50, p99, share, each, None, maxima)


def slow_and_abandoned(build, scale, name, count):
    """Bodies that come slowly, and streams whose clients have left or do not read: half of each.

    The other client's page is that of a worker, of which there are four.
    """
    count //= scale.divisor
    with drive.Server(build, "server", ["--mode", "kit", "--workers", 4], None) as server:
        head = f"POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: {SLOW_BODY_BYTES}\r\n\r\n"
        slow = open_all(count, lambda: Client(server.port), lambda client: client.send_text(head))
        streams = open_all(count, lambda: Client(server.port, None, SMALL_WINDOW_BYTES),
                           lambda client: client.send("/events"))
        for client in streams:
            client.receive_head(200)
        close_all(streams[::2])

        def between(turn):
            for client in slow[turn % 20::20]:
                client.socket.sendall(SLOW_PIECE)

        other = Client(server.port)
        share = core_share(server, scale)
        p50, p99 = ping_times(other, "/hello", scale, between)
        close_all([*slow, *streams[1::2], other])
        return Crowd(name, "the kit", 2 * count, p50, p99, share, maxima=MAX_PING)


def rows(build, scale, certificate):
    """{name: a function that measures it}"""
    kit = ["--mode", "kit"]

    def waits(name, server, options, count, maxima, **more):
        return name, lambda: waiting(build, scale, name, server, options, count, maxima, **more)

    def idles(name, count, max_bytes, made=None):
        maxima = {**MAX_COSTS, "bytes_each": max_bytes}
        return name, lambda: idle(build, scale, name, count, maxima, made)

    responded = {**MAX_COSTS, "response_seconds": 0.5}
    slow = "200 slow bodies and 200 abandoned streams"
    return dict([
        waits("200 waiting requests, polling mode", "polling mode", ["--polling"], 200, {}),
        waits("200 waiting requests", "event-driven mode", [], 200, responded),
        waits("5,000 waiting requests", "event-driven mode", [], 5000, responded),
        waits("10,000 deferred requests", "the kit", kit, 10_000,
              {**MAX_COSTS, "bytes_each": 24_000}, ping="/ping"),
        idles("10,000 idle connections", 10_000, 40_000),
        idles("2,000 idle secure connections", 2000, 64_000, certificate),
        (slow, lambda: slow_and_abandoned(build, scale, slow, 200)),
    ])

"""Many connections at a time: requests that wait for an event, and idle clients."""

import dataclasses
import resource
import select
import socket
import statistics
import time

import drive

PINGS = 400
PING_PAUSE_SECONDS = 0.01
PINGS_LIMIT_SECONDS = 20
QUIET_SECONDS = 3
LIMIT_SECONDS = 120
BATCH = 500  # opened at a time: the queue of the listening socket is not endless
MAX_PING_P99_MS = 5.0
MAX_IDLE_BYTES = 40_000


@dataclasses.dataclass
class Crowd:
    """The costs of a number of connections, and their effect on another client."""

    name: str
    server: str
    connections: int
    ping_p50_ms: float
    ping_p99_ms: float
    core_share: float  # of a core, while nothing happens
    bytes_each: float | None  # resident memory
    response_seconds: float | None  # from the event to the last response
    max_ping_p99_ms: float | None = None  # the targets, if any
    max_bytes_each: float | None = None


def allow_descriptors(count):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < count:
        raise drive.Failed(f"{count} descriptors are needed, and {hard} allowed (ulimit -Hn)")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, count), hard))


class Client:
    """One connection, kept alive."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), LIMIT_SECONDS)

    def send(self, path):
        self.socket.sendall(f"GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())

    def receive(self):
        data = b""
        while b"\r\n\r\n" not in data:
            data += self._some()
        head, body = data.split(b"\r\n\r\n", 1)
        length = int(head.lower().split(b"content-length:")[1].split(b"\r\n")[0])
        while len(body) < length:
            body += self._some()
        if not head.startswith(b"HTTP/1.1 200"):
            raise drive.Failed(f"unexpected response: {head.splitlines()[0]}")
        return body

    def _some(self):
        data = self.socket.recv(65536)
        if not data:
            raise drive.Failed("the server has closed a connection")
        return data

    def ask(self, path):
        self.send(path)
        return self.receive()


def open_all(port, count, path):
    """`count` clients that have sent one request each."""
    clients = []
    while len(clients) < count:
        batch = [Client(port) for _ in range(min(BATCH, count - len(clients)))]
        for client in batch:
            client.send(path)
        clients += batch
    return clients


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


def ping_times(client):
    times = []
    for _ in range(PINGS):
        start = time.monotonic()
        client.ask("/hello")
        times.append((time.monotonic() - start) * 1000)
        if sum(times) > PINGS_LIMIT_SECONDS * 1000:
            break
        time.sleep(PING_PAUSE_SECONDS)
    times.sort()
    return statistics.median(times), times[min(len(times) - 1, len(times) * 99 // 100)]


def core_share(server):
    before = server.cpu_seconds()
    time.sleep(QUIET_SECONDS)
    return (server.cpu_seconds() - before) / QUIET_SECONDS


def waiting(build, name, options, count, limit_ms=None):
    allow_descriptors(count + 100)
    with drive.Server(build, "server", options, None) as server:
        other = Client(server.port)
        other.ask("/hello")
        clients = open_all(server.port, count, "/wait")
        end = time.monotonic() + LIMIT_SECONDS
        while int(other.ask("/waiting")) != count:
            if time.monotonic() > end:
                raise drive.Failed(f"{name}: the server does not see {count} requests")
        share = core_share(server)
        p50, p99 = ping_times(other)
        other.send("/release")
        seconds = receive_all(clients)
        other.receive()
        for client in [*clients, other]:
            client.socket.close()
        return Crowd(f"{count:,} waiting requests", name, count, p50, p99, share, None, seconds,
                     limit_ms)


def idle(build, count):
    allow_descriptors(count + 100)
    with drive.Server(build, "server", ["--threads", 2], None) as server:
        other = Client(server.port)
        other.ask("/hello")
        before = server.resident_bytes()
        clients = open_all(server.port, count, "/hello")
        receive_all(clients)
        each = (server.resident_bytes() - before) / count
        share = core_share(server)
        p50, p99 = ping_times(other)
        for client in [*clients, other]:
            client.socket.close()
        return Crowd(f"{count:,} idle connections", "event-driven mode", count, p50, p99, share,
                     each, None, MAX_PING_P99_MS, MAX_IDLE_BYTES)


def measure(build):
    print("  connections: 200 and 5,000 waiting, 10,000 idle", flush=True)
    event = ["--threads", 2]
    return [waiting(build, "polling mode", ["--polling", *event], 200),
            waiting(build, "event-driven mode", event, 200, MAX_PING_P99_MS),
            waiting(build, "event-driven mode", event, 5000, MAX_PING_P99_MS),
            idle(build, 10_000)]

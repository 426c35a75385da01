"""The ways to the back end: directly, and through a proxy with a tap in between.

The tap between proxy and back end records all bytes, so that the requests forwarded by the proxy can
be compared with those accepted by the back end.
"""

import dataclasses
import os
import pathlib
import re
import select
import socket
import sys
import threading
import time

import responses

HERE = pathlib.Path(__file__).resolve().parent
sys.path += [str(HERE.parents[1] / "support"), str(HERE.parent / "proxies")]
from processes import LIMIT_SECONDS, Process, wait_until
from support import DEPLOY, Proxy, activate

BARE_DAEMON = os.environ.get("WENDREL_BARE_DAEMON", "framing_bare_daemon")
LIBRARY_SERVER = os.environ.get("WENDREL_LIBRARY_SERVER", "framing_library_server")

POLLING = "WebSockets in polling mode"  # the mode of the back end
POLL_INTERVAL_SECONDS = 0.003
MAX_WORD_LENGTH = 60
NO_END = " and a body without end"

# Through the marked line for logs: which client asked, and how often the back end was asked for it.
NGINX_LOG_FORMAT = "log_format framing '$remote_addr:$remote_port [$upstream_addr]';"
NGINX_LOG_LINE = re.compile(r"127\.0\.0\.1:(\d+) \[(.*)\]")
HAPROXY_LOG_LINE = re.compile(r"127\.0\.0\.1:(\d+) \[[^]]*\] \S+ application/(\S+) ")


@dataclasses.dataclass(frozen=True)
class Outcome:
    """The outcome of one request and the one after it."""

    responses: tuple  # of the client
    connection: str  # of the client, in the end: "open" or "closed"
    seen: tuple  # the requests that the application saw
    forwarded: int = 0  # requests that the proxy sent to the back end
    handled: int = 0  # requests that the back end took them for
    verdict: str = ""


def shortened(word):
    if len(word) <= MAX_WORD_LENGTH:
        return word
    return f"{word[:12]}... ({len(word)} characters)"


class BackEnd:
    """A server under test; its events by the port of the client that they are about."""

    def __init__(self, *command):
        self.process = Process(*command)
        self.port = int(self.process.wait_line(r"port (\d+)")[1])
        self.events = {}
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while (line := self.process.lines.get()) is not None:
            port, event, details = line.rstrip("\n").split(" ", 2)
            self.events.setdefault(int(port), []).append((event, details))

    def forget(self, port):
        """A port may have belonged to an earlier client."""
        self.events.pop(port, None)

    def seen(self, port):
        """The requests of one client, one text each."""
        requests = []
        for event, details in list(self.events.get(port, ())):
            if event == "head":
                method, target, forwarded = details.split(" ")
                text = f"{method} {shortened(target)}"
                if forwarded not in ("-", "127.0.0.1"):
                    text += f" for {forwarded}"
                requests.append(text + NO_END)
            elif event == "whole":
                requests[-1] = requests[-1].replace(NO_END, f" {details}")
            else:
                requests[-1] = requests[-1].replace(NO_END, f" refused: {details}")
        return requests

    def stop(self):
        code = self.process.stop()
        assert code == 0, self.process.text()


class TappedConnection:
    def __init__(self, proxy_side, back_end):
        self.proxy_side = proxy_side
        self.back_end = back_end
        self.back_end_side = None
        self.port = 0
        self.to_back_end = b""
        self.to_proxy = b""
        self.is_health_check = False
        self.closed_by_back_end = False
        self.left_by_proxy = False
        self.ended = threading.Event()
        threading.Thread(target=self._pass_requests, daemon=True).start()

    def _pass_requests(self):
        with self.proxy_side:
            try:
                self._pass_requests_on()
            except OSError:
                pass  # one side is closed
            self.left_by_proxy = True
            if self.back_end_side:
                self._shut(self.back_end_side, socket.SHUT_RDWR)
        self.ended.set()

    def _pass_requests_on(self):
        while piece := self.proxy_side.recv(65536):
            if not self.to_back_end and b"\r\nhost: localhost\r\n" in piece.lower():
                self.is_health_check = True
                self.proxy_side.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n"
                                        b"Connection: close\r\n\r\n")
                return
            if self.back_end_side is None:
                self.back_end_side = socket.create_connection(("127.0.0.1", self.back_end.port))
                self.port = self.back_end_side.getsockname()[1]
                self.back_end.forget(self.port)
                threading.Thread(target=self._pass_responses, daemon=True).start()
            self.to_back_end += piece
            self.back_end_side.sendall(piece)

    def _pass_responses(self):
        with self.back_end_side:
            try:
                while piece := self.back_end_side.recv(65536):
                    self.to_proxy += piece
                    self.proxy_side.sendall(piece)
                self.closed_by_back_end = not self.left_by_proxy
            except OSError:
                pass
            self._shut(self.proxy_side, socket.SHUT_WR)

    @staticmethod
    def _shut(side, how):
        try:
            side.shutdown(how)
        except OSError:
            pass

    def finish(self):
        """Ends it as the back end would, and waits until the proxy has let it go."""
        self._shut(self.proxy_side, socket.SHUT_WR)
        assert self.ended.wait(LIMIT_SECONDS), "the proxy keeps a connection"

    def given(self):
        return responses.parse(self.to_proxy, self.to_back_end.startswith(b"HEAD "))


class Tap:
    def __init__(self, back_end):
        self.back_end = back_end
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.taken = []
        self.thread = threading.Thread(target=self._accept, daemon=True)
        self.thread.start()

    def _accept(self):
        while True:
            try:
                side, _ = self.listener.accept()
            except OSError:
                return  # closed
            self.taken.append(TappedConnection(side, self.back_end))

    def connections(self):
        """Those that carry requests, since the last `finish`."""
        return [one for one in list(self.taken) if one.port]

    def finish(self):
        for one in list(self.taken):
            one.finish()
        self.taken = [one for one in self.taken if not one.ended.is_set()]

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join(LIMIT_SECONDS)


class Client:
    """Sends its data in one piece, and stores all bytes received."""

    def __init__(self, path, data):
        self.socket = socket.create_connection(("127.0.0.1", path.port), LIMIT_SECONDS)
        self.port = self.socket.getsockname()[1]
        path.back_end.forget(self.port)
        self.socket.setblocking(False)
        self.unsent = data
        self.first_is_head = data.startswith(b"HEAD ")
        self.received = b""
        self.closed = False

    def look(self):
        """Sends and receives as much as possible, after a short wait."""
        if self.closed:
            time.sleep(POLL_INTERVAL_SECONDS)
            return
        readable, writable, _ = select.select([self.socket], [self.socket] if self.unsent else [], [],
                                              POLL_INTERVAL_SECONDS)
        if writable:
            try:
                self.unsent = self.unsent[self.socket.send(self.unsent):]
            except OSError:
                self.unsent = b""  # the server has closed; its bytes can still be read
        if readable:
            try:
                piece = self.socket.recv(65536)
            except OSError:
                piece = b""
            self.received += piece
            self.closed = not piece

    def responses(self):
        return tuple(responses.parse(self.received, self.first_is_head).words)

    def connection(self):
        return "closed" if self.closed else "open"

    def close(self):
        self.socket.close()


class DirectPath:
    at_once = 8  # requests that may be on their way

    def __init__(self, name, *command):
        self.name = name
        self.back_end = BackEnd(*command)
        self.port = self.back_end.port

    def activity(self, client):
        return len(client.received), client.closed, len(self.back_end.events.get(client.port, ()))

    def seen(self, client):
        return tuple(self.back_end.seen(client.port))

    def forwarded(self, _client):
        return 0

    def finish(self):
        pass

    def outcome(self, client, connection):
        return Outcome(client.responses(), connection, self.seen(client))

    def close(self):
        self.back_end.stop()


class ProxyPath:
    """`change` gets the proxy's configuration and returns the one to run."""

    at_once = 1  # all bytes at the tap belong to this request

    def __init__(self, name, change=lambda text: text):
        self.name = name
        self.back_end = BackEnd(LIBRARY_SERVER)
        self.tap = Tap(self.back_end)
        self.proxy = Proxy(name, self.tap.port, lambda text: change(self._with_log(activate(text, POLLING))))
        self.proxy.wait_ready()
        self.port = self.proxy.port
        self.log = self.proxy.work / ("access.log" if name == "nginx" else "output")
        self.logged = 0  # bytes of the log that are about earlier requests

    def _with_log(self, text):
        if self.name != "nginx":
            return text
        line = re.compile(r"^    access_log (\S+);", re.MULTILINE)
        assert line.search(text), "the log's line is not as expected"
        return line.sub(rf"    {NGINX_LOG_FORMAT} access_log \1 framing;", text)

    def _log_lines(self):
        with open(self.log, errors="replace") as stream:
            stream.seek(self.logged)
            return stream.read().split("\n")[:-1]

    def forwarded(self, client):
        """How often the proxy says that it sent a request of this client to the back end."""
        count = 0
        pattern = NGINX_LOG_LINE if self.name == "nginx" else HAPROXY_LOG_LINE
        for line in self._log_lines():
            match = pattern.match(line)
            if not match or int(match[1]) != client.port:
                continue
            if self.name == "nginx":
                count += 0 if match[2] == "-" else len(match[2].split(","))
            else:
                count += match[2] == "application"
        return count

    def activity(self, client):
        connections = self.tap.connections()
        return (len(client.received), client.closed, len(connections), self.forwarded(client),
                sum(len(one.to_back_end) + len(one.to_proxy) for one in connections),
                sum(len(self.back_end.events.get(one.port, ())) for one in connections))

    def seen(self, _client):
        return tuple(text for one in self.tap.connections() for text in self.back_end.seen(one.port))

    def finish(self):
        self.tap.finish()
        self.logged = self.log.stat().st_size

    def outcome(self, client, connection):
        connections = self.tap.connections()
        seen = self.seen(client)
        own = [response for one in connections for response in one.given().final()
               if not response.of_application]
        handled = len(seen) + len(own)
        forwarded = self.forwarded(client)
        is_let_go = any(one.closed_by_back_end for one in connections)
        verdicts = []
        if handled > forwarded:
            verdicts.append("smuggled")
        if handled < forwarded and not is_let_go:
            verdicts.append("swallowed")
        if any(self.is_stuck(one) for one in connections):
            verdicts.append("stuck")
        if any(one.given().has_stray for one in connections):
            verdicts.append("stray")
        return Outcome(client.responses(), connection, seen, forwarded, handled, ", ".join(verdicts))

    def is_stuck(self, connection):
        """Whether the back end waits for the end of a body that the proxy has sent to its end."""
        seen = self.back_end.seen(connection.port)
        if len(seen) != 1 or not seen[0].endswith(NO_END):
            return False
        head, _, body = connection.to_back_end.partition(b"\r\n\r\n")
        if b"\r\ntransfer-encoding:" in head.lower():
            return body.endswith(b"0\r\n\r\n")
        length = re.search(rb"\r\ncontent-length: *(\d+)", head.lower())
        return not length or len(body) >= int(length[1])

    def close(self):
        try:
            self.proxy.stop()
        finally:
            self.tap.close()
            self.back_end.stop()


def open_path(name, change=lambda text: text):
    if name == "daemon":
        return DirectPath(name, BARE_DAEMON)
    if name == "library":
        return DirectPath(name, LIBRARY_SERVER)
    if name == "event-driven":
        return DirectPath(name, "env", "WENDREL_TEST_MODE=event-driven", LIBRARY_SERVER)
    return ProxyPath(name, change)


PATHS = ("daemon", "library", "event-driven", "nginx", "haproxy")


def settle(path, client, quiet_seconds):
    """Waits until nothing has happened for so long."""
    last = None
    end = time.monotonic() + quiet_seconds
    while time.monotonic() < end:
        client.look()
        if (now := path.activity(client)) != last:
            last = now
            end = time.monotonic() + quiet_seconds


def observe(path, data, quiet_seconds):
    """The outcome of `data` after long silences, for the table."""
    client = Client(path, data)
    settle(path, client, quiet_seconds)
    connection = client.connection()
    client.close()
    client.closed = True
    settle(path, client, quiet_seconds / 2)
    outcome = path.outcome(client, connection)
    path.finish()
    return outcome


def is_beyond(client, expected):
    """Whether the received bytes contradict the expected outcome."""
    words = client.responses()
    if words and words[-1] == "cut off":
        words = words[:-1]
    return (words != expected.responses[:len(words)]
            or (client.closed and expected.connection == "open"))


def check(path, data, expected, limit_seconds):
    """The outcome of `data`: waits for the expected one, then briefly for more."""
    client = Client(path, data)
    end = time.monotonic() + limit_seconds

    def is_as_expected():
        return (client.responses() == expected.responses and client.connection() == expected.connection
                and path.seen(client) == expected.seen)

    while not is_as_expected() and not is_beyond(client, expected) and time.monotonic() < end:
        client.look()
    # Without an expected event the wait is a fixed time.
    settle(path, client, 0.02 if expected.responses or expected.connection == "closed" else 0.2)
    connection = client.connection()
    # The log of the proxy and the output of the back end may arrive later.
    hopeless = is_beyond(client, expected)
    client.close()
    client.closed = True
    while ((outcome := path.outcome(client, connection)) != expected
           and not hopeless and time.monotonic() < end):
        client.look()
    path.finish()
    return outcome

"""Applications in several instances behind one proxy, clients that keep it busy, and taking an instance out."""

import csv
import http.client
import os
import re
import socket
import subprocess
import threading

from processes import LIMIT_SECONDS, Process, free_port, wait_until


class Instance:
    """A server of ours that can be started again on its port. `command` returns its command for a port."""

    def __init__(self, command):
        self.port = free_port()
        self.command = command(self.port)
        self.start()

    def start(self):
        self.process = Process(*map(str, self.command))
        self.process.wait_line(r".*http://")

    def restart(self):
        code = self.process.stop()
        assert code == 0, f"the instance ended with {code}: {self.process.text()}"
        self.start()


class Client(threading.Thread):
    """Sends GET requests one after the other until `ends` is set, on a persistent or on new connections.

    With `repeats` it repeats a request, as browsers do, if a connection that has been used before is closed
    before the first byte of the response.
    """

    def __init__(self, port, target, content, persistent, repeats=False):
        super().__init__(daemon=True)
        self.port = port
        self.target = target
        self.content = content
        self.persistent = persistent
        self.repeats = repeats
        self.successful = 0
        self.repeated = 0
        self.failures = []
        self.ends = threading.Event()
        self.connection = None
        self.used = False

    def run(self):
        while not self.ends.is_set():
            if not self.connection:
                self.connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
                self.used = False
            responded = False
            try:
                self.connection.request("GET", self.target)
                response = self.connection.getresponse()
                responded = True
                self.read(response)
            except (OSError, http.client.HTTPException) as error:
                closed = isinstance(error, (ConnectionResetError, BrokenPipeError))
                if self.repeats and self.used and closed and not responded:
                    self.repeated += 1
                else:
                    self.failures.append(f"{type(error).__name__} {error}")
                self.close()

    def read(self, response):
        content = response.read()
        self.used = True
        if response.status == 200 and content == self.content:
            self.successful += 1
        else:
            self.failures.append(f"{response.status} {content[:60]!r}")
        if not self.persistent or response.will_close:
            self.close()

    def close(self):
        self.connection.close()
        self.connection = None


class Load:
    """Four clients, two of them on persistent connections; starts and ends with a `with` block."""

    CLIENTS = 4
    REQUESTS_PER_STEP = 100

    def __init__(self, port, target, content, repeats=False):
        self.clients = [Client(port, target, content, number % 2 == 0, repeats)
                        for number in range(self.CLIENTS)]

    def __enter__(self):
        for client in self.clients:
            client.start()
        return self

    def __exit__(self, *_):
        for client in self.clients:
            client.ends.set()
        for client in self.clients:
            client.join(LIMIT_SECONDS)
        assert not any(client.is_alive() for client in self.clients), "a client does not end"

    def successful(self):
        return sum(client.successful for client in self.clients)

    def repeated(self):
        return sum(client.repeated for client in self.clients)

    def failures(self):
        return [text for client in self.clients for text in client.failures]

    def wait_step(self):
        """Waits for some more requests."""
        def count():
            return self.successful() + len(self.failures())

        end = count() + self.REQUESTS_PER_STEP
        wait_until(lambda: count() >= end, "the proxy responds to clients")


class HaproxyAdmin:
    """HAProxy's socket for commands."""

    LINE = "    stats socket unix@admin.sock level admin"
    REQUESTS_ELSEWHERE = 5

    def __init__(self, proxy):
        self.path = str(proxy.work / "admin.sock")
        # It may appear after the first connection to the site has been accepted.
        wait_until(lambda: os.path.exists(self.path), "HAProxy has its socket for commands")

    def command(self, text):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(LIMIT_SECONDS)
            connection.connect(self.path)
            connection.sendall(text.encode() + b"\n")
            return b"".join(iter(lambda: connection.recv(65536), b"")).decode()

    def servers(self):
        """Name to statistics of the server."""
        rows = csv.DictReader(self.command("show stat").lstrip("# ").splitlines())
        return {row["svname"]: row for row in rows
                if row["pxname"] == "application" and row["svname"] != "BACKEND"}

    def wait_checked(self):
        """HAProxy takes a server out at once if its first check fails."""
        wait_until(lambda: all(row["check_status"] == "L7OK" and row["status"].startswith("UP")
                               for row in self.servers().values()), "all instances have been checked")

    def take_out(self, name, _):
        """Returns when no request can reach the server any more.

        A thread of HAProxy may have chosen the server for a request that does not count yet. Such a request
        has been counted when the other servers have got some later ones.
        """
        self.command(f"set server application/{name} state drain")
        seen = None

        def drained():
            nonlocal seen
            servers = self.servers()
            total = servers[name]["stot"]
            others = sum(int(row["stot"]) for server, row in servers.items() if server != name)
            if servers[name]["scur"] != "0" or seen is None or seen[0] != total:
                seen = (total, others)
                return False
            return others >= seen[1] + self.REQUESTS_ELSEWHERE

        wait_until(drained, f"{name} has no requests, and others have")

    def put_back(self, name, _):
        self.command(f"set server application/{name} state ready")


class NginxAdmin:
    """Commands to nginx: a changed configuration, and a reload."""

    def __init__(self, proxy):
        self.proxy = proxy
        self.text = proxy.file.read_text()

    def wait_checked(self):
        """nginx checks nothing."""

    def reload(self):
        """Returns when new workers have started; earlier ones end when their last request has ended."""
        earlier = set(self.proxy.children())
        subprocess.run([*self.proxy.command, "-s", "reload"], check=True, cwd=self.proxy.work,
                       **self.proxy.identity)
        wait_until(lambda: set(self.proxy.children()) - earlier, "nginx starts new workers")
        return earlier

    def take_out(self, _, port):
        text, count = re.subn(rf"(server 127\.0\.0\.1:{port} [^;]*);", r"\1 down;", self.text)
        assert count == 1, f"{count} lines for port {port}"
        self.proxy.file.write_text(text)
        earlier = self.reload()
        wait_until(lambda: not earlier & set(self.proxy.children()), "the earlier workers have ended")

    def put_back(self, *_):
        self.proxy.file.write_text(self.text)
        self.reload()


def admin_of(proxy):
    return HaproxyAdmin(proxy) if proxy.name == "haproxy" else NginxAdmin(proxy)


def second_instance(text, name, port, plain=False):
    """Activates the lines for a second instance on `port`; if `plain`, only its `server` line."""
    marked = 0
    lines = []
    for line in text.splitlines():
        match = re.fullmatch(r"(\s*)#(.*?)\s*# ADAPT: a second instance", line)
        if match and (not plain or re.match(r"server ", match.group(2))):
            line = match.group(1) + match.group(2).replace("127.0.0.1:8182", f"127.0.0.1:{port}")
            marked += 1
        if name == "haproxy" and line == "global":
            line += "\n" + HaproxyAdmin.LINE
        if not plain and name == "nginx" and re.match(r"\s*server 127\S+ max_conns=980;", line):
            line = line.replace("max_conns=980;", "max_conns=980 max_fails=0;")
        lines.append(line)
    assert marked >= 1, "there is no line for a second instance"
    return "\n".join(lines) + "\n"

"""Two instances of examples/hello behind a proxy of deploy/, restarted one after the other under load.

    rolling_restart.py nginx|haproxy HELLO [ROUNDS [plain|drain]]

Clients ask all the time, on connections that they keep and on new ones. Prints how many requests were
answered and how many were not; ends with 1 when one was not. With `plain` the lines that deploy/ has
for several instances are left out but for the second server itself, and nothing is judged. With `drain`
the lines are left out, too, but HAProxy is told by its socket to take each instance out first.
"""

import csv
import http.client
import pathlib
import re
import socket
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
INTEGRATION = HERE.parents[1] / "integration"
sys.path += [str(INTEGRATION / "support"), str(INTEGRATION / "proxies")]
from processes import LIMIT_SECONDS, Process, free_port, wait_until
from support import Proxy, find_program

CLIENTS = 4
ANSWERED_BETWEEN = 100  # requests between two steps


class Instance:
    def __init__(self, program):
        self.program = program
        self.port = free_port()
        self.start()

    def start(self):
        self.process = Process(self.program, str(self.port))
        self.process.wait_line(r"http://")

    def restart(self):
        code = self.process.stop()
        assert code == 0, f"the instance ended with {code}: {self.process.text()}"
        self.start()


class Admin:
    """HAProxy's socket for orders."""

    LINE = "    stats socket unix@admin.sock level admin"

    def __init__(self, proxy):
        self.path = str(proxy.work / "admin.sock")

    def ask(self, order):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(LIMIT_SECONDS)
            connection.connect(self.path)
            connection.sendall(order.encode() + b"\n")
            return b"".join(iter(lambda: connection.recv(65536), b"")).decode()

    def servers(self):
        """Name to what is known of the server."""
        rows = csv.DictReader(self.ask("show stat").lstrip("# ").splitlines())
        return {row["svname"]: row for row in rows
                if row["pxname"] == "application" and row["svname"] != "BACKEND"}

    def wait_checked(self):
        """A first check that fails takes a server out at once."""
        wait_until(lambda: all(row["check_status"] == "L7OK" and row["status"].startswith("UP")
                               for row in self.servers().values()), "all instances have been checked")

    def take_out(self, name):
        self.ask(f"set server application/{name} state drain")
        wait_until(lambda: self.servers()[name]["scur"] == "0", f"{name} has no requests any more")

    def put_back(self, name):
        self.ask(f"set server application/{name} state ready")


class Client(threading.Thread):
    """Asks until it is told to stop, on one connection or on a new one each time."""

    def __init__(self, port, keeps):
        super().__init__(daemon=True)
        self.port = port
        self.keeps = keeps
        self.answered = 0
        self.failures = []
        self.ends = threading.Event()

    def run(self):
        connection = None
        while not self.ends.is_set():
            if not connection:
                connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
            try:
                connection.request("GET", "/hello/you")
                answer = connection.getresponse()
                text = answer.read()
                if answer.status == 200 and text == b"Hello, you!\n":
                    self.answered += 1
                else:
                    self.failures.append(f"{answer.status} {text[:60]!r}")
            except (OSError, http.client.HTTPException) as error:
                self.failures.append(f"{type(error).__name__} {error}")
                connection.close()
                connection = None
                continue
            if not self.keeps or answer.will_close:
                connection.close()
                connection = None


def second_instance(text, name, port, plain):
    """Puts in the lines that are for a second instance."""
    marked = 0
    lines = []
    for line in text.splitlines():
        match = re.fullmatch(r"(\s*)#(.*?)\s*# ADAPT: a second instance", line)
        if match and (not plain or re.match(r"server ", match.group(2))):
            line = match.group(1) + match.group(2).replace("127.0.0.1:8182", f"127.0.0.1:{port}")
            marked += 1
        if name == "haproxy" and line == "global":
            line += "\n" + Admin.LINE
        if not plain and name == "nginx" and re.match(r"\s*server 127\S+ max_conns=980;", line):
            line = line.replace("max_conns=980;", "max_conns=980 max_fails=0;")
        lines.append(line)
    assert marked >= 1, "there is no line for a second instance"
    return "\n".join(lines) + "\n"


def run(name, program, rounds, way):
    instances = {"application": Instance(program), "second": Instance(program)}
    try:
        return run_with(name, instances, rounds, way)
    finally:
        for instance in instances.values():
            instance.process.kill()


def run_with(name, instances, rounds, way):
    plain = way in ("plain", "drain")
    first, second = (instance.port for instance in instances.values())
    proxy = Proxy(name, first, lambda text: second_instance(text, name, second, plain))
    clients = [Client(proxy.port, number % 2 == 0) for number in range(CLIENTS)]

    def asked():
        return sum(client.answered + len(client.failures) for client in clients)

    def go_on():
        before = asked()
        wait_until(lambda: asked() >= before + ANSWERED_BETWEEN, "clients are answered")

    took = []
    try:
        proxy.wait_ready()
        admin = Admin(proxy) if name == "haproxy" else None
        if admin:
            admin.wait_checked()
        for client in clients:
            client.start()
        for server, instance in list(instances.items()) * rounds:
            go_on()
            begin = time.monotonic()
            if way == "drain":
                admin.take_out(server)
            instance.restart()
            if way == "drain":
                admin.put_back(server)
            took.append(time.monotonic() - begin)
        go_on()
    finally:
        for client in clients:
            client.ends.set()
        for client in clients:
            if client.ident:
                client.join(LIMIT_SECONDS)
        log = proxy.log()
        proxy.stop()
    codes = [instance.process.stop() for instance in instances.values()]
    failures = [text for client in clients for text in client.failures]
    answered = sum(client.answered for client in clients)
    print(f"{name}: {2 * rounds} restarts of {max(took):.2f} s at most, {answered} requests answered, "
          f"{len(failures)} not")
    for text in sorted(set(failures)):
        print(f"  {failures.count(text)} times {text}")
    assert codes == [0, 0], codes
    assert not any(client.is_alive() for client in clients), "a client does not end"
    if failures and way != "plain":
        print(log[-3000:])
        return 1
    return 0


def main():
    name, program, *rest = sys.argv[1:]
    if not find_program(name):
        print(f"{name} is missing")
        return 77
    return run(name, program, int(rest[0]) if rest else 3, rest[1] if rest[1:] else "")


if __name__ == "__main__":
    sys.exit(main())

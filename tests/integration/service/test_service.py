#!/usr/bin/env python3
"""filedrop as a service: the test plays the service manager, or starts it by systemd-socket-activate.

    WENDREL_FILEDROP=... python3 test_service.py [Class[.test]]

WENDREL_SERVICE_RESTARTS in the environment says how often it is restarted under load, 5 by default.
"""

import hashlib
import http.client
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parents[1] / "support"))
from live_client import LiveClient
from processes import LIMIT_SECONDS, SANITIZED, Process, free_port, wait_until

SERVER = os.environ.get("WENDREL_FILEDROP", "wendrel-filedrop")
ROOT = HERE.parents[2]
RESTARTS = int(os.environ.get("WENDREL_SERVICE_RESTARTS", "3" if SANITIZED else "5"))
MIB = 1024 * 1024
CONTENT = hashlib.shake_256(b"service").digest(3 * MIB)

# LISTEN_PID is that of the program: it replaces this shell.
ACTIVATE = '[ "$1" = 3 ] || exec 3<&"$1"; export LISTEN_PID=$$; shift; exec "$@"'


class Manager:
    """The two sockets of a service manager: the one of the clients, and the one for its messages."""

    def __init__(self, test, **environment):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="service-"))
        test.addCleanup(shutil.rmtree, self.work)
        self.directory = self.work / "served"
        self.directory.mkdir()
        self.listening = socket.create_server(("127.0.0.1", 0), backlog=512)
        test.addCleanup(self.listening.close)
        self.port = self.listening.getsockname()[1]
        self.messages = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.messages.bind(str(self.work / "notify"))
        self.messages.settimeout(LIMIT_SECONDS)
        test.addCleanup(self.messages.close)
        self.environment = {"NOTIFY_SOCKET": str(self.work / "notify"), "LISTEN_FDS": "1",
                            "LISTEN_FDNAMES": "web", **environment}
        self.test = test
        self.process = None

    def start(self, *options):
        number = self.listening.fileno()
        variables = [f"{name}={value}" for name, value in self.environment.items()]
        self.process = Process("env", *variables, "bash", "-c", ACTIVATE, "activate",
                               str(number), SERVER, "--listen", "systemd:web", "--directory",
                               str(self.directory), *options, pass_fds=(number,))
        self.test.addCleanup(self.process.kill)
        return self.process

    def start_ready(self, *options):
        self.start(*options)
        self.wait_message("READY=1")

    def next_message(self, seconds=LIMIT_SECONDS):
        """The lines of the next message as a dictionary."""
        self.messages.settimeout(seconds)
        try:
            text = self.messages.recv(4096).decode()
        except TimeoutError:
            return {}
        return dict(line.split("=", 1) for line in text.splitlines())

    def wait_message(self, expected):
        name, value = expected.split("=")
        end = time.monotonic() + LIMIT_SECONDS
        while time.monotonic() < end:
            message = self.next_message(max(0.01, end - time.monotonic()))
            if message.get(name) == value:
                return message
        raise AssertionError(f"{expected} did not come:\n{self.process.text()}")

    def stop(self):
        self.process.send(signal.SIGTERM)
        self.wait_message("STOPPING=1")
        code = self.process.wait_end()
        self.test.assertEqual(code, 0, self.process.text())


class Client(threading.Thread):
    """Does the same again and again until `ends` is set. Counts successes, keeps failures."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.port = port
        self.successful = 0
        self.repeated = 0
        self.failures = []
        self.ends = threading.Event()

    def run(self):
        while not self.ends.is_set():
            try:
                self.work()
                self.successful += 1
            except Exception as error:  # pylint: disable=broad-except
                self.failures.append(f"{type(self).__name__}: {type(error).__name__} {error}")

    def ask(self, method, target, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
        try:
            connection.request(method, target, body=body)
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()


class Upload(Client):
    def work(self):
        status, text = self.ask("PUT", f"/files/{threading.get_native_id()}-{self.successful % 4}", CONTENT)
        assert status in (200, 201), (status, text)
        assert json.loads(text)["size"] == len(CONTENT), text


class Download(Client):
    def work(self):
        status, body = self.ask("GET", "/files/large")
        assert status == 200 and body == CONTENT, (status, len(body))


class Small(Client):
    """On one connection for as long as it lives; repeats a request, as browsers do, if a connection that has
    been used before is closed before the first byte of the response."""

    connection = None
    is_used = False

    def work(self):
        while True:
            if not self.connection:
                self.connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
                self.is_used = False
            try:
                self.connection.request("GET", "/api/status")
                response = self.connection.getresponse()
                break
            except (ConnectionResetError, BrokenPipeError):
                self.connection.close()
                self.connection = None
                if not self.is_used:
                    raise
                self.repeated += 1
        text = response.read()
        assert response.status == 200, (response.status, text)
        json.loads(text)
        self.is_used = True
        if response.will_close:
            self.connection.close()
            self.connection = None


class Session(Client):
    """Listens until the server closes the session, as it does when it restarts, and comes back."""

    def work(self):
        live = LiveClient(self.port, LIMIT_SECONDS)
        live.socket.settimeout(0.2)
        try:
            while not self.ends.is_set():
                try:
                    message = live.receive()
                except TimeoutError:
                    # Nothing is lost: messages are shorter than a segment.
                    live.file = live.socket.makefile("rb")
                    continue
                if message is None:
                    assert live.close_code == 1001, live.close_code
                    return
                json.loads(message)
        finally:
            live.close()


class Service(unittest.TestCase):
    def get(self, port, target="/api/status"):
        return Client(port).ask("GET", target)

    def test_tells_that_it_serves_and_stops(self):
        manager = Manager(self)
        manager.start()
        ready = manager.next_message()
        self.assertEqual(ready, {"READY": "1", "STATUS": f"Serving on http://127.0.0.1:{manager.port}/"})
        self.assertEqual(self.get(manager.port)[0], 200)
        manager.stop()
        # Nothing of a watchdog that is not asked for.
        self.assertEqual(manager.next_message(0.01), {})

    def test_is_not_ready_when_it_cannot_start(self):
        manager = Manager(self, LISTEN_FDNAMES="other")
        process = manager.start()
        self.assertEqual(process.wait_end(), 1)
        self.assertIn("cannot listen on systemd:web: no socket of this name was passed to this process "
                      "(LISTEN_FDNAMES)", process.text())
        self.assertEqual(manager.next_message(0.01), {})

    def test_tells_that_it_reloads(self):
        manager = Manager(self)
        manager.start_ready()
        begin = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000
        manager.process.send(signal.SIGHUP)
        message = manager.next_message()
        self.assertEqual(message.pop("RELOADING"), "1")
        self.assertGreaterEqual(int(message["MONOTONIC_USEC"]), begin)
        self.assertEqual(manager.next_message()["READY"], "1")
        self.assertEqual(self.get(manager.port)[0], 200)
        manager.stop()

    def test_watchdog_lives_while_an_upload_waits(self):
        manager = Manager(self, WATCHDOG_USEC="400000")
        manager.start_ready("--workers", "1")
        for _ in range(3):
            manager.wait_message("WATCHDOG=1")
        with socket.create_connection(("127.0.0.1", manager.port), LIMIT_SECONDS) as upload:
            upload.sendall(b"PUT /files/a HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n12345")
            wait_until(lambda: os.listdir(manager.directory), "the upload has begun")
            while manager.next_message(0.001):
                pass
            # Two could be under way if the upload held the only worker.
            for _ in range(3):
                manager.wait_message("WATCHDOG=1")
            upload.sendall(b"x" * 99995)
            self.assertIn(b" 201 ", upload.recv(1000))
        manager.stop()

    def test_watchdog_of_another_process_is_left_alone(self):
        manager = Manager(self, WATCHDOG_USEC="40000", WATCHDOG_PID="1")
        manager.start_ready()
        self.assertEqual(self.get(manager.port)[0], 200)
        self.assertEqual(manager.next_message(0.5), {})
        manager.stop()

    def test_no_request_fails_while_it_restarts(self):
        manager = Manager(self, WATCHDOG_USEC="60000000")
        (manager.directory / "large").write_bytes(CONTENT)
        options = ("--stop-timeout", f"{LIMIT_SECONDS}s")
        manager.start_ready(*options)
        clients = [kind(manager.port) for kind in (Upload, Upload, Download, Download, Small, Small, Session, Session)]
        transfers = clients[:6]
        for client in clients:
            client.start()
        try:
            for _ in range(RESTARTS):
                before = [client.successful for client in transfers]
                wait_until(lambda: any(client.failures for client in clients) or all(
                    client.successful > count + 2 for client, count in zip(transfers, before, strict=True)),
                           "each client has been served")
                manager.stop()
                manager.start_ready(*options)
        finally:
            for client in clients:
                client.ends.set()
            for client in clients:
                client.join(LIMIT_SECONDS)
        manager.stop()
        self.assertFalse(any(client.is_alive() for client in clients))
        failures = [text for client in clients for text in client.failures]
        print()
        for client in clients:
            print(f"metric: service_restarts_{type(client).__name__.lower()} {client.successful} "
                  f"requests, {client.repeated} repeated")
        self.assertEqual(failures, [])
        for client in clients[6:]:
            self.assertGreaterEqual(client.successful, RESTARTS)


@unittest.skipUnless(shutil.which("systemd-socket-activate"), "systemd is missing")
class Activation(unittest.TestCase):
    """By systemd's own program, which starts the service at the first connection."""

    def activate(self, listens, *options):
        work = pathlib.Path(tempfile.mkdtemp(prefix="service-"))
        self.addCleanup(shutil.rmtree, work)
        port = free_port()
        process = Process("systemd-socket-activate", f"--listen=127.0.0.1:{port}", "--fdname=web", SERVER,
                          "--listen", listens, "--directory", str(work), *options)
        self.addCleanup(process.kill)
        wait_until(lambda: any("Listening on" in line for line in process.errors), "it listens")
        return process, port

    def test_first_connection_is_served(self):
        for listens in ("systemd", "systemd:web"):
            with self.subTest(listens):
                process, port = self.activate(listens)
                for _ in range(3):
                    self.assertEqual(Client(port).ask("GET", "/api/status")[0], 200)
                # A child of the service does not get the socket.
                flags = pathlib.Path(f"/proc/{process.pid}/fdinfo/3").read_text().split()
                self.assertTrue(int(flags[flags.index("flags:") + 1], 8) & os.O_CLOEXEC, flags)
                self.assertEqual(process.stop(), 0)

    def test_name_that_was_not_passed_is_an_error(self):
        process, port = self.activate("systemd:other")
        with socket.create_connection(("127.0.0.1", port), LIMIT_SECONDS):
            self.assertEqual(process.wait_end(), 1)
        self.assertIn("no socket of this name", process.text())


@unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is missing")
class Units(unittest.TestCase):
    def analyze(self, *arguments):
        return subprocess.run(["systemd-analyze", *arguments], capture_output=True, text=True,
                              timeout=LIMIT_SECONDS, check=False)

    def units(self):
        work = pathlib.Path(tempfile.mkdtemp(prefix="service-"))
        self.addCleanup(shutil.rmtree, work)
        for name in ("wendrel-filedrop.service", "wendrel-filedrop.socket"):
            text = (ROOT / "deploy" / name).read_text()
            (work / name).write_text(text.replace("/usr/bin/wendrel-filedrop", SERVER))
        return work

    def test_units_are_valid(self):
        work = self.units()
        for name in ("wendrel-filedrop.service", "wendrel-filedrop.socket"):
            done = self.analyze("verify", "--man=no", str(work / name))
            self.assertEqual((done.returncode, done.stderr), (0, ""))
        broken = work / "wendrel-filedrop.service"
        broken.write_text(broken.read_text().replace("ProtectHome=", "ProtectHomes="))
        self.assertIn("ProtectHomes", self.analyze("verify", "--man=no", str(broken)).stderr)

    def test_service_is_confined(self):
        work = self.units()
        done = self.analyze("security", "--offline=true", "--threshold=15", str(work / "wendrel-filedrop.service"))
        exposure = re.search(r"Overall exposure level .*: ([\d.]+)", done.stdout)
        self.assertEqual(done.returncode, 0, exposure)
        self.assertLessEqual(float(exposure[1]), 1.5)

    def test_options_of_the_unit_are_known(self):
        text = (ROOT / "deploy/wendrel-filedrop.service").read_text()
        command = re.search(r"^ExecStart=/usr/bin/wendrel-filedrop (.*)$", text, re.M)[1].split()
        command[command.index("--directory") + 1] = "/nonexistent"
        done = subprocess.run([SERVER, *command], capture_output=True, text=True, timeout=LIMIT_SECONDS,
                              check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("/nonexistent", done.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)

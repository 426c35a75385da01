#!/usr/bin/env python3
"""filedrop and chat are told to stop in the middle of their work, many times each.

    WENDREL_FILEDROP=... WENDREL_CHAT=... python3 test_stops.py [Class[.test]]

WENDREL_STOP_ROUNDS in the environment says how many times, 30 by default.
"""

import json
import os
import pathlib
import random
import shutil
import signal
import socket
import sys
import tempfile
import threading
import time
import unittest

HERE = pathlib.Path(__file__).parent
sys.path += [str(HERE.parents[1] / "support"), str(HERE.parent / "chat")]
import filedrop_server
import test_chat
from live_client import LiveClient
from processes import LIMIT_SECONDS, SANITIZED, Process, free_port, wait_until

ROUNDS = int(os.environ.get("WENDREL_STOP_ROUNDS", "6" if SANITIZED else "30"))
LANES = 3  # servers at a time: most of a round is waiting
MIB = 1024 * 1024
FILE_BYTES = 12 * MIB  # more than the sockets of both sides take
STOP_LIMIT_SECONDS = 1
CHAT_LIMIT_SECONDS = 1  # for the last words
LOADED_MACHINE_SECONDS = 20
PATTERN = random.Random(1).randbytes(FILE_BYTES)


class Metrics:
    def __init__(self, name):
        self.name = name
        self.sums = {}
        self.seconds = []
        self.lock = threading.Lock()

    def count(self, what, amount=1):
        with self.lock:
            self.sums[what] = self.sums.get(what, 0) + amount

    def took(self, seconds):
        with self.lock:
            self.seconds.append(seconds)

    def print(self):
        print()
        for what, amount in sorted(self.sums.items()):
            print(f"metric: {self.name}_{what} {amount} {what.split('_')[0]}")
        print(f"metric: {self.name}_maximum_stop {max(self.seconds) * 1000:.0f} ms")
        print(f"metric: {self.name}_mean_stop {sum(self.seconds) * 1000 / len(self.seconds):.0f} ms")


def run_rounds(one_round):
    """`one_round(number)` for each number, some at a time; the first failure is raised."""
    numbers = iter(range(ROUNDS))
    lock = threading.Lock()
    failures = []

    def lane():
        while not failures:
            with lock:
                number = next(numbers, None)
            if number is None:
                return
            try:
                one_round(number)
            except BaseException as failure:  # pylint: disable=broad-except
                failure.args = (f"round {number}: {failure}",)
                failures.append(failure)

    lanes = [threading.Thread(target=lane) for _ in range(LANES)]
    for each in lanes:
        each.start()
    for each in lanes:
        each.join()
    if failures:
        raise failures[0]


class Client(threading.Thread):
    """Works on a thread of its own; `join` raises its exception."""

    def __init__(self, port, metrics):
        super().__init__(daemon=True)
        self.port = port
        self.metrics = metrics
        self.in_the_middle = threading.Event()
        self.goes_on = threading.Event()
        self.failure = None

    def run(self):
        try:
            self.work()
        except BaseException as failure:  # pylint: disable=broad-except
            self.failure = failure
        self.in_the_middle.set()

    def wait_middle(self):
        assert self.in_the_middle.wait(LIMIT_SECONDS), f"{self} does not come to its middle"

    def join(self, timeout=LIMIT_SECONDS):
        super().join(timeout)
        assert not self.is_alive(), f"{self} does not end"
        if self.failure:
            raise self.failure

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), LIMIT_SECONDS)

    def pause(self):
        """In the middle, until the server has been told to stop."""
        self.in_the_middle.set()
        assert self.goes_on.wait(LIMIT_SECONDS), "nobody goes on"


def read_head(file):
    """Status and headers; None at the end of the connection."""
    try:
        line = file.readline()
        if not line:
            return None, {}
        headers = {}
        while (header := file.readline()) not in (b"\r\n", b""):
            name, _, value = header.decode().partition(":")
            headers[name.lower()] = value.strip()
        return int(line.split()[1]), headers
    except ConnectionError:
        return None, {}


def read_bytes(file, size):
    """As many as come before the end of the connection."""
    data = bytearray()
    try:
        while len(data) < size and (piece := file.read1(min(size - len(data), 65536))):
            data += piece
    except ConnectionError:
        pass
    return bytes(data)


class Upload(Client):
    """Sends half of a file, and the rest after the stop, if that is wanted."""

    def __init__(self, port, metrics, name, finishes):
        super().__init__(port, metrics)
        self.file_name = name
        self.finishes = finishes
        self.status = None

    def work(self):
        with self.connect() as connection, connection.makefile("rb") as file:
            connection.sendall(f"PUT /files/{self.file_name} HTTP/1.1\r\nHost: x\r\n"
                               f"Content-Length: {FILE_BYTES}\r\n\r\n".encode())
            connection.sendall(PATTERN[:FILE_BYTES // 2])
            self.pause()
            if self.finishes:
                connection.sendall(PATTERN[FILE_BYTES // 2:])
            self.status, _ = read_head(file)


class Download(Client):
    """Reads a little, and the rest after the stop."""

    body = b""

    def work(self):
        with self.connect() as connection, connection.makefile("rb") as file:
            connection.sendall(b"GET /files/large HTTP/1.1\r\nHost: x\r\n\r\n")
            status, _ = read_head(file)
            assert status == 200, status
            self.body = read_bytes(file, 65536)
            self.pause()
            self.body += read_bytes(file, FILE_BYTES - len(self.body))


class Asker(Client):
    """Small requests on one connection for as long as it lives."""

    def __init__(self, port, metrics, target):
        super().__init__(port, metrics)
        self.target = target

    def work(self):
        with self.connect() as connection, connection.makefile("rb") as file:
            while True:
                try:
                    connection.sendall(f"GET {self.target} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
                except ConnectionError:
                    return
                status, headers = read_head(file)
                if status is None:
                    return
                body = read_bytes(file, int(headers["content-length"]))
                if len(body) < int(headers["content-length"]):
                    return
                json.loads(body)
                if status == 503:
                    self.metrics.count("requests_refused_while_stopping")
                    return
                assert status == 200, status
                self.metrics.count("requests_served")
                self.in_the_middle.set()


class Listener(Client):
    """A page that listens."""

    def work(self):
        live = LiveClient(self.port, LIMIT_SECONDS)
        try:
            while (message := live.receive()) is not None:
                json.loads(message)
                self.metrics.count("messages_received")
                self.in_the_middle.set()
        finally:
            live.close()


class FileDrop(unittest.TestCase):
    """Running transfers may go on for --stop-timeout; the remaining ones are aborted then."""

    def test_stop_in_the_middle_of_transfers(self):
        metrics = Metrics("stop_filedrop")
        run_rounds(lambda number: self.one_round(number, metrics))
        metrics.print()

    def one_round(self, number, metrics):
        # Two of three let the transfers finish.
        finishes = number % 3 != 0
        stop_limit = LIMIT_SECONDS if finishes else STOP_LIMIT_SECONDS * (number % 2)
        work = pathlib.Path(tempfile.mkdtemp(prefix="stops-"))
        try:
            served = work / "served"
            served.mkdir()
            (served / "large").write_bytes(PATTERN)
            server = filedrop_server.Server(served, "--stop-timeout", f"{stop_limit}s")
            try:
                server.wait_ready()
                self.stop(server, served, metrics, finishes, stop_limit)
            finally:
                server.kill()
        finally:
            shutil.rmtree(work)

    def stop(self, server, served, metrics, finishes, stop_limit):
        uploads = [Upload(server.port, metrics, f"upload-{i}", finishes) for i in range(3)]
        downloads = [Download(server.port, metrics) for _ in range(3)]
        others = [Listener(server.port, metrics) for _ in range(2)]
        others += [Asker(server.port, metrics, "/api/status"), Asker(server.port, metrics, "/api/files")]
        clients = uploads + downloads + others
        for client in clients:
            client.start()
        for client in clients:
            client.wait_middle()
        start = time.monotonic()
        server.send(signal.SIGTERM)
        if finishes:
            wait_until(lambda: any("Stopping on" in line for line in server.errors), "the stop begins")
            for client in clients:
                client.goes_on.set()
        code = server.wait_end()
        took = time.monotonic() - start
        for client in clients:
            client.goes_on.set()
            client.join()
        log = "".join(server.errors)
        self.assertEqual(code, 0, log)
        self.assertNotIn("Sanitizer", log)
        self.assertNotIn("not closed", log)
        metrics.took(took)
        self.check_transfers(uploads, downloads, served, metrics, finishes, log)
        self.assertLess(took, stop_limit + LOADED_MACHINE_SECONDS)

    def check_transfers(self, uploads, downloads, served, metrics, finishes, log):
        expected = ["large"]
        for upload in uploads:
            self.assertEqual(upload.status, 201 if finishes else None)
            if finishes:
                expected.append(upload.file_name)
                self.assertEqual((served / upload.file_name).read_bytes(), PATTERN)
            metrics.count("uploads_finished" if finishes else "uploads_cut_off")
        for download in downloads:
            self.assertEqual(download.body, PATTERN[:len(download.body)])
            if finishes:
                self.assertEqual(len(download.body), FILE_BYTES)
            else:
                self.assertLess(len(download.body), FILE_BYTES)
            metrics.count("downloads_finished" if finishes else "downloads_cut_off")
        self.assertEqual("Some transfers were cut off" in log, not finishes, log)
        self.assertEqual(sorted(os.listdir(served)), sorted(expected))


class Person(test_chat.Person):
    def _read(self, size):
        data = super()._read(size)
        if data is None:
            raise EOFError  # also in the middle of a message
        return data


class Talker(Client):
    """Sends numbered lines and records all lines until the end of the connection."""

    def __init__(self, port, metrics, room, name):
        super().__init__(port, metrics)
        self.room = room
        self.nickname = name
        self.heard = []
        self.own_heard = 0
        self.has_ended = threading.Event()

    def work(self):
        person = Person(self.port)
        person.ask_to_join(self.room, self.nickname)
        speaker = threading.Thread(target=self.speak, args=(person,), daemon=True)
        speaker.start()
        try:
            while True:
                self.take(json.loads(person.receive()))
        except EOFError:
            pass
        finally:
            self.has_ended.set()
            speaker.join(LIMIT_SECONDS)
            person.close()

    def take(self, message):
        if message["type"] == "joined":
            self.in_the_middle.set()
        elif message["type"] == "line":
            self.heard.append((message["from"], message["text"]))
            self.own_heard += message["from"] == self.nickname

    def speak(self, person):
        self.goes_on.wait(LIMIT_SECONDS)
        number = 0
        while not self.has_ended.is_set():
            wait_until(lambda: self.own_heard == number or self.has_ended.is_set(), "a line comes back")
            try:
                person.say(f"line {number}")
            except OSError:
                return
            number += 1


class Chat(unittest.TestCase):
    """The last words on WebSockets have one second."""

    def test_stop_in_the_middle_of_talk(self):
        metrics = Metrics("stop_chat")
        run_rounds(lambda number: self.one_round(number, metrics))
        metrics.print()

    def one_round(self, number, metrics):
        port = free_port()
        server = Process(test_chat.SERVER, "--port", str(port))
        try:
            server.wait_line(r"http://127\.0\.0\.1:")
            self.stop(server, port, metrics)
        finally:
            server.kill()

    def stop(self, server, port, metrics):
        talkers = [Talker(port, metrics, f"room {i % 2}", f"person {i}") for i in range(6)]
        asker = Asker(port, metrics, "/api/status")
        clients = talkers + [asker]
        for client in clients:
            client.start()
        for client in clients:
            client.wait_middle()
        for talker in talkers:
            talker.goes_on.set()
        wait_until(lambda: all(len(talker.heard) >= 5 for talker in talkers), "everybody talks")
        start = time.monotonic()
        server.send(signal.SIGTERM)
        code = server.wait_end()
        took = time.monotonic() - start
        metrics.took(took)
        self.assertLess(took, CHAT_LIMIT_SECONDS + LOADED_MACHINE_SECONDS)
        for client in clients:
            client.join()
        log = "".join(server.errors)
        self.assertEqual(code, 0, log)
        self.assertNotIn("Sanitizer", log)
        self.assertNotIn("not closed", log)
        self.check_talk(talkers, metrics)

    def check_talk(self, talkers, metrics):
        for room in {talker.room for talker in talkers}:
            heard = [talker.heard for talker in talkers if talker.room == room]
            longest = max(heard, key=len)
            self.assertEqual(len(set(longest)), len(longest), "a line was heard twice")
            for lines in heard:
                self.assertEqual(lines, longest[:len(lines)], "another order")
                metrics.count("lines_heard", len(lines))
                metrics.count("lines_missed_at_the_end", len(longest) - len(lines))


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""Runs the commands of docs/getting-started.md and compares their output with the page.

Usage: getting_started.py ROOT PROGRAM...            the five programs as they were built here
       getting_started.py ROOT --install BUILD_DIR   built from the page's text alone, in an empty
                                                     directory, with the library installed from BUILD_DIR
"""

import http.client
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from docs_server import KitServer, reset
from processes import LIMIT_SECONDS, SANITIZED, Process, wait_until

STEPS = (1, 2, 3, 4, 5)
NOTES, FILES, READERS, EVENTS = STEPS[1:]
PORT_OF_THE_PAGE = "8181"
SOCKET_OF_THE_PAGE = "/tmp/events.sock"
NOTE_LIMIT_BYTES = 10000
UPLOAD_LIMIT_BYTES = 16 * 1024 * 1024
DEADLINE_SECONDS = 25
MAX_MEMORY_KB = 32 * 1024
TOO_LARGE = b'{"title":"Content Too Large","status":413}'
NO_SUCH_RANGE = (b'{"title":"Range Not Satisfiable","status":416,'
                 b'"detail":"the file has no such bytes, or the ranges are too many"}')
NO_SUCH_NOTE = b'{"title":"Not Found","status":404,"detail":"There is no such note."}'


class Page:
    def __init__(self, path):
        self.text = path.read_text()

    def section(self, step):
        start = self.text.index(f"\n## Step {step}: ")
        return self.text[start:self.text.index("\n## ", start + 1)]

    def blocks(self, step, language):
        return re.findall(rf"^```{language}\n(.*?)^```$", self.section(step), re.M | re.S)

    def commands(self, step):
        """Each command of the step with the lines that the page shows behind it."""
        commands = []
        for block in self.blocks(step, "console"):
            for line in block.splitlines():
                if line.startswith("$ "):
                    commands.append((line[2:], []))
                else:
                    commands[-1][1].append(line)
        return commands


def is_for_building(command):
    return command.split()[0] in ("mkdir", "cd", "cmake")


def is_server(command):
    return command.startswith("./build/server")


def is_background(command):
    """It waits, for a later command or for the end of the server."""
    return command.endswith(("/next", "/events"))


class Server(KitServer):
    """A step's program, and the commands of the page."""

    def __init__(self, test, program, step):
        self.socket = "DIRECTORY/events.sock"
        super().__init__(test, program, *(["unix:" + self.socket] if step == EVENTS else []))

    def run(self, command):
        """Output of a command of the page, as lines."""
        return subprocess.run(["bash", "-c", self.here(command)], cwd=self.directory, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=LIMIT_SECONDS).stdout.splitlines()

    def run_until_the_end(self, command):
        return Process("env", "-C", self.directory, "bash", "-c", self.here(command))

    def here(self, command):
        return command.replace(f":{PORT_OF_THE_PAGE}/", f":{self.port}/").replace(
            "$(pidof server)", str(self.process.pid))

    def comparable(self, lines):
        """Without the parts that differ between runs."""
        text = "\n".join(lines)
        for port in (self.port, PORT_OF_THE_PAGE):
            text = text.replace(f"127.0.0.1:{port}", "127.0.0.1:PORT")
        text = text.replace(str(self.directory / "events.sock"), SOCKET_OF_THE_PAGE)
        text = re.sub(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d ", "TIME ", text, flags=re.M)
        text = re.sub(r"^(VmHWM:\s+)\d+ kB$", r"VmHWM: NUMBER kB", text, flags=re.M)
        text = re.sub(r"(?:^data: tick \d+\n\n)+", "data: tick NUMBER\n\n", text, flags=re.M)
        return text.replace("^C", "").splitlines()

    def uploads(self):
        return sorted(path.name for path in (self.directory / "uploads").iterdir())


class StepsTest(unittest.TestCase):
    page = None
    programs = {}

    def do_as_the_page_says(self, step, program):
        server = None
        background = []
        for command, shown in self.page.commands(step):
            if is_for_building(command):
                continue
            if is_server(command):
                self.assertIsNone(server, "one server a step")
                server, shown_by_server = Server(self, program, step), shown
            elif is_background(command):
                follower = server.run_until_the_end(command)
                self.addCleanup(follower.kill)
                if "/events" in command:
                    follower.wait_line("data: tick 1$|data: tick 2$")
                background.append((command, shown, follower))
            elif "/messages" in command:
                # The waiting request arrives in its own time; until then nobody gets the message.
                wait_until(lambda line=command, expected=shown: server.run(line) == expected, command)
            else:
                self.run_one(server, command, shown)
        if step == READERS:
            self.finish_background(server, background)
        server.process.send(signal.SIGINT)
        self.assertEqual(server.process.wait_end(), 0)
        self.assertEqual(server.process.errors, [])
        self.compare(server, server.process, shown_by_server)
        if step != READERS:
            self.finish_background(server, background)

    def run_one(self, server, command, shown):
        lines = server.run(command)
        self.assertEqual(server.comparable(lines), server.comparable(shown), command)
        for memory in re.findall(r"^VmHWM:\s+(\d+) kB$", "\n".join(lines), re.M):
            self.assertTrue(SANITIZED or int(memory) < MAX_MEMORY_KB, memory)

    def finish_background(self, server, background):
        for command, shown, follower in background:
            self.assertEqual(follower.wait_end(), 0, command)
            self.compare(server, follower, shown)

    def compare(self, server, process, shown):
        self.assertEqual(server.comparable([line.rstrip("\n") for line in process.output]),
                         server.comparable(shown))


class ProgramsTest(StepsTest):
    def start(self, step):
        return Server(self, self.programs[step], step)

    def test_each_step_prints_the_output_of_the_page(self):
        for step in STEPS:
            with self.subTest(step=step):
                self.do_as_the_page_says(step, self.programs[step])

    def test_a_taken_port_is_said(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            endpoint = f"127.0.0.1:{taken.getsockname()[1]}"
            for step in STEPS:
                with tempfile.TemporaryDirectory(prefix="first-server-") as directory:
                    ended = subprocess.run([self.programs[step], endpoint], cwd=directory, check=False,
                                           capture_output=True, text=True, timeout=LIMIT_SECONDS)
                self.assertEqual((ended.returncode, ended.stderr),
                                 (1, f"cannot listen on {endpoint}: address already in use\n"))

    # Step 2

    def test_notes_are_json(self):
        server = self.start(NOTES)
        texts = ['"\\', "\t\n\x01", "äöü €"]
        for number, text in enumerate(texts, 1):
            status, body, response = server.ask("POST", "/notes", text.encode())
            self.assertEqual((status, json.loads(body)), (201, {"id": number}))
            self.assertEqual(response.getheader("Location"), f"/notes/{number}")
            self.assertEqual(server.ask("GET", f"/notes/{number}")[1], text.encode())
        status, body, response = server.ask("GET", "/notes")
        self.assertEqual((status, response.getheader("Content-Type")), (200, "application/json"))
        self.assertEqual(json.loads(body),
                         [{"id": number, "text": text} for number, text in enumerate(texts, 1)])
        self.assertEqual(json.loads(server.ask("GET", "/notes?contains=%E2%82%AC")[1]),
                         [{"id": 3, "text": texts[2]}])
        self.assertEqual(server.ask("HEAD", "/notes")[:2], (200, b""))
        self.assertEqual(server.process.stop(), 0)

    def test_wrong_requests_get_their_status(self):
        server = self.start(NOTES)
        largest = b"x" * NOTE_LIMIT_BYTES
        chunked = {"encode_chunked": True, "headers": {"Transfer-Encoding": "chunked"}}
        rows = (("POST", "/notes", largest, {}, 201, None),
                ("POST", "/notes", largest + b"x", {}, 413, TOO_LARGE),
                ("POST", "/notes", [largest], chunked, 201, None),
                ("POST", "/notes", [largest, b"x"], chunked, 413, TOO_LARGE),
                ("POST", "/notes", b"", {}, 422, b'{"title":"Unprocessable Content","status":422,"detail":"A note needs a text."}'),
                ("GET", "/notes/7", None, {}, 404, NO_SUCH_NOTE),
                ("DELETE", "/notes/7", None, {}, 404, NO_SUCH_NOTE),
                ("DELETE", "/notes/1", None, {}, 204, b""))
        for method, target, sent, more, status, expected in rows:
            with self.subTest(f"{method} {target}", status=status):
                got, body, _ = server.ask(method, target, sent, **more)
                self.assertEqual(got, status)
                if expected is not None:
                    self.assertEqual(body, expected)
        self.assertEqual(server.process.stop(), 0)

    # Step 3

    def test_uploads_are_limited(self):
        server = self.start(FILES)
        largest = bytes(UPLOAD_LIMIT_BYTES)
        rows = (("declared", largest, {}, 200), ("declared", largest + b"x", {}, 413),
                ("chunked", [largest], {"encode_chunked": True}, 200),
                ("chunked", [largest, b"x"], {"encode_chunked": True}, 413))
        for name, body, more, expected in rows:
            with self.subTest(name, status=expected):
                headers = {"Transfer-Encoding": "chunked"} if more else {}
                try:
                    status, text, _ = server.ask("PUT", "/files/a", body, headers=headers, **more)
                except ConnectionError:
                    # The refusal of a declared body is sent at once, and the connection closed.
                    self.assertEqual((name, expected), ("declared", 413))
                    continue
                self.assertEqual(status, expected)
                self.assertEqual(text, TOO_LARGE if status == 413 else b"16777216 bytes stored\n")
                self.assertEqual(server.uploads(), ["a"])
                self.assertEqual((server.directory / "uploads/a").stat().st_size, UPLOAD_LIMIT_BYTES)
        self.assertEqual(server.process.stop(), 0)

    def test_a_part_of_a_file_is_sent(self):
        server = self.start(FILES)
        content = bytes(range(100))
        server.ask("PUT", "/files/a", content)
        rows = (("bytes=0-9", 206, content[:10], "bytes 0-9/100"),
                ("bytes=90-", 206, content[90:], "bytes 90-99/100"),
                ("bytes=99-99", 206, content[99:], "bytes 99-99/100"),
                ("bytes=0-100000", 206, content, "bytes 0-99/100"),
                ("bytes=100-", 416, NO_SUCH_RANGE, "bytes */100"),
                ("bytes=-5", 206, content[95:], "bytes 95-99/100"), ("lines=1-2", 200, content, None),
                ("bytes=7-6", 200, content, None), ("bytes=1-2,4-5", 206, content[1:6], "bytes 1-5/100"),
                ("bytes=1", 200, content, None), ("bytes=99999999999999999999-", 416, NO_SUCH_RANGE, "bytes */100"))
        for wanted, status, expected, shown in rows:
            with self.subTest(wanted):
                got, body, response = server.ask("GET", "/files/a", headers={"Range": wanted})
                self.assertEqual((got, body), (status, expected))
                self.assertEqual(response.getheader("Content-Range"), shown)
                self.assertEqual(response.getheader("Accept-Ranges"), None if status == 416 else "bytes")
        self.assertEqual(server.process.stop(), 0)

    def test_no_name_leads_out_of_the_directory(self):
        server = self.start(FILES)
        for name in ("..%2Fa", ".a", "%2Fa", "a%5Cb"):
            status, text, _ = server.ask("PUT", f"/files/{name}", b"x")
            self.assertEqual((status, text), (400, b'{"title":"Bad Request","status":400,"detail":"This name is not allowed."}'),
                             name)
        for name in ("..%00", "a%00b"):
            status, text, _ = server.ask("PUT", f"/files/{name}", b"x")
            self.assertEqual(status, 400, name)
            self.assertIn(b"percent-encoded control character in the path at byte ", text, name)
        self.assertEqual(server.uploads(), [])
        self.assertEqual(server.process.stop(), 0)

    def test_nothing_is_left_of_an_upload_that_was_broken_off(self):
        server = self.start(FILES)
        connection = server.begin_upload("PUT", "/files/half", 1000000, b"x" * 300000)
        wait_until(server.uploads, "the upload has begun")
        reset(connection)
        wait_until(lambda: not server.uploads(), "the half file is removed")
        self.assertEqual(server.process.stop(), 0)

    def test_running_transfers_are_finished_at_the_stop(self):
        server = self.start(FILES)
        content = os.urandom(UPLOAD_LIMIT_BYTES)
        self.assertEqual(server.ask("PUT", "/files/large", content)[0], 200)
        download = server.connect(receive_bytes=65536)
        download.request("GET", "/files/large")
        response = download.getresponse()
        body = response.read(1000)
        upload = server.begin_upload("PUT", "/files/late", len(content), content[:1000000])
        wait_until(lambda: len(server.uploads()) == 2, "the upload has begun")
        server.process.send(signal.SIGTERM)
        server.wait_until_stopping()
        upload.send(content[1000000:])
        stored = upload.getresponse()
        self.assertEqual((stored.status, stored.read()), (200, b"16777216 bytes stored\n"))
        body += response.read()
        self.assertTrue(body == content, f"{len(body)} bytes have come")
        download.close()
        upload.close()
        self.assertEqual(server.process.wait_end(), 0)
        self.assertTrue((server.directory / "uploads/late").read_bytes() == content)

    def test_a_transfer_that_does_not_end_is_aborted(self):
        server = self.start(FILES)
        server.ask("PUT", "/files/large", bytes(UPLOAD_LIMIT_BYTES))
        connection = server.connect(receive_bytes=65536)
        connection.request("GET", "/files/large")
        response = connection.getresponse()
        got = len(response.read(1000))
        server.process.send(signal.SIGTERM)
        self.assertEqual(server.process.wait_end(), 0)
        try:
            while piece := response.read(1000000):
                got += len(piece)
        except (http.client.IncompleteRead, ConnectionError):
            pass
        self.assertLess(got, UPLOAD_LIMIT_BYTES)

    # Step 4

    def wait_for_message(self, server):
        reader = server.connect()
        reader.request("GET", "/next")
        return reader

    def test_readers_get_the_next_message(self):
        server = self.start(READERS)
        readers = [self.wait_for_message(server) for _ in range(40)]
        served = 0

        def all_served():
            nonlocal served
            served += int(server.ask("POST", "/messages", b"hello")[1].split()[0])
            return served == len(readers)

        # Requests that have been sent arrive in their own time.
        wait_until(all_served, "every reader waits")
        for reader in readers:
            response = reader.getresponse()
            self.assertEqual((response.status, response.read()), (200, b"hello\n"))
        self.assertEqual(server.process.stop(), 0)

    def test_readers_that_leave_are_not_counted(self):
        server = self.start(READERS)
        for _ in range(40):
            reset(self.wait_for_message(server))
        wait_until(lambda: server.ask("POST", "/messages", b"x")[1] == b"0 readers\n", "all have left")
        self.assertEqual(server.process.stop(), 0)
        self.assertEqual(server.process.errors, [])

    def test_a_reader_without_a_message_gets_204(self):
        server = self.start(READERS)
        begin = time.monotonic()
        status, body, _ = server.ask("GET", "/next")
        self.assertEqual((status, body), (204, b""))
        self.assertGreaterEqual(time.monotonic() - begin, DEADLINE_SECONDS - 1)
        self.assertEqual(server.ask("POST", "/messages", b"x")[1], b"0 readers\n")
        self.assertEqual(server.process.stop(), 0)

    def test_readers_get_204_at_the_stop(self):
        server = self.start(READERS)
        readers = [self.wait_for_message(server) for _ in range(3)]
        server.process.send(signal.SIGTERM)
        for reader in readers:
            response = reader.getresponse()
            self.assertEqual((response.status, response.read()), (204, b""))
        self.assertEqual(server.process.wait_end(), 0)

    # Step 5

    def test_events_come_by_both_endpoints(self):
        server = self.start(EVENTS)
        curl = server.run_until_the_end(
            f"curl -sN --unix-socket {server.directory}/events.sock http://localhost/events")
        self.addCleanup(curl.kill)
        curl.wait_line(r"data: tick \d+$")
        response = server.connect()
        response.request("GET", "/events")
        stream = response.getresponse()
        self.assertEqual(stream.getheader("Content-Type"), "text/event-stream")
        self.assertEqual(stream.getheader("Cache-Control"), "no-store")
        self.assertRegex(stream.readline(), rb"^data: tick \d+\n$")
        server.process.send(signal.SIGTERM)
        self.assertTrue(stream.read().endswith(b"data: the server stops\n\n"))
        self.assertEqual(curl.wait_end(), 0)
        self.assertEqual(curl.output[-2:], ["data: the server stops\n", "\n"])
        self.assertEqual(server.process.wait_end(), 0)
        self.assertEqual(server.process.output[-1], "every request was served\n")

    def test_clients_that_leave_do_not_delay_the_stop(self):
        server = self.start(EVENTS)
        for _ in range(20):
            reader = server.connect()
            reader.request("GET", "/events")
            reader.getresponse().readline()
            reader.close()
        self.assertEqual(server.process.stop(), 0)
        self.assertEqual(server.process.output[-1], "every request was served\n")
        self.assertEqual(server.process.errors, [])


class EmptyDirectoryTest(StepsTest):
    build_folder = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="first-server-")
        self.addCleanup(folder.cleanup)
        self.work = pathlib.Path(folder.name)
        self.prefix = self.work / "prefix"
        for component in ("runtime", "development"):
            self.run_here("cmake", "--install", self.build_folder, "--prefix", self.prefix,
                          "--component", component)

    def run_here(self, *command, directory=None, **variables):
        ended = subprocess.run(command, cwd=directory, check=False, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, timeout=3 * LIMIT_SECONDS,
                               env={**os.environ, **variables})
        self.assertEqual(ended.returncode, 0, ended.stdout)

    def test_programs_are_built_from_the_page_alone(self):
        """The first step with pkg-config, the others with CMake."""
        building = [command for command, _ in self.page.commands(1) if is_for_building(command)]
        self.assertEqual(building[:2], ["mkdir first-server", "cd first-server"])
        directory = self.work / "first-server"
        directory.mkdir()
        (directory / "CMakeLists.txt").write_text(self.page.blocks(1, "cmake")[0])

        (directory / "main.cpp").write_text(self.page.blocks(1, "cpp")[0])
        one_line = re.search(r"`(g\+\+ [^`]*pkg-config[^`]*)`", self.page.section(1))[1]
        libraries = next(self.prefix.rglob("libWendrel.so")).parent
        # The page assumes an installation in the system directories; here it has a prefix of its own.
        self.run_here("bash", "-c", one_line, directory=directory,
                      PKG_CONFIG_PATH=str(libraries / "pkgconfig"), LD_RUN_PATH=str(libraries))
        self.do_as_the_page_says(1, directory / "server")

        for step in STEPS[1:]:
            (directory / "main.cpp").write_text(self.page.blocks(step, "cpp")[0])
            for command in building[2:]:
                self.run_here("bash", "-c", command, directory=directory,
                              CMAKE_PREFIX_PATH=str(self.prefix))
            self.do_as_the_page_says(step, directory / "build/server")


def main():
    root = pathlib.Path(sys.argv[1])
    StepsTest.page = Page(root / "docs/getting-started.md")
    suite = unittest.TestSuite()
    load = unittest.defaultTestLoader.loadTestsFromTestCase
    if sys.argv[2] == "--install":
        EmptyDirectoryTest.build_folder = sys.argv[3]
        suite.addTests(load(EmptyDirectoryTest))
    else:
        StepsTest.programs = dict(zip(STEPS, sys.argv[2:], strict=True))
        suite.addTests(load(ProgramsTest))
    return 0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())

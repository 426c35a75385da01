"""Runs the commands of docs/getting-started.md and compares their output with the page.

Usage: getting_started.py ROOT PROGRAM...            the four programs as they were built here
       getting_started.py ROOT --install BUILD_DIR   built from the page's text alone, in an empty
                                                     directory, with the library installed from BUILD_DIR
"""

import http.client
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

from docs_server import DocsServer, reset
from processes import LIMIT_SECONDS, SANITIZED, Process, wait_until

STEPS = (1, 2, 3, 4)
PORT_OF_THE_PAGE = "8181"
COMMAND_LIMIT_SECONDS = 5 * LIMIT_SECONDS  # one streams 169 MB, slowly without optimisation
UPLOAD_LIMIT_BYTES = 16 * 1024 * 1024
MAX_MEMORY_KB = 32 * 1024
LAST_NUMBER = 3000000  # 23 MB: more than the socket buffers of both sides hold
UNSENT_BYTES = 6000000  # still more than these
ALL_NUMBERS = "".join(f"{number}\n" for number in range(1, LAST_NUMBER + 1)).encode()


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


def comparable(lines, port):
    """Without the parts that differ between runs."""
    text = "\n".join(lines).replace(f":{port}/", ":PORT/").replace(f"@{port},", "@PORT,")
    text = re.sub(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d ", "TIME ", text, flags=re.M)
    text = re.sub(r"^(VmHWM:\s+)\d+ kB$", r"VmHWM: NUMBER kB", text, flags=re.M)
    text = re.sub(r"(?:^tick \d+\n)+", "tick NUMBER\n", text, flags=re.M)
    return text.replace("^C", "").splitlines()


class Server(DocsServer):
    """A step's program, and the commands of the page."""

    def run(self, command):
        """Output of a command of the page, as lines."""
        return subprocess.run(["bash", "-c", self.here(command)], cwd=self.directory, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=COMMAND_LIMIT_SECONDS).stdout.splitlines()

    def run_until_the_end(self, command):
        return Process("env", "-C", self.directory, "bash", "-c", self.here(command))

    def here(self, command):
        return command.replace(f":{PORT_OF_THE_PAGE}/", f":{self.port}/").replace(
            "$(pidof server)", str(self.process.pid))

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
                server, shown_by_server = Server(self, program), shown
            elif "/ticks" in command:
                follower = server.run_until_the_end(command)
                self.addCleanup(follower.kill)
                follower.wait_line("tick 1$")
                background.append((command, shown, follower))
            else:
                lines = server.run(command)
                self.assertEqual(comparable(lines, server.port),
                                 comparable(shown, PORT_OF_THE_PAGE), command)
                for memory in re.findall(r"^VmHWM:\s+(\d+) kB$", "\n".join(lines), re.M):
                    self.assertTrue(SANITIZED or int(memory) < MAX_MEMORY_KB, memory)
        server.process.send(signal.SIGINT)
        self.assertEqual(server.process.wait_end(), 0)
        self.assertEqual(server.process.errors, [])
        self.compare(server.process, shown_by_server, server.port)
        for command, shown, follower in background:
            self.assertEqual(follower.wait_end(), 0, command)
            self.compare(follower, shown, server.port)

    def compare(self, process, shown, port):
        self.assertEqual(comparable([line.rstrip("\n") for line in process.output], port),
                         comparable(shown, PORT_OF_THE_PAGE))


class ProgramsTest(StepsTest):
    def test_each_step_prints_the_output_of_the_page(self):
        for step in STEPS:
            with self.subTest(step=step):
                self.do_as_the_page_says(step, self.programs[step])

    def test_a_running_download_arrives_completely(self):
        for step in STEPS[1:]:
            with self.subTest(step=step):
                server = Server(self, self.programs[step])
                connection = server.connect(receive_bytes=65536)
                connection.request("GET", f"/numbers/{LAST_NUMBER}")
                response = connection.getresponse()
                # The rest has to arrive within the 10 s that the program waits.
                body = response.read(len(ALL_NUMBERS) - UNSENT_BYTES)
                server.process.send(signal.SIGTERM)
                refusal = server.wait_until_refusing("/hello/x")
                self.assertEqual(refusal.getheader("Retry-After"), "1")
                body += response.read()
                connection.close()
                self.assertTrue(body == ALL_NUMBERS, f"{len(body)} bytes have come")
                self.assertEqual(server.process.wait_end(), 0)
                if step == 4:
                    self.assertEqual(server.process.output[-1], "every request was served\n")

    def test_a_running_upload_is_stored(self):
        server = Server(self, self.programs[4])
        body = ALL_NUMBERS[:10000000]
        connection = server.begin_upload("PUT", "/files/late", len(body), body[:1000000])
        wait_until(server.uploads, "the upload has begun")
        server.process.send(signal.SIGTERM)
        server.wait_until_refusing("/hello/x")
        connection.send(body[1000000:])
        response = connection.getresponse()
        self.assertEqual((response.status, response.read()), (200, b"10000000 bytes stored\n"))
        connection.close()
        self.assertEqual(server.process.wait_end(), 0)
        self.assertEqual(server.process.output[-1], "every request was served\n")
        self.assertTrue((server.directory / "uploads/late").read_bytes() == body)

    def test_a_request_beyond_the_limit_is_cut_off(self):
        server = Server(self, self.programs[4], "1")
        connection = server.connect(receive_bytes=65536)
        connection.request("GET", f"/numbers/{LAST_NUMBER}")
        response = connection.getresponse()
        begin = response.read(1000)
        server.process.send(signal.SIGTERM)
        self.assertEqual(server.process.wait_end(), 0)
        self.assertEqual(server.process.output[-1], "some requests were cut off\n")
        with self.assertRaises((http.client.IncompleteRead, ConnectionError)):
            while piece := response.read(1000000):
                begin += piece
        self.assertLess(len(begin), len(ALL_NUMBERS))

    def test_uploads_are_limited(self):
        server = Server(self, self.programs[3])
        refused = b'{"error":"At most 16777216 bytes are taken.","status":413}'
        largest = bytes(UPLOAD_LIMIT_BYTES)
        rows = (("declared", largest, {}, 200), ("declared", largest + b"x", {}, 413),
                ("chunked", [largest], {"encode_chunked": True}, 200),
                ("chunked", [largest, b"x"], {"encode_chunked": True}, 413))
        for name, body, more, expected in rows:
            with self.subTest(name, status=expected):
                headers = {"Transfer-Encoding": "chunked"} if more else {}
                status, text, _ = server.ask("PUT", "/files/a", body, headers=headers, **more)
                self.assertEqual(status, expected)
                self.assertEqual(text, refused if status == 413 else b"16777216 bytes stored\n")
                self.assertEqual(server.uploads(), ["a"])
                self.assertEqual((server.directory / "uploads/a").stat().st_size, UPLOAD_LIMIT_BYTES)
        self.assertEqual(server.process.stop(), 0)

    def test_no_name_leads_out_of_the_directory(self):
        server = Server(self, self.programs[3])
        for name in ("..%2Fa", ".a", "%2Fa", "a%5Cb"):
            status, text, _ = server.ask("PUT", f"/files/{name}", b"x")
            self.assertEqual((status, text), (400, b'{"error":"This name is not allowed.","status":400}'),
                             name)
        for name in ("..%00", "a%00b"):
            status, text, _ = server.ask("PUT", f"/files/{name}", b"x")
            self.assertEqual(status, 400, name)
            self.assertIn(b"percent-encoded control character in the path at byte ", text, name)
        self.assertEqual(server.uploads(), [])
        self.assertEqual(server.process.stop(), 0)

    def test_nothing_is_left_of_an_upload_that_was_broken_off(self):
        server = Server(self, self.programs[3])
        connection = server.begin_upload("PUT", "/files/half", 1000000, b"x" * 300000)
        wait_until(server.uploads, "the upload has begun")
        reset(connection)
        wait_until(lambda: not server.uploads(), "the half file is removed")
        self.assertEqual(server.process.stop(), 0)

    def test_a_taken_port_is_said(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            for step in STEPS:
                ended = subprocess.run([self.programs[step], str(port)], cwd=self.scratch(), check=False,
                                       capture_output=True, text=True, timeout=LIMIT_SECONDS)
                self.assertEqual((ended.returncode, ended.stderr), (1, f"cannot listen on port {port}\n"))

    def scratch(self):
        directory = tempfile.mkdtemp(prefix="first-server-")
        self.addCleanup(shutil.rmtree, directory)
        return directory


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
        """The first step with pkg-config, the last one with CMake."""
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

        (directory / "main.cpp").write_text(self.page.blocks(STEPS[-1], "cpp")[0])
        for command in building[2:]:
            self.run_here("bash", "-c", command, directory=directory,
                          CMAKE_PREFIX_PATH=str(self.prefix))
        self.do_as_the_page_says(STEPS[-1], directory / "build/server")


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

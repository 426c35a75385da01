"""Tests the log of logging.cpp, and compares its lines with those of docs/logging.md.

Usage: logging_lines.py ROOT PROGRAM
"""

import pathlib
import re
import socket
import subprocess
import sys
import unittest

from docs_server import KitServer
from processes import LIMIT_SECONDS

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d"


def comparable(text):
    """Without time, thread and port."""
    text = re.sub(rf"^{TIME} (\w+) (\[\w+\] )?\d+ ", r"TIME \1 \2THREAD ", text, flags=re.M)
    return re.sub(r"127\.0\.0\.1:\d+", "127.0.0.1:PORT", text)


class Logging(unittest.TestCase):
    program = None
    page = None

    def start(self, level):
        server = KitServer(self, self.program, "log.txt", level)
        self.log = server.directory / "log.txt"
        return server

    def send(self, server, request):
        """Sends raw bytes; returns all bytes received."""
        with socket.create_connection(("127.0.0.1", server.port), LIMIT_SECONDS) as connection:
            connection.sendall(request)
            return b"".join(iter(lambda: connection.recv(65536), b""))

    def test_lines_are_those_of_the_page(self):
        server = self.start("information")
        self.assertEqual(server.ask("GET", "/")[1], b"The shop is open.\n")
        self.assertEqual(server.ask("GET", "/order/tea")[0], 500)
        self.assertIn(b" 400 ", self.send(server, b"GET / HTTP/1.1\r\n\r\n"))
        self.assertEqual(server.process.stop(), 0)
        section = self.page.read_text().split("\n## Example\n")[1]
        shown = "".join(line.removeprefix("    ") + "\n" for line in section.splitlines()
                        if line.startswith("    "))
        self.assertEqual(comparable(self.log.read_text()), comparable(shown))
        # The custom sink has the same lines in its own layout.
        plain = re.sub(r"^TIME (\w+) (?:\[(\w+)\] )?THREAD ",
                       lambda line: f"{line[1]} {line[2] or '-'} ", comparable(shown), flags=re.M)
        self.assertEqual(comparable("".join(server.process.errors)), plain)

    def test_a_level_can_be_lower(self):
        server = self.start("debug")
        server.ask("GET", "/")
        self.assertEqual(server.process.stop(), 0)
        self.assertRegex(self.log.read_text(),
                         rf"(?m)^{TIME} debug \[shop\] \d+ somebody looks at the page$")

    def test_each_request_has_its_line(self):
        server = self.start("debug")
        server.ask("GET", "/")
        server.ask("GET", "/order/tea?n=1")
        self.send(server, b"GET /bad HTTP/1.1\r\n\r\n")
        self.assertEqual(server.process.stop(), 0)
        # In no order.
        lines = re.findall(rf"(?m)^{TIME} debug \[shop\] \d+ (127.*)$", self.log.read_text())
        lines.sort()
        self.assertRegex(lines[1], r"\A127\.0\.0\.1 GET / 200 18 bytes \d+ ms\Z")
        self.assertRegex(lines[2], r"\A127\.0\.0\.1 GET /order/tea\?n=1 500 46 bytes \d+ ms\Z")
        self.assertRegex(lines[0], r"\A127\.0\.0\.1  /bad WriteError 0 bytes 0 ms\Z")
        self.assertEqual(len(lines), 3)

    def test_escapes_cannot_be_forged(self):
        server = self.start("error")
        # Control characters do not come as far as a line.
        self.assertEqual(server.ask("GET", "/order/%0A%1B[31m")[0], 400)
        self.assertEqual(server.ask("GET", "/order/%5Cn")[0], 500)
        self.assertEqual(server.process.stop(), 0)
        # The text of the exception is as the handler made it.
        line = "GET /order/{item}: the handler failed: no "
        self.assertRegex(self.log.read_text(),
                         rf"\A{TIME} error \[kit\] \d+ {re.escape(line)}\\\\n\n\Z")
        self.assertEqual("".join(server.process.errors), f"error kit {line}\\\\n\n")

    def test_a_file_that_cannot_be_written_is_said(self):
        ended = subprocess.run([self.program, "127.0.0.1:0", "/proc/nowhere/log.txt", "information"], check=False,
                               capture_output=True, text=True, timeout=LIMIT_SECONDS)
        self.assertEqual(ended.returncode, 1)
        self.assertRegex(ended.stderr, "^Failed opening file /proc/nowhere/log.txt for writing: ")


if __name__ == "__main__":
    Logging.page = pathlib.Path(sys.argv.pop(1)) / "docs/logging.md"
    Logging.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

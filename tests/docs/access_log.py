"""Tests the access log of access_log.cpp. Usage: access_log.py PROGRAM"""

import json
import signal
import sys
import unittest

from docs_server import KitServer
from processes import wait_until


class AccessLog(unittest.TestCase):
    program = None

    def lines(self, name):
        path = self.server.directory / name
        return path.read_text(encoding="ascii").splitlines() if path.exists() else []

    def test_a_renamed_file_is_opened_again(self):
        self.server = KitServer(self, self.program)
        self.server.ask("GET", "/first", headers={"User-Agent": "two\\words \"q\""})
        wait_until(lambda: self.lines("access.log"), "a line")
        self.assertRegex(self.lines("access.log")[0],
                         r'^127\.0\.0\.1 - - \[\d\d/[A-Z][a-z]{2}/\d{4}:\d\d:\d\d:\d\d \+0000\] '
                         r'"GET /first HTTP/1\.1" 404 \d+ "-" "two\\\\words \\"q\\"" '
                         r'0\.\d{6} "-" - -$')
        (self.server.directory / "access.log").rename(self.server.directory / "access.log.1")
        self.server.process.send(signal.SIGHUP)
        wait_until(lambda: (self.server.directory / "access.log").exists(), "the new file")
        self.server.ask("GET", "/second")
        wait_until(lambda: self.lines("access.log"), "a line of the new file")
        self.assertEqual(self.server.process.stop(), 0)
        self.assertEqual(len(self.lines("access.log.1")), 1)
        self.assertIn("/second", self.lines("access.log")[0])

    def test_json(self):
        self.server = KitServer(self, self.program, "json")
        self.server.ask("GET", "/")
        self.assertEqual(self.server.process.stop(), 0)
        (line,) = self.lines("access.json")
        entry = json.loads(line)
        self.assertEqual((entry["status"], entry["sentBytes"], entry["route"]), (200, 7, "GET /"))


if __name__ == "__main__":
    AccessLog.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

"""Tests the server of compression.cpp with curl and zstd. Usage: compression.py PROGRAM"""

import gzip
import subprocess
import sys
import unittest

from docs_server import KitServer
from processes import LIMIT_SECONDS

REPORT = "".join(f"line {i}\n" for i in range(1000)).encode()


class Compression(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = KitServer(self, self.program)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def ask(self, target, coding):
        _, body, response = self.server.ask("GET", target, headers={"Accept-Encoding": coding})
        return response.getheader("Content-Encoding"), body

    def test_codings(self):
        coding, body = self.ask("/report", "gzip")
        self.assertEqual((coding, gzip.decompress(body)), ("gzip", REPORT))
        coding, body = self.ask("/report", "zstd, gzip")
        self.assertEqual(coding, "zstd")
        done = subprocess.run(["zstd", "-dc"], input=body, check=True, capture_output=True,
                              timeout=LIMIT_SECONDS)
        self.assertEqual(done.stdout, REPORT)
        self.assertEqual(self.ask("/report", "identity"), (None, REPORT))

    def test_curl(self):
        url = f"http://127.0.0.1:{self.server.port}/report"
        done = subprocess.run(["curl", "-s", "--compressed", url], check=True, capture_output=True,
                              timeout=LIMIT_SECONDS)
        self.assertEqual(done.stdout, REPORT)

    def test_the_route_that_is_left_out(self):
        self.assertEqual(self.ask("/account", "gzip"), (None, REPORT))


if __name__ == "__main__":
    Compression.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

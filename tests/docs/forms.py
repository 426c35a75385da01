"""Tests the handlers of forms.cpp with curl. Usage: forms.py PROGRAM"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

from docs_server import KitServer
from processes import LIMIT_SECONDS


class Forms(unittest.TestCase):
    program = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="wendrel-docs-")
        self.addCleanup(folder.cleanup)
        self.work = pathlib.Path(folder.name)
        self.store = self.work / "store"
        self.store.mkdir()
        self.server = KitServer(self, self.program, self.store)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def curl(self, target, *arguments):
        """Status and body."""
        url = f"http://127.0.0.1:{self.server.port}{target}"
        done = subprocess.run(["curl", "-s", "-w", "\n%{http_code}", url, *arguments], check=True,
                              capture_output=True, timeout=LIMIT_SECONDS)
        body, _, status = done.stdout.decode().rpartition("\n")
        return int(status), body

    def test_fields_of_both_encodings(self):
        self.assertEqual(self.curl("/tasks", "-d", "title=milk", "-d", "urgent=on"),
                         (200, "milk, 3, urgent\n"))
        self.assertEqual(self.curl("/tasks", "--data-urlencode", "title=tea & \u00e4", "-d", "priority=5"),
                         (200, "tea & \u00e4, 5\n"))
        self.assertEqual(self.curl("/tasks", "-F", 'title=a "b"', "-F", "priority=1"),
                         (200, 'a "b", 1\n'))

    def test_a_small_file(self):
        picture = self.work / "picture"
        picture.write_bytes(b"\x89PNG\r\n\x1a\n")
        self.assertEqual(self.curl("/tasks", "-F", "title=x", "-F",
                                   f'picture=@{picture};filename="my \\"picture\\".png"'),
                         (200, "x, 3, my _picture_.png of 8 bytes\n"))

    def test_errors(self):
        self.assertEqual(self.curl("/tasks", "-d", "priority=2")[0], 400)
        status, body = self.curl("/tasks", "-d", "title=x&priority=6")
        self.assertEqual(status, 400)
        self.assertIn(r"the form field \"priority\" must be from 1 to 5", body)
        self.assertEqual(self.curl("/tasks", "--json", "{}")[0], 415)

    def test_uploads(self):
        large = self.work / "large.bin"
        large.write_bytes(bytes(range(256)) * 100000)
        small = self.work / "small.txt"
        small.write_text("--\r\n")
        status, body = self.curl("/upload", "-F", "album=May", "-F", f"f=@{large}",
                                 "-F", f"f=@{small};filename=../../small.txt")
        self.assertEqual((status, body), (200, "May\nlarge.bin: 25600000\nsmall.txt: 4\n"))
        self.assertEqual((self.store / "large.bin").read_bytes(), large.read_bytes())
        self.assertEqual(sorted(path.name for path in self.store.iterdir()),
                         ["large.bin", "small.txt"])
        (self.store / "large.bin").unlink()
        self.assertEqual(self.curl("/later", "-F", "album=May", "-F", f"f=@{large}", "-F", "f=@/dev/null;filename="),
                         (200, "large.bin: 25600000\n"))
        self.assertEqual((self.store / "large.bin").read_bytes(), large.read_bytes())


if __name__ == "__main__":
    Forms.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

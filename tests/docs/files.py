"""Tests the handlers of files.cpp with curl and requests of Python. Usage: files.py PROGRAM"""

import email.parser
import email.policy
import gzip
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

from docs_server import KitServer
from processes import LIMIT_SECONDS

CONTENT = bytes(range(256)) * 4096


class Files(unittest.TestCase):
    program = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="wendrel-docs-")
        self.addCleanup(folder.cleanup)
        self.work = pathlib.Path(folder.name)
        self.store = self.work / "store"
        self.store.mkdir()
        (self.work / "secret").write_text("secret")
        (self.store / "report.pdf").write_bytes(CONTENT)
        (self.store / "app.js").write_text("0;" * 1000)
        (self.store / "app.js.gz").write_bytes(gzip.compress(b"0;" * 1000))
        os.utime(self.store / "report.pdf", (0, 784887151))
        self.server = KitServer(self, self.program, self.store)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def curl(self, target, *arguments):
        """Status and body."""
        url = f"http://127.0.0.1:{self.server.port}{target}"
        done = subprocess.run(["curl", "-s", "--path-as-is", "-w", "\n%{http_code}", url, *arguments],
                              check=True, capture_output=True, timeout=LIMIT_SECONDS)
        body, _, status = done.stdout.rpartition(b"\n")
        return int(status), body

    def test_a_download(self):
        status, head = self.curl("/report?as=a%20b.pdf", "-I")
        self.assertEqual(status, 200)
        self.assertIn(b'Content-Disposition: attachment; filename="a b.pdf"\r\n', head)
        self.assertIn(b"Content-Type: application/pdf\r\n", head)
        saved = self.work / "saved"
        self.assertEqual(self.curl("/report", "-o", saved)[0], 200)
        self.assertEqual(saved.read_bytes(), CONTENT)

    def test_a_download_is_resumed(self):
        part = self.work / "part"
        part.write_bytes(CONTENT[:100000])
        self.assertEqual(self.curl("/report", "-C", "-", "-o", part)[0], 206)
        self.assertEqual(part.read_bytes(), CONTENT)

    def test_several_ranges(self):
        status, body = self.curl("/report", "-r", "0-9,1000-1009,-10", "-D", self.work / "head")
        self.assertEqual(status, 206)
        head = (self.work / "head").read_bytes().partition(b"\r\n")[2]
        message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head + body)
        self.assertEqual(message.get_content_type(), "multipart/byteranges")
        self.assertEqual([part["content-range"] for part in message.iter_parts()],
                         [f"bytes {place}/{len(CONTENT)}"
                          for place in ("0-9", "1000-1009", "1048566-1048575")])

    def test_a_known_file_is_not_sent_again(self):
        tag = self.work / "tag"
        saved = self.work / "saved"
        self.assertEqual(self.curl("/report", "--etag-save", tag, "-o", saved)[0], 200)
        self.assertEqual(self.curl("/report", "--etag-compare", tag, "-o", os.devnull)[0], 304)
        self.assertEqual(self.curl("/report", "-z", "Tue, 15 Nov 1994 08:12:31 GMT")[0], 304)
        self.assertEqual(self.curl("/report", "-z", "Tue, 15 Nov 1994 08:12:30 GMT")[0], 200)

    def test_precompressed(self):
        self.assertEqual(self.curl("/public/app.js", "--compressed"), (200, b"0;" * 1000))
        status, coded = self.curl("/public/app.js", "-H", "Accept-Encoding: gzip")
        self.assertEqual((status, coded), (200, (self.store / "app.js.gz").read_bytes()))

    def test_a_listing(self):
        status, body = self.curl("/public/", "-H", "Accept: application/json")
        self.assertEqual(status, 200)
        listing = json.loads(body)
        self.assertEqual([entry["name"] for entry in listing["entries"]],
                         ["app.js", "app.js.gz", "report.pdf"])
        self.assertEqual(listing["entries"][2],
                         {"name": "report.pdf", "type": "file", "size": len(CONTENT),
                          "modified": "1994-11-15T08:12:31Z"})
        self.assertIn(b'<a href="./app.js">app.js</a>', self.curl("/public/")[1])
        self.assertEqual(self.curl("/public", "-L")[0], 200)

    def test_other_paths_and_methods(self):
        for target in ("/public/../secret", "/public/%2e%2e/secret", "/public/..%2fsecret",
                       "/public/%2e%2e%5csecret", "/public//secret"):
            with self.subTest(target=target):
                self.assertEqual(self.curl(target)[0], 404)
        self.assertEqual(self.curl("/public/app.js", "-X", "PUT", "-d", "x")[0], 405)


if __name__ == "__main__":
    Files.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

"""Tests the program and the statements of docs/configuration.md.

    configuration.py PROGRAM ROOT
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from docs_server import DocsServer
from processes import LIMIT_SECONDS

# Fields that are no values of an option, with the reason.
NOT_OPTIONS = {"onCompleted": "a function",
               "reservedLists": "unused", "reservedTexts": "unused", "reservedNumbers": "unused"}


class GreetServer(DocsServer):
    def endpoint(self):
        return f"--port={self.port}"


class Configuration(unittest.TestCase):
    program = None
    root = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="configuration-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.page = (self.root / "docs/configuration.md").read_text()

    def fail_with(self, text, *arguments):
        """The error of the program with `text` in its file of options."""
        (self.folder / "greet.toml").write_text(text)
        done = subprocess.run([self.program, "--config", "greet.toml", *arguments], cwd=self.folder, check=False,
                              capture_output=True, text=True, timeout=LIMIT_SECONDS)
        self.assertNotEqual(done.returncode, 0)
        return done.stderr.splitlines()[0]

    def test_file_of_the_page(self):
        text = re.search(r"```toml\n(.*?)```", self.page, re.S)[1]
        file = self.folder / "greet.toml"
        file.write_text(text)
        # The port on the command line takes the place of the endpoints.
        server = GreetServer(self, self.program, "--config", file, "--cache", "2K", "--cache-time", "90s")
        self.assertEqual(server.ask("GET", "/hello/you")[:2], (200, b"Good morning, you!\n"))
        self.assertEqual(server.ask("GET", "/cache")[1], b"2048 bytes, 90000 ms\n")
        self.assertEqual(server.process.stop(), 0)

    def test_errors_of_the_page(self):
        errors = re.findall(r"^\| [^|]+ \| `(.*)` \|$", self.page.partition("## Errors")[2], re.M)
        self.assertEqual(len(errors), 4)
        for error, text, arguments in zip(errors, ("", 'workers = 1\nmax-body = "64Q"', "thread = 1",
                                                   "workers = 1\nthreads = 1\nworkers = 2"),
                                          (("--threads", "0"), (), (), ()), strict=True):
            got = self.fail_with(text, *arguments)
            self.assertEqual(got, error)

    def test_every_field_has_an_option(self):
        fields = set()
        for header in ("include/Wendrel/ServerOptions.h", "include/Wendrel/TlsOptions.h",
                       "kit/include/Wendrel/kit/Server.h", "kit/include/Wendrel/kit/websocket/Engine.h"):
            text = (self.root / header).read_text()
            for body in re.findall(r"^struct (?:WENDREL_EXPORT )?\w+(?: : [\w:]+)?\n\{(.*?)^\};", text, re.M | re.S):
                fields |= set(re.findall(r"^    [\w:<>]+(?:<.*>)? (\w+)(?: = .*|\{.*\})?;$", body, re.M))
        self.assertGreater(len(fields), 35)
        self.assertIn("onCompleted", fields)
        source = (self.root / "kit/src/ServerSettings.cpp").read_text()
        without = {field for field in fields if not re.search(rf"\b{field}\b", source)}
        self.assertEqual(without, set(NOT_OPTIONS))

    def test_options_of_the_page_are_those_of_the_program(self):
        done = subprocess.run([self.program, "--help"], check=True, capture_output=True, text=True,
                              timeout=LIMIT_SECONDS)
        options = set(re.findall(r"^  (?:-h,)?(--[\w-]+)", done.stdout, re.M))
        table = self.page.partition("## Options")[2].partition("## File")[0]
        rows = "".join(line.split(" | ")[0] for line in table.splitlines() if line.startswith("|"))
        self.assertEqual(set(re.findall(r"--[a-z][\w-]+", rows)),
                         options - {"--help", "--config", "--greeting", "--cache", "--cache-time"})


if __name__ == "__main__":
    Configuration.program = sys.argv.pop(1)
    Configuration.root = pathlib.Path(sys.argv.pop(1))
    unittest.main(verbosity=2)

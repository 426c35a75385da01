"""Runs scripts/demo.sh with the programs of a build.

    demo.py SCRIPT BUILD_DIR [Class[.test]]
"""

import importlib.util
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
import urllib.request

from processes import LIMIT_SECONDS, Process, free_port

SCRIPT, BUILD = "", ""
CHECK_LIMIT_SECONDS = 300
SESSION_FIELD = 3  # of /proc/PID/stat, counted behind the name of the program


def processes_of_session(session):
    found = []
    for directory in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            stat = (directory / "stat").read_text()
            command = (directory / "cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
        except OSError:
            continue  # ended meanwhile
        if int(stat.rpartition(")")[2].split()[SESSION_FIELD]) == session:
            found.append(f"{directory.name} {command}")
    return found


class DemoCase(unittest.TestCase):
    def setUp(self):
        self.temporary = tempfile.TemporaryDirectory(prefix="wendrel-demo-test-")
        self.addCleanup(self.temporary.cleanup)

    def check_nothing_remains(self, session):
        self.assertEqual(processes_of_session(session), [])
        self.assertEqual(os.listdir(self.temporary.name), [])


class Checks(DemoCase):
    def run_demo(self, *arguments):
        """Exit code, standard output and standard error; no process and no file may remain."""
        process = subprocess.Popen([SCRIPT, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   stdin=subprocess.DEVNULL, text=True, start_new_session=True,
                                   env={**os.environ, "TMPDIR": self.temporary.name})
        try:
            output, error = process.communicate(timeout=CHECK_LIMIT_SECONDS)
        finally:
            if process.poll() is None:
                process.kill()
        self.check_nothing_remains(process.pid)
        return process.returncode, output, error

    def check_filedrop(self, scheme, *options):
        code, output, error = self.run_demo("--check", "--built", BUILD, *options)
        self.assertEqual(code, 0, output + error)
        self.assertIn("downloaded  268435456 bytes", output)
        self.assertRegex(output, rf"All right: filedrop at {scheme}://127\.0\.0\.1:\d+ passed the check")

    def test_filedrop(self):
        self.check_filedrop("http")

    def test_filedrop_over_tls(self):
        self.check_filedrop("https", "--tls")

    def check_chat(self, scheme, *options):
        port = free_port()
        code, output, error = self.run_demo("--chat", "--check", "--built", BUILD, "--port", str(port), *options)
        self.assertEqual(code, 0, output + error)
        for text in ("GET /chat.js: 200", "Bob got them all, in order", "Ada got it",
                     f"All right: chat at {scheme}://127.0.0.1:{port} passed the check"):
            self.assertIn(text, output)

    def test_chat(self):
        self.check_chat("http")

    def test_chat_over_tls(self):
        self.check_chat("https", "--tls")

    def test_refusals(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            used = str(taken.getsockname()[1])
            empty = os.path.dirname(os.path.abspath(__file__))
            rows = (
                ("unknown argument", ["--chatt"], "unknown argument '--chatt'"),
                ("no value", ["--port"], "--port needs a value"),
                ("port 0", ["--port", "0"], "'0' is not a port"),
                ("port 65536", ["--port", "65536"], "'65536' is not a port"),
                ("no directory", ["--directory", "/nowhere"], "no directory '/nowhere'"),
                ("a directory for chat", ["--chat", "--directory", "/"], "not for --chat"),
                ("no build", ["--built", "/nowhere"], "no directory '/nowhere'"),
                ("nothing built", ["--built", empty], "no program"),
                ("port in use", ["--built", BUILD, "--port", used], f"port {used}"),
                ("port in use for chat", ["--chat", "--built", BUILD, "--port", used], f"port {used}"))
            for name, arguments, text in rows:
                with self.subTest(name):
                    code, output, error = self.run_demo(*arguments)
                    self.assertEqual(code, 1, output + error)
                    self.assertIn("demo.sh: ", error)
                    self.assertIn(text, error)

    def test_help(self):
        code, output, error = self.run_demo("--help")
        self.assertEqual((code, error), (0, ""))
        self.assertIn("--chat", output)


class Interrupted(DemoCase):
    """Without --check the script runs until a signal."""

    def start(self, *arguments):
        process = Process("env", "--default-signal=INT", f"TMPDIR={self.temporary.name}",
                          "setsid", "--wait", SCRIPT, "--built", BUILD, *arguments)
        self.addCleanup(process.kill)
        url = process.wait_line(r".*Open (http://127\.0\.0\.1:\d+/) in a browser")[1]
        return process, url

    def check(self, number, code, *arguments):
        process, url = self.start(*arguments)
        with urllib.request.urlopen(url, timeout=LIMIT_SECONDS) as response:
            self.assertEqual(response.status, 200)
            self.assertIn(b"<html", response.read().lower())
        sessions = {os.getsid(int(pid)) for pid in self.children(process.pid)}
        self.assertEqual(len(sessions), 1, sessions)
        session = sessions.pop()
        os.kill(session, number)
        self.assertEqual(process.wait_end(), code, process.text())
        self.check_nothing_remains(session)

    @staticmethod
    def children(pid):
        return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()

    def test_filedrop(self):
        self.check(signal.SIGTERM, 143)

    def test_chat(self):
        self.check(signal.SIGTERM, 143, "--chat")

    def test_chat_by_ctrl_c(self):
        self.check(signal.SIGINT, 130, "--chat")


if __name__ == "__main__":
    SCRIPT, BUILD = sys.argv[1:3]
    del sys.argv[1:3]
    if not importlib.util.find_spec("websocket"):
        print("python3-websocket is missing")
        sys.exit(77)
    unittest.main(verbosity=2)

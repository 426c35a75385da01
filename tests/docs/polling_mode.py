"""Tries the server of polling_mode.cpp. Usage: polling_mode.py PROGRAM"""

import signal
import sys
import unittest

from docs_server import DocsServer, reset

LINE = b"all work and no play\n"
LINES = 1000000  # 21 MB: more than the sockets of both sides take


class WithoutKit(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = DocsServer(self, self.program)

    def stop(self, number=signal.SIGTERM):
        """Stops the server; returns its last line."""
        self.server.process.send(number)
        self.assertEqual(self.server.process.wait_end(), 0)
        return self.server.process.output[-1]

    def test_responds(self):
        rows = (("GET", "/", None, 404, b"There is nothing at this address.\n"),
                ("HEAD", "/", None, 404, b""),
                ("POST", "/count", b"x" * 5000000, 200, b"5000000 bytes\n"),
                ("POST", "/count", b"", 200, b"0 bytes\n"),
                ("GET", "/lines", None, 200, LINE * LINES),
                ("HEAD", "/lines", None, 200, b""))
        for method, target, sent, status, expected in rows:
            with self.subTest(method + " " + target):
                got, body, response = self.server.ask(method, target, sent)
                self.assertEqual(got, status)
                self.assertTrue(body == expected, f"{len(body)} bytes: {body[:80]}")
                if target == "/lines":
                    self.assertEqual(response.getheader("Content-Length"), str(len(LINE) * LINES))
        self.assertEqual(self.server.ask("GET", "/" + "x" * 5000)[:2], (400, b"URI is too long\n"))
        self.assertEqual(self.stop(), "every request was served\n")

    def test_what_is_running_at_the_stop_is_finished(self):
        reader = self.server.connect(receive_bytes=65536)
        reader.request("GET", "/lines")
        response = reader.getresponse()
        body = response.read(1000)
        sender = self.server.begin_upload("POST", "/count", 1000000, b"x" * 300000)
        self.server.process.send(signal.SIGTERM)
        self.server.wait_until_refusing("/")
        body += response.read()
        self.assertTrue(body == LINE * LINES, f"{len(body)} bytes")
        sender.send(b"x" * 700000)
        self.assertEqual(sender.getresponse().read(), b"1000000 bytes\n")
        self.assertEqual(self.server.process.wait_end(), 0)
        self.assertEqual(self.server.process.output[-1], "every request was served\n")

    def test_closed_connections_delay_nothing(self):
        for _ in range(5):  # more than there are workers
            reader = self.server.connect(receive_bytes=65536)
            reader.request("GET", "/lines")
            reader.getresponse().read(1000)
            reset(reader)
            reset(self.server.begin_upload("POST", "/count", 1000000, b"x" * 300000))
        self.assertEqual(self.server.ask("POST", "/count", b"xyz")[1], b"3 bytes\n")
        self.assertEqual(self.stop(signal.SIGINT), "every request was served\n")


if __name__ == "__main__":
    WithoutKit.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

"""Runs examples/hello: its responses, its shutdown, and its message when it cannot listen.

Usage: hello.py PROGRAM
"""

import http.client
import pathlib
import signal
import socket
import subprocess
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[1] / "support"))
from processes import LIMIT_SECONDS, Process, free_port


class Hello(unittest.TestCase):
    program = None

    def start(self):
        port = free_port()
        process = Process(self.program, f"127.0.0.1:{port}")
        self.addCleanup(process.kill)
        # Lines of the library's log stand around it.
        process.wait_line(rf"http://127\.0\.0\.1:{port}/$")
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS)
        self.addCleanup(connection.close)
        return process, connection

    def ask(self, connection, method, target):
        connection.request(method, target)
        response = connection.getresponse()
        return response, response.read().decode()

    def test_responds_on_one_connection(self):
        _, connection = self.start()
        response, text = self.ask(connection, "GET", "/hello/world")
        self.assertEqual((response.status, text), (200, "Hello, world!\n"))
        self.assertEqual(response.getheader("Content-Type"), "text/plain; charset=utf-8")
        self.assertEqual(response.getheader("Content-Length"), "14")

        response, text = self.ask(connection, "GET", "/hello/a%2Fb%20%C3%A9")
        self.assertEqual((response.status, text), (200, "Hello, a/b \u00e9!\n"))

        response, text = self.ask(connection, "HEAD", "/hello/world")
        self.assertEqual((response.status, text), (200, ""))
        self.assertEqual(response.getheader("Content-Length"), "14")

        for target in ("/", "/hello", "/hello/", "/hello/a/b", "/Hello/a"):
            response, text = self.ask(connection, "GET", target)
            self.assertEqual(response.status, 404, target)
            self.assertEqual(text, '{"title":"Not Found","status":404}')
            self.assertEqual(response.getheader("Content-Type"), "application/problem+json")

        for method, status in (("DELETE", 405), ("OPTIONS", 204), ("POST", 405)):
            response, _ = self.ask(connection, method, "/hello/world")
            self.assertEqual(response.status, status, method)
            self.assertEqual(response.getheader("Allow"), "GET, HEAD, OPTIONS")

    def test_stops_cleanly_on_a_signal(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            process, connection = self.start()
            self.assertEqual(self.ask(connection, "GET", "/hello/x")[1], "Hello, x!\n")
            process.send(number)
            self.assertEqual(process.wait_end(), 0)
            self.assertEqual(process.errors, [])

    def test_says_that_it_cannot_listen(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            endpoint = f"127.0.0.1:{port}"
            process = subprocess.run([self.program, endpoint], capture_output=True, text=True,
                                     timeout=LIMIT_SECONDS)
        self.assertEqual(process.returncode, 1)
        self.assertNotIn("http://", process.stdout)
        self.assertEqual(process.stderr,
                         f"cannot listen on {endpoint}: address already in use\n")


if __name__ == "__main__":
    Hello.program = sys.argv.pop(1)
    unittest.main()

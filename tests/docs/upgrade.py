"""Tries the server of upgrade.cpp. Usage: upgrade.py PROGRAM"""

import signal
import socket
import sys
import unittest

from docs_server import DocsServer
from processes import LIMIT_SECONDS

HANDSHAKE = b"GET / HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: lines\r\n\r\n"


class Upgrade(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = DocsServer(self, self.program)

    def join(self, line=b""):
        """An upgraded connection that has sent a line behind its handshake, and its reader."""
        connection = socket.create_connection(("127.0.0.1", self.server.port), LIMIT_SECONDS)
        self.addCleanup(connection.close)
        connection.sendall(HANDSHAKE + line)
        reader = connection.makefile("rb")
        self.addCleanup(reader.close)
        self.assertEqual(reader.readline(), b"HTTP/1.1 101 Switching Protocols\r\n")
        while reader.readline() != b"\r\n":
            pass
        self.assertEqual(reader.readline(), b"welcome\n")
        return connection, reader

    def test_every_other_one_gets_a_line(self):
        first, first_reader = self.join()
        second, second_reader = self.join(b"hello\n")
        self.assertEqual(first_reader.readline(), b"hello\n")
        first.sendall(b"good morning\n")
        self.assertEqual(second_reader.readline(), b"good morning\n")
        second.sendall(b"bye\n")
        self.assertEqual(first_reader.readline(), b"bye\n")

    def test_other_requests_are_responded_to(self):
        self.assertEqual(self.server.ask("GET", "/")[0], 404)

    def test_stops_with_connections(self):
        _, reader = self.join()
        self.server.process.send(signal.SIGTERM)
        self.assertEqual(reader.readline(), b"")
        self.assertEqual(self.server.process.wait_end(), 0)


if __name__ == "__main__":
    Upgrade.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

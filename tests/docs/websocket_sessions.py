"""Tries the chat of websocket_sessions.cpp. Usage: websocket_sessions.py PROGRAM"""

import signal
import socket
import sys
import unittest

from docs_server import KitServer
from processes import LIMIT_SECONDS

HANDSHAKE = (b"GET /channels/blue HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
             b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n")


def text(payload):
    return bytes([0x81, 0x80 + len(payload), 0, 0, 0, 0]) + payload


class Sessions(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = KitServer(self, self.program)

    def join(self):
        connection = socket.create_connection(("127.0.0.1", self.server.port), LIMIT_SECONDS)
        self.addCleanup(connection.close)
        connection.sendall(HANDSHAKE + b"Cookie: user=a\r\n\r\n")
        reader = connection.makefile("rb")
        self.addCleanup(reader.close)
        self.assertEqual(reader.readline(), b"HTTP/1.1 101 Switching Protocols\r\n")
        while reader.readline() != b"\r\n":
            pass
        connection.sendall(text(b"joined"))
        self.assertEqual(reader.read(8), b"\x81\x06joined")
        return connection, reader

    def test_all_get_a_message(self):
        first, first_reader = self.join()
        second, second_reader = self.join()
        self.assertEqual(first_reader.read(8), b"\x81\x06joined")
        second.sendall(text(b"hello"))
        self.assertEqual(first_reader.read(7), b"\x81\x05hello")
        self.assertEqual(second_reader.read(7), b"\x81\x05hello")
        first.sendall(b"\x88\x82\0\0\0\0\x03\xe8")
        self.assertEqual(first_reader.read(), b"\x88\x02\x03\xe8")

    def test_other_requests_are_refused(self):
        self.assertEqual(self.server.ask("GET", "/channels/blue")[0], 426)
        connection = socket.create_connection(("127.0.0.1", self.server.port), LIMIT_SECONDS)
        self.addCleanup(connection.close)
        connection.sendall(HANDSHAKE + b"\r\n")
        self.assertTrue(connection.recv(100).startswith(b"HTTP/1.1 401 "))

    def test_tells_its_clients_that_it_stops(self):
        connection, reader = self.join()
        self.server.process.send(signal.SIGTERM)
        self.assertEqual(reader.read(4), b"\x88\x17\x03\xe9")
        connection.close()
        reader.close()
        self.assertEqual(self.server.process.wait_end(), 0)


if __name__ == "__main__":
    Sessions.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

#!/usr/bin/env python3
"""Clients that others wrote, talking to a server that sends every message back.

    WENDREL_ECHO_SERVER=build/release/tests/integration/websocket_echo_server \
    WENDREL_WEBSOCKET_CLIENT='/usr/bin/python3|python_client.py' \
        python3 test_websocket.py Python[.test]
"""

import base64
import os
import pathlib
import re
import socket
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
from processes import Process, wait_until

SERVER = os.environ.get("WENDREL_ECHO_SERVER", "websocket_echo_server")
CLIENT = os.environ.get("WENDREL_WEBSOCKET_CLIENT", "").split("|")
# Far above the needs of a loaded machine; the limit of the client is reached first.
LIMIT_SECONDS = 180
os.environ.setdefault("WENDREL_WEBSOCKET_LIMIT_SECONDS", str(LIMIT_SECONDS - 30))
MESSAGES = 10000
CONNECTIONS = 200
MESSAGES_PER_CONNECTION = 10
SEED = 20240717
COUNTS = re.compile(r"(\d+) messages, (\d+) bytes each way, (\d+) connections")


def upgrade(port, token):
    """A connection, and the response head of its upgrade."""
    client = socket.create_connection(("127.0.0.1", port), timeout=LIMIT_SECONDS)
    key = base64.b64encode(os.urandom(16)).decode()
    client.sendall(f"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: Upgrade\r\nUpgrade: {token}\r\n"
                   f"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: {key}\r\n\r\n".encode())
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        byte = client.recv(1)
        if not byte:
            raise AssertionError(f"no response but {head!r}")
        head += byte
    return client, head


def receive_exactly(client, count):
    data = b""
    while len(data) < count:
        part = client.recv(count - len(data))
        if not part:
            raise AssertionError(f"the end came after {data!r}")
        data += part
    return data


def is_ended(client):
    """Waits for the end. It is a reset when the server had not read everything."""
    try:
        return client.recv(1) == b""
    except ConnectionResetError:
        return True


class EchoCase(unittest.TestCase):
    """A server for each test, which must be in its initial state after the clients have closed."""

    def setUp(self):
        self.server = Process(SERVER, limit=LIMIT_SECONDS)
        self.addCleanup(self.server.kill)
        self.port = int(self.server.wait_line(r"port (\d+)").group(1))
        self.descriptors = self.server.descriptors()

    def open(self):
        """A new upgraded connection."""
        client, head = upgrade(self.port, "WebSocket")
        self.addCleanup(client.close)
        self.assertTrue(head.startswith(b"HTTP/1.1 101 "), head)
        return client

    def check_responses(self):
        """One message to and fro over a new connection, closed as a client should."""
        with self.open() as client:
            client.sendall(b"\x81\x85\0\0\0\0still")
            self.assertEqual(receive_exactly(client, 7), b"\x81\x05still")
            client.sendall(b"\x88\x80\0\0\0\0")
            self.assertTrue(is_ended(client))

    def check_left_as_found(self, messages, size, connections):
        """Nothing is left open, a new client is served, and the server ends cleanly having
        counted the messages that the clients have sent."""
        wait_until(lambda: self.server.descriptors() == self.descriptors,
                   "the server has as many files open as at first", LIMIT_SECONDS)
        self.check_responses()
        self.check_stop(messages + 1, size + len("still"), connections + 1)

    def check_stop(self, messages, size, connections):
        code = self.server.stop()
        self.assertEqual(code, 0, self.server.text())
        self.assertNotIn("Sanitizer", "".join(self.server.errors))
        # The log line of the daemon for connections that it had to close itself.
        self.assertNotIn("connection was not closed", "".join(self.server.output))
        self.assertIn(f"echoed {messages} messages, {size} bytes, on {connections} connections\n",
                      self.server.output)

    def start_client(self, mode, count):
        client = Process(*CLIENT, mode, str(self.port), str(count), str(SEED), limit=LIMIT_SECONDS)
        self.addCleanup(client.kill)
        return client

    def check_client(self, client):
        """Waits for its end; gives messages, bytes and connections as it has counted them."""
        code = client.wait_end()
        self.assertEqual(code, 0, f"{client.text()}\nServer:\n{self.server.text()}")
        print(client.output[-1], end="", file=sys.stderr)
        return tuple(map(int, COUNTS.match(client.output[-1]).groups()))

    def check_messages(self, count=MESSAGES):
        counts = self.check_client(self.start_client("messages", count))
        self.assertEqual(counts[0], count)
        self.assertEqual(counts[2], 1)
        self.check_left_as_found(*counts)

    def check_connections(self):
        client = self.start_client("connections", CONNECTIONS)
        client.wait_line("open")
        wait_until(lambda: self.server.descriptors() == self.descriptors + CONNECTIONS,
                   "the server has all connections open at once", LIMIT_SECONDS)
        client.process.stdin.write("\n")
        client.process.stdin.flush()
        counts = self.check_client(client)
        self.assertEqual(counts[0], CONNECTIONS * MESSAGES_PER_CONNECTION)
        self.assertEqual(counts[2], CONNECTIONS)
        self.check_left_as_found(*counts)


class Server(EchoCase):
    """The server that all others are tested with."""

    def test_lower_case_token_is_an_ordinary_request(self):
        client, head = upgrade(self.port, "websocket")
        with client:
            self.assertTrue(head.startswith(b"HTTP/1.1 404 "), head)
        self.check_left_as_found(0, 0, 0)

    def test_stops_with_open_connections(self):
        clients = [self.open() for _ in range(20)]
        for client in clients:
            client.sendall(b"\x82\x81\0\0\0\0x")
            self.assertEqual(receive_exactly(client, 3), b"\x82\x01x")
        # The end comes in the middle of a frame, of a message, and of nothing.
        clients[0].sendall(b"\x82\xfe\x40\0\0\0\0\0half")
        clients[1].sendall(b"\x02\x84\0\0\0\0half")
        self.check_stop(20, 20, 20)
        self.assertTrue(all(map(is_ended, clients)))

    def test_third_of_three_frames_in_one_packet_waits_for_the_next_byte(self):
        clients = [self.open() for _ in range(2)]
        for client in clients:
            client.sendall(b"\x81\x81\0\0\0\0a" b"\x81\x81\0\0\0\0b" b"\x81\x81\0\0\0\0c")
            self.assertEqual(receive_exactly(client, 6), b"\x81\x01a" b"\x81\x01b")
        clients[0].sendall(b"\x81\x81\0\0\0\0d")
        self.assertEqual(receive_exactly(clients[0], 6), b"\x81\x01c" b"\x81\x01d")
        # The other has sent nothing more: its third message is not handled until the end.
        self.check_stop(6, 6, 2)
        self.assertTrue(is_ended(clients[1]))


class Beast(EchoCase):
    """Boost.Beast."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages()

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


class Ws(EchoCase):
    """The ws package of Node.js."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages()

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


class Python(EchoCase):
    """Debian's python3-websocket."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages()

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


if __name__ == "__main__":
    unittest.main(verbosity=2)

#!/usr/bin/env python3
"""Clients that others wrote, talking to the kit's WebSocket sessions.

    WENDREL_ECHO_SERVER=build/release/tests/integration/websocket_session_server \
    WENDREL_WEBSOCKET_CLIENT='/usr/bin/python3|python_client.py' \
        python3 test_sessions.py Python[.test]
"""

import os
import tempfile
import unittest

import test_websocket
from test_websocket import LIMIT_SECONDS, Process, is_ended, receive_exactly, upgrade

os.environ["WENDREL_WEBSOCKET_CLEAN_CLOSE"] = "1"


class SessionCase(test_websocket.EchoCase):
    """As with the other server, but that a close frame is responded to."""

    def open(self):
        client, head = upgrade(self.port, "websocket")
        self.addCleanup(client.close)
        self.assertTrue(head.startswith(b"HTTP/1.1 101 "), head)
        return client

    def check_responses(self):
        with self.open() as client:
            client.sendall(b"\x81\x85\0\0\0\0still")
            self.assertEqual(receive_exactly(client, 7), b"\x81\x05still")
            client.sendall(b"\x88\x80\0\0\0\0")
            self.assertEqual(receive_exactly(client, 2), b"\x88\x00")
            self.assertTrue(is_ended(client))


class Server(SessionCase):
    """The server alone."""

    def test_tells_open_connections_that_it_stops(self):
        clients = [self.open() for _ in range(20)]
        for client in clients:
            client.sendall(b"\x82\x81\0\0\0\0x")
            self.assertEqual(receive_exactly(client, 3), b"\x82\x01x")
        # In the middle of a frame, of a message, and of nothing.
        clients[0].sendall(b"\x82\xfe\x40\0\0\0\0\0half")
        clients[1].sendall(b"\x02\x84\0\0\0\0half")
        self.server.process.terminate()
        for client in clients:
            self.assertEqual(receive_exactly(client, 4), b"\x88\x17\x03\xe9")
            client.close()
        self.check_stop(20, 20, 20)


class Beast(SessionCase):
    """Boost.Beast."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages()

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


class Ws(SessionCase):
    """The ws package of Node.js."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages()

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


class Python(SessionCase):
    """Debian's python3-websocket."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages()

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


class Websockets(SessionCase):
    """Debian's python3-websockets."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages(1000)  # compressed

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


class Aiohttp(SessionCase):
    """Debian's python3-aiohttp."""

    def test_echoes_messages_of_all_sizes(self):
        self.check_messages(1000)  # compressed

    def test_echoes_on_200_connections_at_once(self):
        self.check_connections()


class Browser(SessionCase):
    """Chromium, without a proxy."""

    def test_exchanges_messages_with_a_page(self):
        with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
            browser = Process(
                os.environ["CHROMIUM"], "--headless", "--no-sandbox", "--disable-gpu",
                "--disable-dev-shm-usage", "--remote-debugging-port=0",
                f"--user-data-dir={profile}", f"http://127.0.0.1:{self.port}/",
                limit=LIMIT_SECONDS)
            self.addCleanup(browser.kill)
            lines = self.server.wait_line("result (.*)").group(1).split("|")
            browser.stop()
        self.assertRegex(lines[0], "^open echo permessage-deflate; server_no_context_takeover")
        self.assertEqual(lines[1:], [f"message {i} same" for i in range(1, 6)] +
                         ["close 3001 true"])
        self.check_stop(5, 100019, 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)

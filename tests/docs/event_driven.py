"""Tries the server of event_driven.cpp. Usage: event_driven.py PROGRAM"""

import signal
import sys
import unittest

from docs_server import DocsServer
from processes import wait_until

READERS = 40


class EventDriven(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = DocsServer(self, self.program)

    def wait_for_readers(self, count):
        """Connections whose request for the next message waits."""
        readers = [self.server.connect() for _ in range(count)]
        for reader in readers:
            reader.request("GET", "/next")
        return readers

    def test_readers_get_the_next_message(self):
        readers = self.wait_for_readers(READERS)
        served = 0

        def all_served():
            nonlocal served
            status, body, _ = self.server.ask("POST", "/post", b"good morning\n")
            self.assertEqual(status, 200)
            served += int(body.split()[0])
            return served == READERS

        # Requests that have been sent arrive in their own time.
        wait_until(all_served, "every reader waits")
        for reader in readers:
            response = reader.getresponse()
            self.assertEqual((response.status, response.read()), (200, b"good morning\n"))
        self.assertEqual(self.server.ask("GET", "/nothing")[0], 404)

    def test_readers_that_leave_are_forgotten(self):
        for reader in self.wait_for_readers(READERS):
            reader.close()
        wait_until(lambda: self.server.ask("POST", "/post", b"x")[1] == b"0 readers\n",
                   "every reader is forgotten")

    def test_rules_come_from_memory(self):
        self.assertEqual(self.server.ask("GET", "/rules")[:2], (200, b"Be polite.\n"))
        status, body, response = self.server.ask("HEAD", "/rules")
        self.assertEqual((status, body), (200, b""))
        self.assertEqual(response.getheader("Content-Length"), "11")

    def test_messages_are_streamed_to_the_end(self):
        reader = self.server.connect()
        reader.request("GET", "/live")
        response = reader.getresponse()
        for message in (b"one\n", b"two\n"):
            self.server.ask("POST", "/post", message)
            self.assertEqual(response.readline(), message)
        self.server.process.send(signal.SIGTERM)
        self.assertEqual(response.read(), b"The server stops.\n")
        self.assertEqual(self.server.process.wait_end(), 0)

    def test_stops_with_readers(self):
        reader, = self.wait_for_readers(1)
        self.server.process.send(signal.SIGTERM)
        response = reader.getresponse()
        self.assertEqual((response.status, response.read()), (200, b"The server stops.\n"))
        self.assertEqual(self.server.process.wait_end(), 0)
        self.assertEqual(self.server.process.output[-1], "every request was served\n")


if __name__ == "__main__":
    EventDriven.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

"""Tests the handlers of events.cpp. Usage: events.py PROGRAM"""

import sys
import unittest

from docs_server import KitServer


class Events(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = KitServer(self, self.program)

    def listen(self, **headers):
        connection = self.server.connect()
        self.addCleanup(connection.close)
        connection.request("GET", "/events", headers=headers)
        response = connection.getresponse()
        self.assertEqual((response.status, response.getheader("Content-Type")),
                         (200, "text/event-stream"))
        self.assertEqual((response.readline(), response.readline()), (b":\n", b"\n"))
        return response

    def event(self, response):
        """The fields of the next event."""
        fields = {}
        while (line := response.readline()) not in (b"\n", b""):
            name, _, value = line.rstrip(b"\n").partition(b": ")
            fields.setdefault(name.decode(), []).append(value.decode())
        return fields

    def say(self, text):
        self.assertEqual(self.server.ask("POST", "/messages", text)[0], 204)

    def test_messages_reach_all_pages(self):
        pages = [self.listen() for _ in range(20)]
        self.say("one\ntwo")
        for page in pages:
            event = self.event(page)
            self.assertEqual((event["event"], event["data"]), (["message"], ["one", "two"]))
        self.assertEqual(self.server.process.stop(), 0)

    def test_a_page_that_comes_back_misses_nothing(self):
        page = self.listen()
        self.say("one")
        last = self.event(page)["id"][0]
        page.close()
        self.say("two")
        self.say("three")
        page = self.listen(**{"Last-Event-ID": last})
        self.assertEqual([self.event(page)["data"] for _ in range(2)], [["two"], ["three"]])
        self.assertEqual(self.server.process.stop(), 0)

    def test_a_stop_ends_the_streams(self):
        page = self.listen()
        self.say("last")
        self.assertEqual(self.server.process.stop(), 0)
        self.assertEqual(self.event(page)["data"], ["last"])
        self.assertEqual(page.read(), b"")


if __name__ == "__main__":
    Events.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

"""Tests the handlers of hooks.cpp. Usage: hooks.py PROGRAM"""

import base64
import sys
import unittest

from docs_server import KitServer


def login(user, password):
    text = base64.b64encode(f"{user}:{password}".encode()).decode()
    return {"Authorization": f"Basic {text}"}


class Hooks(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = KitServer(self, self.program)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def test_a_group_has_its_login(self):
        status, _, response = self.server.ask("GET", "/api/team")
        self.assertEqual(status, 401)
        self.assertEqual(response.headers["WWW-Authenticate"],
                         'Basic realm="team board", charset="UTF-8"')
        status, body, response = self.server.ask("GET", "/api/team", headers=login("ann", "secret"))
        self.assertEqual((status, body), (200, b"team 1\n"))
        self.assertEqual(response.headers["Cache-Control"], "no-store")
        self.assertEqual(response.headers["X-Content-Type-Options"], "nosniff")
        self.assertRegex(response.headers["X-Request-Id"], "^[0-9a-f]{32}$")

    def test_an_upload_passes_the_hooks(self):
        body = b"x" * 500000
        self.assertEqual(self.server.ask("PUT", "/api/notes", body, headers=login("bob", "hidden"))[:2],
                         (200, b"500000 bytes\n"))

    def test_a_page_of_another_origin_may_ask(self):
        status, _, response = self.server.ask("OPTIONS", "/api/team", headers={
            "Origin": "https://app.example", "Access-Control-Request-Method": "GET"})
        self.assertEqual(status, 204)
        self.assertEqual(response.headers["Access-Control-Allow-Origin"], "https://app.example")

    def test_requests_beyond_the_rate_are_refused(self):
        statuses = [self.server.ask("GET", "/api/team")[0] for _ in range(150)]
        self.assertEqual(set(statuses[:100]), {401})
        self.assertIn(429, statuses)

    def test_a_hook_responds(self):
        status, _, response = self.server.ask("GET", "/old/page")
        self.assertEqual((status, response.headers["Location"]), (308, "/api/team"))

    def test_errors_have_their_own_text(self):
        self.assertEqual(self.server.ask("GET", "/missing")[:2],
                         (404, b"There is nothing at /missing.\n"))


if __name__ == "__main__":
    Hooks.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

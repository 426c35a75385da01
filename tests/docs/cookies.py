"""Tests the handlers of cookies.cpp. Usage: cookies.py PROGRAM"""

import http.cookies
import sys
import unittest

from docs_server import KitServer


class Cookies(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = KitServer(self, self.program)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def cookie(self, target):
        _, _, response = self.server.ask("POST", target)
        self.lines = response.headers.get_all("Set-Cookie") or []
        jar = http.cookies.SimpleCookie()
        for line in self.lines:
            jar.load(line)
        return jar

    def me(self, value):
        return self.server.ask("GET", "/me", headers={"Cookie": f"session={value}"})[:2]

    def test_a_signed_cookie_logs_in(self):
        session = self.cookie("/login?user=Ann%20O%27Neil")["session"]
        self.assertEqual((session["path"], session["max-age"], session["httponly"],
                          session["samesite"]), ("/", "28800", True, "Lax"))
        self.assertEqual(self.me(session.value), (200, b"You are Ann O'Neil.\n"))

    def test_a_forged_cookie_does_not(self):
        value = self.cookie("/login?user=ann")["session"].value
        for forged in ("", "ann", value[:-1], value + "A", "YWRt" + value[4:], value.lower()):
            with self.subTest(forged):
                self.assertEqual(self.me(forged)[0], 401)

    def test_a_logout_drops_the_cookie(self):
        session = self.cookie("/logout")["session"]
        self.assertEqual((session.value, session["max-age"]), ("", "0"))
        self.assertIn("Expires=Thu, 01 Jan 1970 00:00:00 GMT", self.lines[0])

    def test_a_value_that_is_no_cookie_is_not_sent(self):
        self.assertEqual(self.cookie("/language?language=de")["language"].value, "de")
        status, _, response = self.server.ask("POST", "/language?language=a%3B%20Domain=b")
        self.assertEqual((status, response.headers.get_all("Set-Cookie")), (500, None))


if __name__ == "__main__":
    Cookies.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

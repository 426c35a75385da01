"""Tests the handlers of parameters.cpp. Usage: parameters.py PROGRAM"""

import sys
import unittest

from docs_server import KitServer


class Parameters(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = KitServer(self, self.program)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def expect(self, target, status, text, **more):
        with self.subTest(target):
            got, body, _ = self.server.ask("GET", target, **more)
            self.assertEqual(got, status)
            self.assertIn(text, body.decode())

    def test_values_and_defaults(self):
        self.expect("/list", 200, "page 1 of 20 by name\n")
        self.expect("/list?page=&size=", 200, "page 1 of 20 by name\n")
        self.expect("/list?page=1000&size=50&order=date&all=on", 200,
                    "page 1000 of 50 by date, all\n")
        self.expect("/items/-7", 200, "item -7\n")
        self.expect("/items/7", 200, "item 7 in de\n", headers={"Cookie": "language=de"})
        self.expect("/sum?n=1&n=2.5", 200, "3.500000\n")

    def test_bad_values_are_400_and_named(self):
        self.expect("/list?page=0", 400, r"query parameter \"page\" must be from 1 to 1000: \"0\"")
        self.expect("/list?page=two", 400, r"query parameter \"page\" is not a whole number")
        self.expect("/list?order=size", 400, r"query parameter \"order\" must be one of name, date")
        self.expect("/list?all=maybe", 400, r"query parameter \"all\" must be true or false")
        self.expect("/items/seven", 400, r"path parameter \"id\" is not a whole number: \"seven\"")
        self.expect("/sum?n=1&n=x", 400, r"query parameter \"n\" is not a number: \"x\"")


if __name__ == "__main__":
    Parameters.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

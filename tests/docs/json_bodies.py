"""Tests the handlers of json.cpp. Usage: json_bodies.py PROGRAM"""

import json
import sys
import unittest

from docs_server import KitServer

JSON = {"Content-Type": "application/json"}


class Json(unittest.TestCase):
    program = None

    def setUp(self):
        self.server = KitServer(self, self.program)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def post(self, body, headers=JSON):
        status, text, response = self.server.ask("POST", "/tasks", body, headers=headers)
        return status, json.loads(text), response.getheader("Content-Type")

    def test_tasks(self):
        self.assertEqual(self.server.ask("GET", "/tasks")[:2], (200, b"[]"))
        self.assertEqual(self.post('{"title": "milk"}'), (201, {"id": 1}, "application/json"))
        self.assertEqual(self.post('{"title": "tea", "done": true}')[1], {"id": 2})
        milk, tea = {"title": "milk", "done": False}, {"title": "tea", "done": True}
        self.assertEqual(json.loads(self.server.ask("GET", "/tasks")[1]), [milk, tea])
        self.assertEqual(json.loads(self.server.ask("GET", "/tasks/2")[1]), tea)

    def test_errors(self):
        problem = "application/problem+json"
        expected = (
            ('{"title": "milk",\n "done": yes}', JSON, 400, "the body is no JSON: line 2, column 10"),
            ('{"done": true}', JSON, 400,
             "the JSON of the body is not as expected: key 'title' not found"),
            ("{}", {}, 415, "the body must be of the type application/json"),
        )
        for body, headers, status, detail in expected:
            with self.subTest(body):
                got = self.post(body, headers)
                self.assertEqual((got[0], got[1]["detail"], got[2]), (status, detail, problem))

    def test_forms_of_an_error(self):
        for accept, kind, part in (("*/*", "application/problem+json", '"detail":"There is no'),
                                   ("text/html,*/*;q=0.8", "text/html; charset=utf-8", "<p>There"),
                                   ("text/plain", "text/plain; charset=utf-8", "404 Not Found\n")):
            status, body, response = self.server.ask("GET", "/tasks/9", headers={"Accept": accept})
            self.assertEqual((status, response.getheader("Content-Type")), (404, kind))
            self.assertIn(part, body.decode())


if __name__ == "__main__":
    Json.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

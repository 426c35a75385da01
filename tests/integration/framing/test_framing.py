#!/usr/bin/env python3
"""Tests the framing of requests by the daemon, the library, and both proxies.

    WENDREL_BARE_DAEMON=... WENDREL_LIBRARY_SERVER=... python3 test_framing.py [Class[.test]]

The expected outcomes are in outcomes.tsv, written by `framing.py --write`.
"""

import concurrent.futures
import unittest

import framing
import paths
from paths import Outcome
from processes import LIMIT_SECONDS, wait_until
from raw_requests import EXPECT_ALONE, NEXT, REQUESTS, get

MAX_FAILURES = 5


class Outcomes(unittest.TestCase):
    """Every request, as the table has it."""

    def check_all(self, name):
        expected = framing.read_table()
        path = paths.open_path(name)
        self.addCleanup(path.close)
        failures = []

        def check(request):
            key = (request.group, request.name, name)
            if len(failures) >= MAX_FAILURES:
                return
            outcome = paths.check(path, request.with_next(), expected[key], LIMIT_SECONDS)
            if outcome != expected[key]:
                failures.append(f"{': '.join(key)}\n  is       {outcome}\n  expected {expected[key]}")

        with concurrent.futures.ThreadPoolExecutor(path.at_once) as pool:
            list(pool.map(check, REQUESTS))
        if failures:
            self.fail("\n".join([f"with {framing.versions()}",
                                 f"the table was made with {framing.table_versions()}", *failures]))

    def test_daemon(self):
        self.check_all("daemon")

    def test_library(self):
        self.check_all("library")

    def test_event_driven(self):
        self.check_all("event-driven")

    def test_nginx(self):
        self.check_all("nginx")

    def test_haproxy(self):
        self.check_all("haproxy")


class Table(unittest.TestCase):
    def test_it_has_each_request_once(self):
        self.assertGreaterEqual(len(REQUESTS), 60)
        self.assertEqual(len({request.data for request in REQUESTS}), len(REQUESTS))
        self.assertEqual(list(framing.read_table()),
                         [(request.group, request.name, path)
                          for request in REQUESTS for path in paths.PATHS])

    def test_nothing_gets_past_the_proxies(self):
        """No request makes a proxy and the application count differently."""
        for key, outcome in framing.read_table().items():
            with self.subTest(key):
                self.assertEqual(outcome.verdict, "")

    def test_the_library_differs_only_where_it_means_to(self):
        outcomes = framing.read_table()
        for request in REQUESTS:
            with self.subTest(request.name):
                self.assertNotEqual(framing.difference(request, outcomes), framing.UNEXPLAINED)

    def test_event_driven_mode_refuses_or_agrees(self):
        """It closes the connection of a request that it refuses, and of a response whose end is unclear."""
        outcomes = framing.read_table()
        for request in REQUESTS:
            with self.subTest(request.name):
                self.assertIn(framing.strictness(request, outcomes),
                              (framing.AGREES, framing.REFUSES, framing.WITHOUT_UPGRADE,
                               framing.WITHOUT_STRAY_BYTES))

    def test_the_page_is_current(self):
        self.assertEqual(framing.PAGE.read_text(), framing.page(framing.read_table()),
                         "run framing.py --page")


class Closed(unittest.TestCase):
    """Each vulnerability closed by a line of a configuration exists without the line."""

    def assert_verdict(self, name, change, requests, verdict):
        path = paths.open_path(name, change)
        self.addCleanup(path.close)
        self.assertTrue(requests)
        for request in requests:
            with self.subTest(request.name):
                client = paths.Client(path, request.with_next())
                try:
                    wait_until(lambda: client.look() or verdict in path.outcome(client, "").verdict,
                               f"it is {verdict}", LIMIT_SECONDS)
                finally:
                    client.close()
                    path.finish()

    def replacing(self, replacements):
        """A change of the configuration; each text must be there."""
        def change(text):
            for old, new in replacements.items():
                self.assertIn(old, text)
                text = text.replace(old, new)
            return text
        return change

    def without(self, *texts):
        return self.replacing(dict.fromkeys(texts, ""))

    def undeclared(self):
        return [request for request in REQUESTS
                if request.name.startswith(("HEAD", "304")) and "length not declared" in request.name]

    def test_nginx_keeps_no_connection_with_stray_bytes(self):
        change = self.replacing({"Connection $connection_to_application;": 'Connection "";'})
        self.assert_verdict("nginx", change, self.undeclared(), "stray")

    def test_haproxy_keeps_no_connection_with_stray_bytes(self):
        # HAProxy passes HTTP/1.0 on, and the daemon then ends such a response by closing.
        requests = [request for request in self.undeclared() if b"HTTP/1.0" not in request.data]
        lines = [f"http-request set-header Connection close if may_get_no_body !asks_for_{kind}"
                 for kind in ("websocket", "upgrade")]
        self.assert_verdict("haproxy", self.without(*lines), requests, "stray")

    def assert_not_used_again(self, name, change):
        """Neither is the connection to the application behind a 304 to a request without a condition."""
        path = paths.open_path(name, change)
        self.addCleanup(path.close)
        client = paths.Client(path, get(target=b"/not-modified") + NEXT)
        self.addCleanup(client.close)
        seen = [["GET /not-modified 0"], ["GET /next 0"]]  # one on each connection

        def is_so():
            client.look()
            return (client.responses() == ("304", "200")
                    and [path.back_end.seen(one.port) for one in path.tap.connections()] == seen)

        wait_until(is_so, "each request has a connection of its own", LIMIT_SECONDS)

    def test_nginx_without_reuse_leaves_nothing_open(self):
        self.assert_not_used_again("nginx", self.without("keepalive 16;"))

    def test_haproxy_without_reuse_leaves_nothing_open(self):
        line = "    http-reuse safe\n"
        self.assert_not_used_again("haproxy", self.replacing({line: line + "    option httpclose\n"}))

    def test_haproxy_passes_on_no_coding_that_the_daemon_does_not_know(self):
        lines = [line for line in (paths.DEPLOY / "haproxy.cfg").read_text().split("\n")
                 if "deny deny_status 400" in line]
        requests = [request for request in REQUESTS
                    if request.group == "Transfer-Encoding" and request.name == "trailing comma"]
        self.assert_verdict("haproxy", self.without(*lines), requests, "stuck")


class Early(unittest.TestCase):
    def test_a_response_that_is_ready_with_the_100_is_refused_when_a_request_is_behind_it(self):
        """The bare daemon's application is that quick; one on the library may be."""
        request = next(request for request in REQUESTS if request.name == EXPECT_ALONE)
        path = paths.open_path("daemon")
        self.addCleanup(path.close)
        expected = Outcome(("100",), "closed", ("GET /first 0",))
        self.assertEqual(paths.check(path, request.data + NEXT, expected, LIMIT_SECONDS), expected)
        expected = Outcome(("100", "200"), "open", ("GET /first 0",))
        self.assertEqual(paths.check(path, request.data, expected, LIMIT_SECONDS), expected)


if __name__ == "__main__":
    unittest.main(verbosity=2)

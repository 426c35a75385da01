"""Tests the counters of metrics.cpp, also with promtool where it is installed.
Usage: metrics.py PROGRAM"""

import re
import shutil
import signal
import subprocess
import sys
import unittest

from docs_server import KitServer
from processes import wait_until

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = r'[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*"'
SAMPLE = re.compile(rf"({NAME})(?:\{{({LABEL}(?:,{LABEL})*)\}})? (\d+(?:\.\d+)?(?:e-?\d+)?)")


def parse(text):
    """The samples of a text, by name and labels. Fails on all that the format does not allow."""
    assert text.endswith("\n"), "no line end"
    samples, types, described, current = {}, {}, set(), None
    for line in text[:-1].split("\n"):
        if line.startswith("# HELP "):
            name = line.split(" ")[2]
            assert re.fullmatch(NAME, name) and name not in described, line
            described.add(name)
        elif line.startswith("# TYPE "):
            _, _, current, kind = line.split(" ")
            assert current in described and current not in types, line
            assert kind in ("counter", "gauge", "histogram"), line
            assert kind != "counter" or current.endswith("_total"), line
            types[current] = kind
        else:
            match = SAMPLE.fullmatch(line)
            assert match, line
            base = match[1]
            if types[current] == "histogram":
                base = re.sub("_(bucket|sum|count)$", "", base)
            assert base == current, f"{line} among the samples of {current}"
            key = (match[1], match[2] or "")
            assert key not in samples, f"twice: {line}"
            samples[key] = float(match[3])
    for name, kind in types.items():
        if kind == "histogram":
            check_histogram(samples, name)
    return samples


def check_histogram(samples, name):
    """Buckets grow, the last one is the count."""
    routes = {labels for sample, labels in samples if sample == f"{name}_count"}
    for route in routes:
        buckets = [(labels, value) for (sample, labels), value in samples.items()
                   if sample == f"{name}_bucket" and labels.startswith(f"{route},le=")]
        ends = [float(re.search('le="([^"]*)"', labels)[1]) for labels, _ in buckets]
        values = [value for _, value in buckets]
        assert ends == sorted(ends) and ends[-1] == float("inf"), ends
        assert values == sorted(values) and values[-1] == samples[f"{name}_count", route], values
        assert (f"{name}_sum", route) in samples


class Metrics(unittest.TestCase):
    program = None

    def start(self, *arguments):
        self.server = KitServer(self, self.program, *arguments)

    def scrape(self):
        status, body, response = self.server.ask("GET", "/metrics")
        self.assertEqual(status, 200)
        self.assertEqual(response.headers["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
        self.text = body.decode("ascii")
        return parse(self.text)

    def wait_for(self, name, labels, value):
        wait_until(lambda: self.scrape().get((name, labels)) == value, f"{name} {labels} {value}")

    def test_requests_are_counted_by_route_and_status(self):
        self.start()
        for target in ("/tea/green", "/tea/black", "/tea/none", "/missing", "/metrics?x=1"):
            self.server.ask("GET", target)
        self.server.ask("PUT", "/%22quoted%5C", body=b"12345")
        self.server.ask("GET", "/tea/green", headers={"Host": "a b"})
        self.wait_for("wendrel_requests_total", r'route="PUT /\"quoted\\",status="200"', 1)
        for labels, value in (('route="GET /tea/{kind}",status="200"', 2),
                              ('route="GET /tea/{kind}",status="404"', 1),
                              ('route="",status="404"', 1)):
            self.wait_for("wendrel_requests_total", labels, value)
        self.wait_for("wendrel_request_duration_seconds_count", 'route="GET /tea/{kind}"', 3)
        self.wait_for("wendrel_request_body_bytes_total", "", 5)
        self.assertGreater(self.scrape()["wendrel_response_body_bytes_total", ""], 8)
        # The scrape itself.
        self.wait_for("wendrel_requests_open", "", 1)
        self.wait_for("wendrel_requests_refused_total", 'reason="malformed"', 1)
        self.assertEqual(self.server.process.stop(), 0)

    def test_promtool_accepts_the_text(self):
        self.start()
        if not shutil.which("promtool"):
            self.server.process.stop()
            self.skipTest("promtool is not installed")
        self.server.ask("GET", "/tea/green")
        self.scrape()
        done = subprocess.run(["promtool", "check", "metrics"], input=self.text, text=True,
                              capture_output=True, check=False)
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))
        self.assertEqual(self.server.process.stop(), 0)

    def test_a_server_that_closes_is_not_ready(self):
        self.start()
        self.assertEqual([self.server.ask("GET", path)[0] for path in ("/healthz", "/readyz")],
                         [200, 200])
        self.server.ask("POST", "/closed")
        self.assertEqual([self.server.ask("GET", path)[0] for path in ("/healthz", "/readyz")],
                         [200, 503])
        self.assertEqual(self.server.process.stop(), 0)

    def test_a_stop_with_a_delay_serves_meanwhile(self):
        self.start("delay")
        self.server.process.send(signal.SIGTERM)
        wait_until(lambda: self.server.ask("GET", "/readyz")[0] == 503, "not ready")
        self.assertEqual(self.server.ask("GET", "/tea/green")[0], 200)
        # A second signal ends the delay.
        self.server.process.send(signal.SIGTERM)
        self.assertEqual(self.server.process.wait_end(), -signal.SIGTERM)

    def test_the_check_of_the_format_finds_errors(self):
        self.start()
        self.server.ask("GET", "/tea/green")
        self.wait_for("wendrel_requests_total", 'route="GET /tea/{kind}",status="200"', 1)
        text = self.text
        for old, new in ((" counter", " count"), ("# HELP", "#HELP"), ('le="+Inf"', 'le="1"'),
                         ("_total{", "_all{"), ('status="', "status="), ("\n# TYPE", "\n\n# TYPE")):
            with self.subTest(new):
                self.assertIn(old, text)
                with self.assertRaises((AssertionError, KeyError, ValueError)):
                    parse(text.replace(old, new))
        self.assertEqual(self.server.process.stop(), 0)


if __name__ == "__main__":
    Metrics.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

"""Tests each server of the benchmark in each mode: every page, an echo, the exit code.

Usage: smoke.py [unittest arguments], with the programs' paths in BENCH_SERVER, BENCH_BARE,
BENCH_CIVETWEB, BENCH_BEAST and BENCH_CLIENT, as ctest runs it.
"""

import hashlib
import http.client
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import connections
import drive
import extremes
import run as table

LIMIT_SECONDS = 60
ROWS_LIMIT_SECONDS = 900
PIECE = bytes(ord("a") + i % 26 for i in range(65536))


def stream(count):
    return (PIECE * (count // len(PIECE) + 1))[:count]


def short(content):
    """A short form for comparison; unittest takes minutes to print differences of long texts."""
    return content if len(content) < 100 else (len(content), hashlib.sha256(content).hexdigest())


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server(unittest.TestCase):
    def check(self, program, mode, *options, not_found=("/",), echoes=True):
        port = free_port()
        process = self.start(program, "--port", str(port), "--mode", mode, *options,
                             *(["--websocket"] if echoes else []))
        self.assertEqual(process.stdout.readline(), f"listening on 127.0.0.1:{port}\n")
        self.check_pages(port, not_found)
        if echoes:
            self.check_echo(port)
        self.end(process)

    def start(self, program, *options):
        process = subprocess.Popen(
            [os.environ[program], "--workers", "6", "--threads", "2", *options],
            stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def end(self, process):
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(LIMIT_SECONDS), 0)

    def check_pages(self, port, not_found):
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS)
        self.addCleanup(connection.close)

        def ask(method, target, body=None):
            connection.request(method, target, body)
            response = connection.getresponse()
            content = short(response.read())
            if response.status == 200:
                self.assertEqual(response.headers["Content-Type"], "text/plain")
            return response.status, content, response.headers["Transfer-Encoding"]

        self.assertEqual(ask("GET", "/hello"), (200, b"Hello, World!", None))
        opened = connection.sock
        self.assertEqual(ask("GET", "/big"), (200, short(stream(1048576)), None))
        self.assertEqual(ask("GET", "/stream?bytes=1000001"), (200, short(stream(1000001)), "chunked"))
        self.assertEqual(ask("GET", "/stream?bytes=70000")[:2], (200, short(stream(70000))))
        self.assertEqual(ask("GET", "/stream?bytes=0")[:2], (200, b""))
        self.assertEqual(ask("POST", "/upload", stream(3000000)), (200, b"3000000", None))
        self.assertEqual(ask("POST", "/upload", iter([PIECE] * 9)), (200, b"589824", None))
        self.assertEqual(ask("POST", "/upload", b""), (200, b"0", None))
        asked = time.monotonic()
        self.assertEqual(ask("GET", "/slow?ms=50"), (200, b"Hello, World!", None))
        self.assertGreaterEqual(time.monotonic() - asked, 0.05)
        self.assertIs(connection.sock, opened, "the connection was closed")
        for target in *not_found, "/hello/", "/nothing", "/stream", "/stream?bytes=x", "/slow?ms=":
            self.assertEqual(ask("GET", target)[0], 404, target)

    def check_echo(self, port, path="/echo", *options):
        for arguments in ["--bytes", "64"], ["--bytes", "200000", "--text", "--connections", "4"]:
            client = subprocess.run(
                [os.environ["BENCH_CLIENT"], "--port", str(port), "--path", path,
                 "--seconds", "0.3", *arguments, *options],
                stdout=subprocess.PIPE, text=True, timeout=LIMIT_SECONDS)
            counts = json.loads(client.stdout)
            self.assertEqual((client.returncode, counts["errors"]), (0, 0), counts)
            self.assertGreater(counts["messages"], 0)

    def check_bodies(self, port):
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS)
        self.addCleanup(connection.close)
        for target in "/", "/echo":
            for method in "GET", "PUT", "POST", "DELETE", "OPTIONS", "PATCH", "TRACE":
                for body in b"", b"some bytes", iter([PIECE] * 20):
                    expected = short(PIECE * 20) if not isinstance(body, bytes) else body
                    connection.request(method, target, body)
                    response = connection.getresponse()
                    self.assertEqual((response.status, short(response.read())), (200, expected))
        connection.request("HEAD", "/hello")
        response = connection.getresponse()
        self.assertEqual((response.status, response.headers["Content-Length"]), (200, "13"))
        response.read()

    def test_server_inline(self):
        self.check("BENCH_SERVER", "inline", not_found=(), echoes=False)

    def test_server_worker(self):
        self.check("BENCH_SERVER", "worker", not_found=(), echoes=False)

    def test_server_kit(self):
        self.check("BENCH_SERVER", "kit", not_found=(), echoes=False)

    def test_kit_has_no_polling_mode(self):
        run = subprocess.run([os.environ["BENCH_SERVER"], "--port", "1", "--mode", "kit", "--polling"],
                             capture_output=True, text=True, timeout=LIMIT_SECONDS)
        self.assertEqual((run.returncode, run.stdout), (2, ""))
        self.assertIn("without --polling", run.stderr)

    def test_server_inline_polling(self):
        self.check("BENCH_SERVER", "inline", "--polling", not_found=())

    def test_server_worker_polling(self):
        self.check("BENCH_SERVER", "worker", "--polling", not_found=())

    def test_server_echoes_messages_in_event_driven_mode(self):
        for options in [], ["--mode", "worker"], ["--deflate"]:
            with self.subTest(options=options):
                port = free_port()
                process = self.start("BENCH_SERVER", "--port", str(port), "--websocket", *options)
                process.stdout.readline()
                self.check_echo(port, "/ws")
                connection = http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS)
                self.addCleanup(connection.close)
                connection.request("GET", "/ws")
                response = connection.getresponse()
                self.assertEqual((response.status, response.headers["Sec-WebSocket-Version"]),
                                 (426, "13"))
                self.end(process)

    def test_server_responds_with_the_body(self):
        for mode in "inline", "worker", "kit":
            for options in [], *([["--polling"]] if mode != "kit" else []):
                with self.subTest(mode=mode, options=options):
                    port = free_port()
                    process = self.start("BENCH_SERVER", "--port", str(port), "--mode", mode, *options)
                    process.stdout.readline()
                    self.check_bodies(port)
                    self.end(process)

    def test_server_listens_on_endpoints(self):
        with tempfile.TemporaryDirectory() as folder:
            process = self.start("BENCH_SERVER", "--listen", "127.0.0.1:0", "--listen",
                                 f"unix:{folder}/socket")
            address = process.stdout.readline().removeprefix("listening on ").strip()
            self.assertRegex(address, r"^127\.0\.0\.1:[1-9]\d*$")
            self.assertEqual(process.stdout.readline(), f"listening on unix:{folder}/socket\n")
            for options in [f"http://{address}/hello"], ["--unix-socket", f"{folder}/socket",
                                                         "http://localhost/hello"]:
                run = subprocess.run(["curl", "--silent", "--fail", *options], text=True,
                                     stdout=subprocess.PIPE, timeout=LIMIT_SECONDS)
                self.assertEqual((run.returncode, run.stdout), (0, "Hello, World!"))
            self.end(process)

    def test_server_lets_requests_wait(self):
        for mode in "inline", "worker", "kit":
            with self.subTest(mode):
                self.check_waiting(mode)

    def check_waiting(self, mode):
        port = free_port()
        process = self.start("BENCH_SERVER", "--port", str(port), "--mode", mode)
        process.stdout.readline()
        waiting = [http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS)
                   for _ in range(40)]
        for connection in waiting:
            self.addCleanup(connection.close)
            connection.request("GET", "/wait")
        other = http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS)
        self.addCleanup(other.close)

        def ask(target):
            other.request("GET", target)
            return other.getresponse().read()

        end = time.monotonic() + LIMIT_SECONDS
        while ask("/waiting") != b"40":
            self.assertLess(time.monotonic(), end)
        self.assertEqual(ask("/release"), b"40")
        for connection in waiting:
            response = connection.getresponse()
            self.assertEqual((response.status, response.read()), (200, b"Hello, World!"))
        self.end(process)

    def test_bare_inline(self):
        self.check("BENCH_BARE", "inline")

    def test_bare_worker(self):
        self.check("BENCH_BARE", "worker")

    def test_bare_inline_suspending(self):
        self.check("BENCH_BARE", "inline", "--suspend")

    def test_bare_worker_suspending(self):
        self.check("BENCH_BARE", "worker", "--suspend")

    def test_civetweb(self):
        self.check("BENCH_CIVETWEB", "inline")

    def test_libwebsockets(self):
        port = free_port()
        process = self.start("BENCH_LIBWEBSOCKETS", "--port", str(port), "--websocket")
        self.assertEqual(process.stdout.readline(), f"listening on 127.0.0.1:{port}\n")
        self.check_echo(port)
        self.end(process)

    def test_beast_inline(self):
        self.check("BENCH_BEAST", "inline")

    def test_beast_worker(self):
        self.check("BENCH_BEAST", "worker")


    def test_beast_secure(self):
        self.check_secure("BENCH_BEAST", "/echo")

    def test_server_secure(self):
        self.check_secure("BENCH_SERVER", "/ws")

    def check_secure(self, program, path):
        with tempfile.TemporaryDirectory() as folder:
            certificate = drive.make_certificate(folder)
            port = free_port()
            process = self.start(program, "--port", str(port), "--websocket",
                                 *map(str, certificate.options()))
            self.assertEqual(process.stdout.readline(), f"listening on 127.0.0.1:{port}\n")
            for page, size in ("hello", 13), ("stream?bytes=3000000", 3000000):
                run = subprocess.run(["curl", "--silent", "--fail", "--cacert", certificate.file,
                                      f"https://localhost:{port}/{page}"], stdout=subprocess.PIPE,
                                     timeout=LIMIT_SECONDS)
                self.assertEqual((run.returncode, len(run.stdout)), (0, size))
            self.check_echo(port, path, "--tls")
            self.end(process)


class Rows(unittest.TestCase):
    def test_measures_each_row(self):
        with tempfile.TemporaryDirectory() as folder:
            build = pathlib.Path(os.environ["BENCH_SERVER"]).parent.parent
            done = subprocess.run([sys.executable, "-B", pathlib.Path(table.__file__), "--smoke",
                                   "--build", build, "--output", folder],
                                  capture_output=True, text=True, timeout=ROWS_LIMIT_SECONDS)
            self.assertEqual(done.returncode, 0, done.stdout[-2000:] + done.stderr[-2000:])
            result = json.loads((pathlib.Path(folder) / "measurements.json").read_text())
        targets = [target["name"] for target in result["targets"]]
        for names in [row.name for row in table.rows()], \
                [name for name in connections.rows(None, None, None) if "polling" not in name], \
                extremes.rows(None, None, None), ["deflate of 10 KiB of JSON"]:
            for name in names:
                self.assertTrue([each for each in targets if each.startswith(name)], name)
        for row in result["rows"]:
            for server, measured in row["servers"].items():
                self.assertGreater(measured[0]["rate"], 0, (row["row"], server))


class CommandLine(unittest.TestCase):
    PROGRAMS = "BENCH_SERVER", "BENCH_BARE", "BENCH_CIVETWEB", "BENCH_BEAST", "BENCH_CLIENT"

    def test_refuses_what_it_does_not_know(self):
        for program in self.PROGRAMS:
            with self.subTest(program):
                run = subprocess.run([os.environ[program], "--port", "1", "--unknown"],
                                     capture_output=True, text=True, timeout=LIMIT_SECONDS)
                self.assertEqual((run.returncode, run.stdout), (2, ""))
                self.assertIn("--unknown", run.stderr)

    def test_says_when_it_cannot_listen(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = str(taken.getsockname()[1])
            for program in self.PROGRAMS[:-1]:
                with self.subTest(program):
                    run = subprocess.run([os.environ[program], "--port", port],
                                         capture_output=True, text=True, timeout=LIMIT_SECONDS)
                    self.assertEqual((run.returncode, run.stdout), (1, ""))
                    place = "127.0.0.1:" if program == "BENCH_SERVER" else "port "
                    self.assertIn(f"cannot listen on {place}{port}", run.stderr)
            run = subprocess.run([os.environ["BENCH_SERVER"], "--polling", "--port", port],
                                 capture_output=True, text=True, timeout=LIMIT_SECONDS)
            self.assertEqual((run.returncode, run.stdout), (1, ""))
            self.assertIn(f"cannot listen on port {port}", run.stderr)

    def test_wants_one_place_to_listen_on(self):
        for options in [], ["--port", "1", "--listen", "127.0.0.1:0"], \
                ["--listen", "127.0.0.1:0", "--polling"]:
            with self.subTest(options):
                run = subprocess.run([os.environ["BENCH_SERVER"], *options], capture_output=True,
                                     text=True, timeout=LIMIT_SECONDS)
                self.assertEqual((run.returncode, run.stdout), (2, ""))
                self.assertIn("--listen", run.stderr)

    def test_client_counts_what_fails(self):
        run = subprocess.run(
            [os.environ["BENCH_CLIENT"], "--port", str(free_port()), "--seconds", "0.1"],
            capture_output=True, text=True, timeout=LIMIT_SECONDS)
        self.assertEqual(run.returncode, 1)
        self.assertEqual(json.loads(run.stdout)["errors"], 1)


if __name__ == "__main__":
    unittest.main()

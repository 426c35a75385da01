#!/usr/bin/env python3
"""Tests that the soak test detects servers that respond wrongly, die, do not stop, or lose things.

    WENDREL_FILEDROP=... WENDREL_CHAT=... [WENDREL_LEAKY=...] python3 test_soak.py [Class[.test]]
"""

import asyncio
import hashlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
import unittest.mock

import plot
import soak
from client import CLOSE_FRAME, WebSocket, cancel, frame
from load import Load, Pace, Person
from processes import wait_until

HERE = pathlib.Path(__file__).resolve().parent
LIMIT_SECONDS = 120


async def with_server(serve, use):
    """Runs `use(port)` beside a server that calls `serve(reader, writer)` for each connection."""
    async def serve_and_close(reader, writer):
        try:
            await serve(reader, writer)
        except (ConnectionError, asyncio.IncompleteReadError, asyncio.LimitOverrunError):
            pass
        finally:
            writer.close()

    server = await asyncio.start_server(serve_and_close, "127.0.0.1", 0)
    try:
        return await asyncio.wait_for(use(server.sockets[0].getsockname()[1]), LIMIT_SECONDS)
    finally:
        server.close()


async def respond_wrongly(reader, writer):
    """Says yes to everything, with a body that was not asked for."""
    while True:
        head = await reader.readuntil(b"\r\n\r\n")
        body = b"" if head.startswith(b"HEAD") else b"wrong"
        writer.write(b"HTTP/1.1 200 OK\r\nETag: \"x\"\r\nContent-Length: 5\r\n\r\n" + body)
        await writer.drain()


class WrongResponses(unittest.TestCase):
    def failures_of(self, use):
        async def run():
            return await with_server(respond_wrongly, use)
        return asyncio.run(run())

    def test_no_small_request_takes_them(self):
        async def use(port):
            load = Load(port, port, Pace("prime"), 1)
            missed = []
            for request in Load.SMALL:
                load.SMALL = (request,)
                load.random.randint = lambda *_: 1
                await load.perform("small")
                if load.failed["small"] != 1:
                    missed.append(request.__name__)
                load.failed.clear()
            return missed
        self.assertEqual(self.failures_of(use), [])

    def test_no_other_operation_takes_them(self):
        async def use(port):
            load = Load(port, port, Pace("prime"), 1)
            names = [name for name in Load.OPERATIONS
                     if name not in ("small", "abort_head", "end_in_head")]  # these expect nothing
            for name in names:
                await load.perform(name)
            return set(names) - set(load.failed)
        self.assertEqual(self.failures_of(use), set())

    def test_one_changed_byte_of_a_large_file_is_noticed(self):
        async def serve_file(reader, writer, change):
            body = b""
            while True:
                head = await reader.readuntil(b"\r\n\r\n")
                length = 0
                for line in head.lower().split(b"\r\n"):
                    if line.startswith(b"content-length:"):
                        length = int(line.split(b":")[1])
                if head.startswith(b"PUT"):
                    if length:
                        body = await reader.readexactly(length)
                    else:
                        body = b""
                        while size := int(await reader.readuntil(b"\r\n"), 16):
                            body += (await reader.readexactly(size + 2))[:-2]
                        await reader.readexactly(2)
                    writer.write(b"HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n")
                elif head.startswith(b"GET"):
                    sent = bytearray(body)
                    sent[len(sent) // 2] ^= change
                    writer.write(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(sent), sent))
                else:
                    writer.write(b"HTTP/1.1 204 No Content\r\n\r\n")
                await writer.drain()

        async def run(change, seed):
            async def use(port):
                load = Load(port, port, Pace("prime"), seed)
                await load.perform("upload_and_download")
                return load.failures
            return await with_server(lambda *ends: serve_file(*ends, change), use)

        for seed in (1, 2, 3, 4):  # with and without a declared length
            with self.subTest(seed):
                self.assertEqual(asyncio.run(run(0, seed)), [])
                failure, = asyncio.run(run(1, seed))
                self.assertIn("came back changed", failure)

    def test_large_files_differ(self):
        load = Load(0, 0, Pace("prime"), 1)
        digests = set()
        for _ in range(20):
            pieces = list(load.content(1000000))
            self.assertEqual(sum(map(len, pieces)), 1000000)
            digests.add(hashlib.sha256(b"".join(pieces)).digest())
        self.assertEqual(len(digests), 20)

    def test_pieces_of_a_large_file_differ(self):
        load = Load(0, 0, Pace("prime"), 1)
        pieces = list(load.content(64 * 1024 * 1024))
        self.assertEqual(len(set(pieces)), len(pieces))

    def test_an_aborted_upload_that_is_there_is_noticed(self):
        async def keep_uploads(reader, writer):
            if (await reader.readuntil(b"\r\n\r\n")).startswith(b"GET"):
                writer.write(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")
            else:
                while await reader.read(65536):
                    pass

        async def use(port):
            load = Load(port, port, Pace("prime"), 1)
            await load.perform("abort_upload")
            return load.failures

        failure, = asyncio.run(with_server(keep_uploads, use))
        self.assertIn("an upload that was aborted is there", failure)


class Messages(unittest.TestCase):
    def test_frames_are_read_as_they_were_sent(self):
        sizes = (0, 1, 125, 126, 65535, 65536, 100000)

        async def serve(reader, writer):
            await reader.readuntil(b"\r\n\r\n")
            writer.write(b"HTTP/1.1 101 Switching Protocols\r\n"
                         b"Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n")
            for size in sizes:
                for kind in (0x81, 0x82):
                    head = await reader.readexactly(2)
                    self.assertEqual(head[0], kind)
                    length = head[1] - 128
                    extra = b""
                    if length > 125:
                        extra = await reader.readexactly(2 if length == 126 else 8)
                        length = int.from_bytes(extra, "big")
                    self.assertEqual(length, size)
                    mask = await reader.readexactly(4)
                    payload = bytes(byte ^ mask[index % 4] for index, byte in
                                    enumerate(await reader.readexactly(length)))
                    writer.write(bytes([kind, head[1] - 128]) + extra + payload)
            self.assertEqual(await reader.readexactly(len(CLOSE_FRAME)), CLOSE_FRAME)

        async def use(port):
            async with await WebSocket.upgrade(port) as socket:
                for size in sizes:
                    for message in ("ab"[size % 2] * size, os.urandom(size)):
                        await socket.send(frame(message))
                        self.assertEqual(await socket.receive(), message)
                await socket.send(CLOSE_FRAME)
                self.assertIsNone(await socket.receive())

        asyncio.run(with_server(serve, use))

    def test_other_words_than_were_said_are_noticed(self):
        class Echo:
            def __init__(self, messages):
                self.messages = messages

            async def send(self, data):
                pass

            async def receive(self, seconds=0):
                return self.messages.pop(0)

        def line(text):
            return json.dumps({"type": "line", "from": "me", "text": text, "time": 0})

        async def run(messages):
            person = Person(Echo(messages), "room", "me")
            await person.say("hello")
            await person.listen()

        for messages in ([line("hallo")], [line("hello"), line("hello")], [b"hello"], [None]):
            with self.subTest(messages):
                with self.assertRaisesRegex(Exception, "not what was said|a text message is due"):
                    asyncio.run(run(messages))

    def test_a_task_that_forgets_to_end_is_ended(self):
        async def stubborn():
            try:
                await asyncio.sleep(LIMIT_SECONDS)
            except asyncio.CancelledError:
                await asyncio.sleep(LIMIT_SECONDS)

        async def run():
            task = asyncio.ensure_future(stubborn())
            await asyncio.sleep(0)
            await asyncio.wait_for(cancel(task), LIMIT_SECONDS / 2)
            self.assertTrue(task.cancelled())

        asyncio.run(run())


class Ends(unittest.TestCase):
    """How a server ends, with small programs in its place."""

    def server(self, program):
        directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        text = "print('http://127.0.0.1:1/', flush=True)\n" + program
        server = soak.Server("it", [sys.executable, "-c", text, "--port", "1"], directory, None)
        self.addCleanup(server.end)
        return server

    def test_a_clean_stop_is_no_complaint(self):
        server = self.server("import signal, sys, time\n"
                             "signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))\n"
                             "print('set', flush=True); time.sleep(600)")
        server.wait_ready()
        self.wait_for(server, "set")
        self.assertEqual(server.stop(), [])

    def test_an_exit_code_is_a_complaint(self):
        server = self.server("import signal, sys, time\n"
                             "signal.signal(signal.SIGTERM, lambda *_: sys.exit(3))\n"
                             "print('set', flush=True); time.sleep(600)")
        self.wait_for(server, "set")
        complaint, = server.stop()
        self.assertIn("it: exit code 3 after SIGTERM", complaint)

    def test_a_stop_without_end_is_a_complaint(self):
        server = self.server("import signal, time\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
                             "print('set', flush=True); time.sleep(600)")
        self.wait_for(server, "set")
        with unittest.mock.patch.object(soak, "STOP_LIMIT_SECONDS", 0.5):
            complaint, = server.stop()
        self.assertIn("did not end within 0.5 s of SIGTERM", complaint)
        self.assertIsNotNone(server.process.poll())

    def test_what_a_sanitizer_says_is_a_complaint(self):
        server = self.server("import signal, sys, time\n"
                             "signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))\n"
                             "print('ERROR: LeakSanitizer: detected', flush=True); time.sleep(600)")
        self.wait_for(server, "LeakSanitizer")
        complaint, = server.stop()
        self.assertIn("a sanitizer has complained", complaint)

    def test_a_death_ends_the_run(self):
        server = self.server("raise SystemExit(7)")
        server.process.wait(LIMIT_SECONDS)
        with self.assertRaisesRegex(soak.RunFailed, "died under the load with exit code 7"):
            server.check_alive()

    def wait_for(self, server, text):
        wait_until(lambda: text in server.text(), text)


class Leaks(unittest.TestCase):
    """The real servers, made to lose something with each connection."""

    @unittest.skipUnless(os.environ.get("WENDREL_LEAKY"), "no library that makes servers leak")
    def test_lost_descriptors_and_threads_fail_a_short_run(self):
        with tempfile.TemporaryDirectory() as output, \
                unittest.mock.patch.dict(os.environ, WENDREL_LEAK="descriptors,threads"):
            # A leak never disappears: a short wait is enough.
            done = subprocess.run(
                [sys.executable, HERE / "soak.py", "--filedrop", os.environ["WENDREL_FILEDROP"],
                 "--chat", os.environ["WENDREL_CHAT"], "--preload", os.environ["WENDREL_LEAKY"],
                 "--seconds", "2", "--drain-limit", "2", "--output", output, "--no-plot"],
                text=True, capture_output=True, check=False, timeout=4 * LIMIT_SECONDS)
            self.assertEqual(done.returncode, 1, done.stdout + done.stderr)
            for server in ("filedrop", "chat"):
                for quantity in ("descriptors", "threads"):
                    self.assertRegex(done.stdout, f"- {server}: {quantity} did not come back "
                                                  r"within 2 s: \d+ before the load, \d+ after it")


class Curves(unittest.TestCase):
    def test_many_points_become_few_that_keep_the_peaks(self):
        points = [(number / 60, 500 if number == 777 else 10) for number in range(5000)]
        few = plot.thin(points, max)
        self.assertLessEqual(len(few), plot.MAX_POINTS)
        self.assertEqual(max(value for _, value in few), 500)
        self.assertEqual(sum(value == 500 for _, value in few), 1)
        self.assertEqual(plot.thin(points[:100], max), points[:100])

    def test_percentiles(self):
        values = list(range(1, 101))
        self.assertEqual(soak.percentile(values, 0.99), 100)
        self.assertEqual(soak.percentile(values, 0.5), 51)
        self.assertEqual(soak.percentile([7], 0.99), 7)


def main():
    """77 when all tests were skipped."""
    result = unittest.main(exit=False, verbosity=2).result
    if not result.wasSuccessful() or result.testsRun == 0:
        sys.exit(1)
    sys.exit(77 if len(result.skipped) == result.testsRun else 0)


if __name__ == "__main__":
    main()

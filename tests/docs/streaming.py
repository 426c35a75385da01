"""Tests the handlers of streaming.cpp. Usage: streaming.py PROGRAM"""

import http.client
import pathlib
import sys
import tempfile
import unittest

from docs_server import KitServer, reset

FILE_BYTES = 12 * 1024 * 1024  # more than the socket buffers of both sides hold
NOTE_LIMIT_BYTES = 65536
LAST_NUMBER = 3000000


class Streaming(unittest.TestCase):
    program = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="wendrel-docs-")
        self.addCleanup(folder.cleanup)
        self.file = pathlib.Path(folder.name) / "file"
        self.content = b"".join(b"%07d\n" % number for number in range(FILE_BYTES // 8))
        self.file.write_bytes(self.content)
        self.server = KitServer(self, self.program, self.file)

    def tearDown(self):
        self.assertEqual(self.server.process.stop(), 0)

    def test_a_file_arrives_with_its_length(self):
        status, body, response = self.server.ask("GET", "/file")
        self.assertEqual((status, response.getheader("Content-Length")), (200, str(FILE_BYTES)))
        self.assertTrue(body == self.content, f"{len(body)} bytes")
        status, body, response = self.server.ask("HEAD", "/file")
        self.assertEqual((status, body), (200, b""))
        self.assertEqual(response.getheader("Content-Length"), str(FILE_BYTES))

    def test_no_file(self):
        self.file.unlink()
        status, body, _ = self.server.ask("GET", "/file")
        self.assertEqual((status, body), (404, b'{"title":"Not Found","status":404,"detail":"There is no such file."}'))

    def test_a_file_that_becomes_shorter_is_cut_off(self):
        connection = self.server.connect(receive_bytes=65536)
        connection.request("GET", "/file")
        response = connection.getresponse()
        response.read(1000)
        with open(self.file, "r+b") as file:
            file.truncate(FILE_BYTES - 1)
        with self.assertRaises(http.client.IncompleteRead):
            response.read()
        connection.close()

    def test_numbers_arrive_with_and_without_a_worker(self):
        for target in ("/numbers", "/numbers-later"):
            with self.subTest(target):
                for last in (0, 1, LAST_NUMBER):
                    expected = "".join(f"{number}\n" for number in range(1, last + 1)).encode()
                    status, body, _ = self.server.ask("GET", f"{target}/{last}")
                    self.assertEqual(status, 200)
                    self.assertTrue(body == expected, f"{len(body)} bytes")
                self.assertEqual(self.server.ask("HEAD", f"{target}/3")[:2], (200, b""))

    def test_slow_readers_of_a_deferred_stream_hold_no_worker(self):
        """There are 4 workers."""
        readers = []
        for target in ("/numbers-later/20000000", "/file") * 10:
            readers.append(self.server.connect(receive_bytes=65536))
            readers[-1].request("GET", target)
            readers[-1].getresponse().read(1000)
        self.assertEqual(self.server.ask("POST", "/notes", b"milk")[:2], (200, b"noted: milk\n"))
        for reader in readers:
            reset(reader)

    def test_a_slow_body_holds_no_worker(self):
        senders = [self.server.connect() for _ in range(20)]
        for sender in senders:
            sender.putrequest("POST", "/notes")
            sender.putheader("Content-Length", "1000")
            sender.endheaders(b"x")
        self.assertEqual(self.server.ask("POST", "/notes", b"milk")[:2], (200, b"noted: milk\n"))
        for sender in senders:
            reset(sender)

    def test_slow_uploads_to_callbacks_hold_no_worker(self):
        senders = [self.server.begin_upload("POST", "/lines-later", 3, b"\n") for _ in range(20)]
        self.assertEqual(self.server.ask("POST", "/lines", b"\n")[:2], (200, b"1\n"))
        for sender in senders:
            reset(sender)

    def test_the_handler_returns_when_the_client_disconnects(self):
        """The server has 4 workers: waiting for 5 closed connections, none would be free."""
        for _ in range(5):
            connection = self.server.connect(receive_bytes=65536)
            connection.request("GET", "/numbers/20000000")
            connection.getresponse().read(1000)
            reset(connection)
            reset(self.server.begin_upload("POST", "/lines", 1000000, b"\n" * 1000))
        self.assertEqual(self.server.ask("POST", "/lines", b"")[:2], (200, b"0\n"))

    def test_lines_are_counted(self):
        rows = ((b"", b"0\n"), (b"\n", b"1\n"), (b"a\nb", b"1\n"),
                (self.content, b"%d\n" % (FILE_BYTES // 8)))
        chunked = {"encode_chunked": True, "headers": {"Transfer-Encoding": "chunked"}}
        for target in ("/lines", "/lines-later"):
            for body, expected in rows:
                self.assertEqual(self.server.ask("POST", target, body)[:2], (200, expected))
            self.assertEqual(self.server.ask("POST", target, [self.content] * 2, **chunked)[:2],
                             (200, b"%d\n" % (2 * FILE_BYTES // 8)))

    def test_a_note_has_its_limit(self):
        too_large = (413, b'{"title":"Content Too Large","status":413}')
        largest = b"x" * NOTE_LIMIT_BYTES
        chunked = {"encode_chunked": True, "headers": {"Transfer-Encoding": "chunked"}}
        self.assertEqual(self.server.ask("POST", "/notes", b"milk")[:2], (200, b"noted: milk\n"))
        self.assertEqual(self.server.ask("POST", "/notes", largest)[0], 200)
        self.assertEqual(self.server.ask("POST", "/notes", largest + b"x")[:2], too_large)
        self.assertEqual(self.server.ask("POST", "/notes", [largest], **chunked)[0], 200)
        self.assertEqual(self.server.ask("POST", "/notes", [largest, b"x"], **chunked)[:2], too_large)


if __name__ == "__main__":
    Streaming.program = sys.argv.pop(1)
    unittest.main(verbosity=2)

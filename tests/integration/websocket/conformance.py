#!/usr/bin/env python3
"""Cases of RFC 6455 and RFC 7692 against a server that echoes messages, generated, with a client of
this file and zlib as references.

    WENDREL_ECHO_SERVER=build/release/tests/integration/websocket_session_server \
        python3 conformance.py [Class[.test]]

WENDREL_ECHO_URL=127.0.0.1:8181/ws tests a server that runs already; WENDREL_CONFORMANCE_MESSAGES
sets the messages of each compressed conversation (default 40, and 1000 of Volume).
"""

import base64
import hashlib
import itertools
import json
import os
import pathlib
import random
import socket
import sys
import time
import unittest
import zlib

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
from processes import Process

LIMIT_SECONDS = 120
MESSAGES = int(os.environ.get("WENDREL_CONFORMANCE_MESSAGES", "40"))
MANY_MESSAGES = int(os.environ.get("WENDREL_CONFORMANCE_MESSAGES", "1000"))
MAGIC = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
CONTINUATION, TEXT, BINARY, CLOSE, PING, PONG = 0, 1, 2, 8, 9, 10
FIN, RSV1, RSV2, RSV3 = 0x80, 0x40, 0x20, 0x10
SIZES = (16, 64, 256, 1024, 4096, 8192, 16384, 32768, 65536, 131072)  # of compressed messages
TAIL = b"\0\0\xff\xff"


def masked(payload, mask):
    size = len(payload)
    key = (mask * (size // 4 + 1))[:size]
    return (int.from_bytes(payload, "little") ^ int.from_bytes(key, "little")).to_bytes(size, "little")


def frame(opcode, payload=b"", fin=True, rsv=0):
    if isinstance(payload, str):
        payload = payload.encode()
    size = len(payload)
    head = bytes([(FIN if fin else 0) | rsv | opcode])
    if size < 126:
        head += bytes([0x80 | size])
    elif size < 65536:
        head += b"\xfe" + size.to_bytes(2, "big")
    else:
        head += b"\xff" + size.to_bytes(8, "big")
    mask = random.randbytes(4)
    return head + mask + masked(payload, mask)


def fragments(opcode, payload, size, rsv=0):
    """The frames of a message, of which each but the last has `size` bytes."""
    parts = [payload[i:i + size] for i in range(0, len(payload), size)] or [b""]
    return [frame(opcode if i == 0 else CONTINUATION, part, i == len(parts) - 1, rsv if i == 0 else 0)
            for i, part in enumerate(parts)]


def close_frame(code, reason=b""):
    return frame(CLOSE, code.to_bytes(2, "big") + reason)


class Client:
    def __init__(self, address, extensions=None):
        host, _, rest = address.partition(":")
        port, _, path = rest.partition("/")
        self.socket = socket.create_connection((host, int(port)), timeout=LIMIT_SECONDS)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.received = bytearray()
        key = base64.b64encode(os.urandom(16)).decode()
        offer = f"Sec-WebSocket-Extensions: {extensions}\r\n" if extensions else ""
        self.socket.sendall(
            (f"GET /{path} HTTP/1.1\r\nHost: {host}:{port}\r\nConnection: Upgrade\r\n"
             f"Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n{offer}"
             f"Sec-WebSocket-Key: {key}\r\n\r\n").encode())
        while b"\r\n\r\n" not in self.received:
            self.fill()
        head, _, rest = bytes(self.received).partition(b"\r\n\r\n")
        self.received = bytearray(rest)
        lines = head.decode().split("\r\n")
        self.status = int(lines[0].split()[1])
        self.headers = {name.lower(): value.strip()
                        for name, value in (line.split(":", 1) for line in lines[1:])}
        if self.status == 101:
            expected = base64.b64encode(hashlib.sha1((key + MAGIC).encode()).digest()).decode()
            assert self.headers["sec-websocket-accept"] == expected, self.headers

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def fill(self):
        part = self.socket.recv(1 << 20)
        if not part:
            raise EOFError
        self.received += part

    def send(self, data, chop=None):
        """In pieces of `chop` bytes, each a call of its own."""
        for i in range(0, len(data), chop or len(data) or 1):
            self.socket.sendall(data[i:i + (chop or len(data))])

    def receive(self):
        """The next frame: its first byte and its payload. EOFError at the end."""
        while len(self.received) < 2:
            self.fill()
        first, size = self.received[0], self.received[1]
        assert size < 128, "a frame of the server is masked"
        extended = 8 if size == 127 else 2 if size == 126 else 0
        while len(self.received) < 2 + extended:
            self.fill()
        if extended:
            size = int.from_bytes(self.received[2:2 + extended], "big")
            assert size > (125 if extended == 2 else 65535), "a length is not in its shortest form"
        while len(self.received) < 2 + extended + size:
            self.fill()
        payload = bytes(self.received[2 + extended:2 + extended + size])
        del self.received[:2 + extended + size]
        return first, payload

    def receive_all(self):
        """All frames until the server has closed its side, which it does first. A reset is an error."""
        frames = []
        try:
            while True:
                frames.append(self.receive())
        except EOFError:
            assert not self.received, "the end cuts a frame off"
            return frames


class Conformance(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.address = os.environ.get("WENDREL_ECHO_URL")
        cls.server = None
        if not cls.address:
            cls.server = Process(os.environ["WENDREL_ECHO_SERVER"], limit=10 * LIMIT_SECONDS)
            cls.address = f"127.0.0.1:{cls.server.wait_line(r'port (.*)').group(1)}/"

    @classmethod
    def tearDownClass(cls):
        if cls.server:
            code = cls.server.stop()
            cls.server.kill()
            assert code == 0, cls.server.text()

    def setUp(self):
        random.seed(20241122)

    def exchange(self, data, expected, code=1000, chops=(None, 1), extensions=None):
        """Sends `data` and gets the frames `expected`, a close frame with `code` (None: without a
        code), and the end, which the server begins."""
        for chop in chops:
            with self.subTest(data=data[:40], chop=chop), Client(self.address, extensions) as client:
                client.send(data, chop)
                frames = client.receive_all()
                self.assertEqual(frames[:-1], expected)
                self.assertEqual(frames[-1][0], FIN | CLOSE)
                payload = frames[-1][1]
                if code is None:
                    self.assertEqual(payload, b"")
                else:
                    self.assertEqual(int.from_bytes(payload[:2], "big"), code, payload)
                    payload[2:].decode()

    def fails(self, data, expected=(), code=1002, chops=(None, 1), extensions=None):
        """The same of a failure, after which nothing is echoed."""
        behind = frame(TEXT, "behind") + frame(PING, "behind")
        self.exchange(data + behind, list(expected), code, chops, extensions)


def echo(opcode, payload):
    return (FIN | opcode, payload.encode() if isinstance(payload, str) else payload)


class Framing(Conformance):
    def test_messages_of_every_length_form(self):
        for opcode, size in itertools.product((TEXT, BINARY), (0, 1, 125, 126, 127, 128, 65535, 65536)):
            payload = b"*" * size if opcode == TEXT else random.randbytes(size)
            self.exchange(frame(opcode, payload) + close_frame(1000), [echo(opcode, payload)],
                          chops=(None, 997) if size > 200 else (None, 1))

    def test_frames_must_be_masked(self):
        self.fails(b"\x81\x02ab")

    def test_lengths_must_be_minimal(self):
        for head in (b"\x82\xfe\0\x7d", b"\x82\xff" + (65535).to_bytes(8, "big"), b"\x82\xff" + bytes(8),
                     b"\x82\xff" + (1 << 63).to_bytes(8, "big")):
            self.fails(head + bytes(4))

    def test_reserved_bits(self):
        hello = frame(TEXT, "Hello")
        for rsv in (rsv << 4 for rsv in range(1, 8)):
            for opcode in (TEXT, BINARY, CLOSE, PING, PONG):
                self.fails(frame(opcode, "x", rsv=rsv))
                self.fails(hello + frame(PING, "p") + frame(opcode, "x", rsv=rsv),
                           [echo(TEXT, "Hello"), echo(PONG, "p")])
            self.fails(frame(TEXT, "a", False) + frame(CONTINUATION, "b", rsv=rsv))

    def test_unknown_opcodes(self):
        for opcode in (3, 4, 5, 6, 7, 11, 12, 13, 14, 15):
            for payload in (b"", b"reserved"):
                self.fails(frame(opcode, payload))
                self.fails(frame(TEXT, "Hello") + frame(opcode, payload) + frame(PING, ""),
                           [echo(TEXT, "Hello")])


class Control(Conformance):
    def test_pings(self):
        for payload in (b"", b"Hello", b"\0\xff\xfe\xfd", bytes(range(125))):
            self.exchange(frame(PING, payload) + close_frame(1000), [echo(PONG, payload)])

    def test_pings_above_125_bytes(self):
        for opcode in (PING, PONG, CLOSE):
            self.fails(frame(opcode, bytes(126)))

    def test_unsolicited_pongs(self):
        for payload in (b"", b"unsolicited"):
            self.exchange(frame(PONG, payload) + close_frame(1000), [])
        self.exchange(frame(PONG, "no") + frame(PING, "yes") + close_frame(1000), [echo(PONG, "yes")])

    def test_pipelined_pings(self):
        pings = [f"ping {i}" for i in range(10)]
        self.exchange(b"".join(frame(PING, ping) for ping in pings) + close_frame(1000),
                      [echo(PONG, ping) for ping in pings])

    def test_control_frames_must_not_be_fragmented(self):
        for opcode in (PING, PONG, CLOSE):
            self.fails(frame(opcode, "a", False) + frame(CONTINUATION, "b"))


class Fragmentation(Conformance):
    def test_joins_fragments(self):
        for count in (2, 3, 10):
            for empty in (False, True):
                parts = [b"" if empty else f"fragment {i} ".encode() for i in range(count)]
                data = frame(TEXT, parts[0], False)
                data += b"".join(frame(CONTINUATION, part, False) for part in parts[1:-1])
                data += frame(CONTINUATION, parts[-1])
                self.exchange(data + close_frame(1000), [echo(TEXT, b"".join(parts))])

    def test_control_frames_between_fragments(self):
        data = frame(TEXT, "a", False) + frame(PING, "1") + frame(CONTINUATION, "b", False)
        data += frame(PONG, "2") + frame(PING, "3") + frame(PING, "4") + frame(CONTINUATION, "c")
        data += frame(BINARY, "d", False) + frame(PING, "5") + frame(CONTINUATION, "")
        self.exchange(data + close_frame(1000),
                      [echo(PONG, "1"), echo(PONG, "3"), echo(PONG, "4"), echo(TEXT, "abc"),
                       echo(PONG, "5"), echo(BINARY, "d")])

    def test_pongs_do_not_wait_for_the_message(self):
        with Client(self.address) as client:
            for i in range(5):
                client.send(frame(TEXT if i == 0 else CONTINUATION, f"part {i}", False))
                client.send(frame(PING, f"ping {i}"))
                self.assertEqual(client.receive(), echo(PONG, f"ping {i}"))
            client.send(frame(CONTINUATION, "end"))
            self.assertEqual(client.receive(), echo(TEXT, "part 0part 1part 2part 3part 4end"))

    def test_order_of_fragments(self):
        whole = frame(TEXT, "whole")
        for fin in (False, True):
            self.fails(frame(CONTINUATION, "x", fin))
            self.fails(whole + frame(CONTINUATION, "x", fin), [echo(TEXT, "whole")])
            self.fails(frame(TEXT, "a", False) + frame(CONTINUATION, "b") + frame(CONTINUATION, "c", fin),
                       [echo(TEXT, "ab")])
            for opcode in (TEXT, BINARY):
                self.fails(frame(TEXT, "a", False) + frame(opcode, "b", fin))

    def test_close_frame_between_fragments(self):
        self.exchange(frame(TEXT, "a", False) + close_frame(1001) + frame(CONTINUATION, "b"), [], 1001)


VALID = ["κόσμε", "Hello-µ@ßöäüàá-UTF-8!!", "\0", "\x7f", "\x80", "߿", "ࠀ", "\ud7ff", "\ue000", "�", "￾",
         "￿", "𐀀", "\U0001fffe", "\U0010ffff", "a" * 40 + "€" * 40, ""]
INVALID = [b"\x80", b"\xbf", b"\xc0\x80", b"\xc1\xbf", b"\xc2\x7f", b"\xc2\xc0", b"\xe0\x80\x80", b"\xe0\x9f\xbf",
           b"\xe1\x80\x7f", b"\xed\xa0\x80", b"\xed\xbf\xbf", b"\xf0\x80\x80\x80", b"\xf0\x8f\xbf\xbf", b"\xf1\x80\x80\x7f",
           b"\xf4\x90\x80\x80", b"\xf5\x80\x80\x80", b"\xf8\x88\x80\x80\x80", b"\xfc\x84\x80\x80\x80\x80", b"\xfe", b"\xff",
           b"\xed\xa0\x80\xed\xb0\x80", b"\xce\xba\xe1\xbd\xb9\xcf\x83\xce\xbc\xce\xb5\xed\xa0\x80edited",
           b"\xce\xba\xe1\xbd\xb9\xcf\x83\xce\xbc\xce\xb5\xf4\x90\x80\x80edited"]


def first_invalid(data):
    """The index of the first byte that cannot belong to text."""
    for end in range(1, len(data) + 1):
        try:
            data[:end].decode()
        except UnicodeDecodeError as error:
            if error.reason != "unexpected end of data":
                return end - 1
    return None


class Unicode(Conformance):
    def test_valid_text(self):
        for text in VALID:
            data = text.encode()
            self.exchange(frame(TEXT, data) + close_frame(1000), [echo(TEXT, data)])
            self.exchange(b"".join(fragments(TEXT, data, 1)) + close_frame(1000), [echo(TEXT, data)],
                          chops=(None,))

    def test_invalid_text(self):
        for data in INVALID:
            for padded in (data, b"a" * 70 + data, data + b"z" * 70):
                self.fails(frame(TEXT, padded), code=1007)
                self.fails(frame(TEXT, "before") + b"".join(fragments(TEXT, padded, 1)),
                           [echo(TEXT, "before")], 1007, chops=(None,))
            self.exchange(frame(BINARY, data) + close_frame(1000), [echo(BINARY, data)])

    def test_text_that_ends_inside_a_character(self):
        for text in ("µ", "€", "😀"):
            for cut in range(1, len(text.encode())):
                self.fails(frame(TEXT, b"abc" + text.encode()[:cut]), code=1007)
                self.fails(frame(TEXT, text.encode()[:cut], False) + frame(CONTINUATION), code=1007)

    def test_fails_at_the_byte_that_tells_in_a_frame(self):
        for data in INVALID:
            whole = frame(TEXT, b"text " + data + b"x" * 50)
            until = 6 + len("text ") + first_invalid(data) + 1
            self.exchange(whole[:until], [], 1007)

    def test_fails_at_the_byte_that_tells_in_fragments(self):
        for data in INVALID:
            with self.subTest(data=data), Client(self.address) as client:
                until = first_invalid(data)
                client.send(frame(TEXT, "text ", False))
                for i in range(until):
                    client.send(frame(CONTINUATION, data[i:i + 1], False) + frame(PING, bytes([i])))
                    self.assertEqual(client.receive(), echo(PONG, bytes([i])))
                client.send(frame(CONTINUATION, data[until:until + 1], False))
                self.assertEqual([(first, payload[:2]) for first, payload in client.receive_all()],
                                 [(FIN | CLOSE, b"\x03\xef")])


class Close(Conformance):
    def test_codes_that_may_be_sent(self):
        for code in (1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 1012, 1013, 1014, 3000, 3999, 4000, 4999):
            self.exchange(close_frame(code), [], code)
            self.exchange(close_frame(code, b"a reason"), [], code)

    def test_codes_that_must_not_be_sent(self):
        for code in (0, 1, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999, 5000, 65535):
            self.fails(close_frame(code))
            self.fails(frame(TEXT, "before") + close_frame(code, b"a reason"), [echo(TEXT, "before")])

    def test_payloads(self):
        self.exchange(frame(CLOSE), [], None)
        self.fails(frame(CLOSE, "x"))
        self.exchange(close_frame(1000, b"r" * 123), [], 1000)
        self.exchange(close_frame(1000, "€".encode() * 41), [], 1000)
        self.fails(frame(CLOSE, b"\x03\xe8" + b"r" * 124))

    def test_reasons_must_be_text(self):
        for data in INVALID + ["€".encode()[:2]]:
            self.fails(close_frame(1000, data), code=1007)

    def test_nothing_is_handled_behind_a_close_frame(self):
        behind = frame(TEXT, "late") + frame(PING, "late") + close_frame(1001) + frame(3)
        self.exchange(frame(TEXT, "in time") + close_frame(1000) + behind, [echo(TEXT, "in time")])
        self.exchange(frame(TEXT, "a", False) + close_frame(1000) + frame(CONTINUATION, "b"), [])

    def test_large_message_before_a_close_frame(self):
        payload = random.randbytes(262144)
        self.exchange(frame(BINARY, payload) + close_frame(1000) + frame(PING), [echo(BINARY, payload)],
                      chops=(None, 4096))


class Limits(Conformance):
    def test_large_messages(self):
        for size in (65536, 262144, 1 << 20, 4 << 20, 8 << 20, 16 << 20):
            text = ("BAsd7&jh23€" * (size // 13 + 1)).encode()[:size].decode(errors="ignore").encode()
            for opcode, payload in ((TEXT, text), (BINARY, random.randbytes(size))):
                with self.subTest(size=size, opcode=opcode), Client(self.address) as client:
                    client.send(frame(opcode, payload))
                    first, received = client.receive()
                    self.assertEqual(first, FIN | opcode)
                    self.assertTrue(received == payload)

    def test_large_messages_in_fragments(self):
        for size in (64, 256, 1024, 4096, 16384, 65536, 1 << 20):
            payload = b"\xe2\x82\xac" * ((4 << 20) // 3)
            with self.subTest(size=size), Client(self.address) as client:
                client.send(b"".join(fragments(TEXT, payload, size)))
                first, received = client.receive()
                self.assertEqual(first, FIN | TEXT)
                self.assertTrue(received == payload)

    def test_large_messages_in_small_writes(self):
        for chop in (64, 128, 256, 512, 1024, 2048):
            payload = b"x" * (1 << 20)
            with self.subTest(chop=chop), Client(self.address) as client:
                client.send(frame(TEXT, payload), chop)
                self.assertTrue(client.receive() == echo(TEXT, payload))

    def test_one_message_after_the_other_waits_for_no_timer(self):
        # A delayed acknowledgement would cost 40 ms for each.
        for size in (0, 16, 64, 256, 1024, 4096, 16384, 65536):
            payload = b"*" * size
            with self.subTest(size=size), Client(self.address) as client:
                begin = time.monotonic()
                for opcode in [TEXT, BINARY] * 500:
                    client.send(frame(opcode, payload))
                    self.assertEqual(client.receive(), echo(opcode, payload))
                self.assertLess(time.monotonic() - begin, 20)

    def test_messages_sent_in_many_frames_at_once(self):
        payloads = [random.randbytes(random.randrange(2000)) for _ in range(2000)]
        with Client(self.address) as client:
            for begin in range(0, len(payloads), 100):
                part = payloads[begin:begin + 100]
                client.send(b"".join(b"".join(fragments(BINARY, payload, 1300)) for payload in part))
                for payload in part:
                    self.assertEqual(client.receive(), echo(BINARY, payload))


def parameters_of(response):
    """The parameters of an accepted permessage-deflate, by name."""
    name, *rest = (part.strip() for part in response.split(";"))
    assert name == "permessage-deflate", response
    pairs = [part.partition("=") for part in rest]
    assert len({pair[0] for pair in pairs}) == len(pairs), response
    return {name: value or None for name, _, value in pairs}


class Compression:
    """Both sides of an agreed permessage-deflate."""

    def __init__(self, response, level=6):
        parameters = parameters_of(response)
        self.server_bits = int(parameters.get("server_max_window_bits") or 15)
        self.client_bits = int(parameters.get("client_max_window_bits") or 15)
        self.server_resets = "server_no_context_takeover" in parameters
        self.client_resets = "client_no_context_takeover" in parameters
        self.level = level
        self.reset()

    def reset(self):
        # zlib has no window of 8 bits for raw data, but one of 9 refers no further for this.
        self.compressor = zlib.compressobj(self.level, zlib.DEFLATED, -max(9, self.client_bits))
        self.decompressor = zlib.decompressobj(-self.server_bits)

    def compress(self, payload):
        if self.client_resets:
            self.compressor = zlib.compressobj(self.level, zlib.DEFLATED, -max(9, self.client_bits))
        data = self.compressor.compress(payload) + self.compressor.flush(zlib.Z_SYNC_FLUSH)
        return data[:-4]

    def decompress(self, data):
        if self.server_resets:
            self.decompressor = zlib.decompressobj(-self.server_bits)
        return self.decompressor.decompress(data + TAIL)


def json_text(size):
    words = []
    while sum(map(len, words)) < size:
        words.append(json.dumps({"id": random.randrange(10000), "name": f"user {random.randrange(50)}",
                                 "text": "größe €"}, ensure_ascii=False))
    return "".join(words).encode()[:size].decode(errors="ignore").encode()


class Conversation(Conformance):
    def converse(self, offer, sizes, count, fragment_bytes=None):
        with Client(self.address, offer) as client:
            agreed = Compression(client.headers["sec-websocket-extensions"])
            compressed = 0
            for size in sizes:
                messages = [(TEXT, json_text(size)), (BINARY, random.randbytes(size)),
                            (TEXT, b"a" * size)]
                for i in range(count):
                    opcode, payload = messages[i % len(messages)]
                    data = agreed.compress(payload)
                    client.send(b"".join(fragments(opcode, data, fragment_bytes or len(data) or 1, RSV1)))
                    first, received = client.receive()
                    if first & RSV1:
                        compressed += 1
                        received = agreed.decompress(received)
                    self.assertEqual(first & ~RSV1, FIN | opcode)
                    self.assertTrue(received == payload, (size, i))
            self.assertGreater(compressed, 0)
            client.send(close_frame(1000))
            self.assertEqual(client.receive_all(), [(FIN | CLOSE, b"\x03\xe8")])


class Deflate(Conversation):
    def test_messages_of_every_size(self):
        for size in SIZES:
            with self.subTest(size=size):
                self.converse("permessage-deflate", (size, 1024), MESSAGES)

    def test_messages_in_fragments(self):
        for size, part in ((1024, 1), (8192, 256), (65536, 1024), (131072, 4096), (131072, 32768)):
            with self.subTest(size=size, part=part):
                self.converse("permessage-deflate", (size,), MESSAGES, part)

    def test_every_combination_of_parameters(self):
        server = ["", "; server_no_context_takeover"]
        client = ["", "; client_no_context_takeover"]
        server_bits = [""] + [f"; server_max_window_bits={bits}" for bits in range(8, 16)]
        client_bits = ["", "; client_max_window_bits"] + \
            [f"; client_max_window_bits={bits}" for bits in (8, 9, 12, 15)]
        for parts in itertools.product(server, client, server_bits, client_bits):
            offer = "permessage-deflate" + "".join(parts)
            with self.subTest(offer=offer):
                self.converse(offer, (100, 3000, 70000), 3)

    def test_answers_comply_with_the_offer(self):
        for parts in itertools.product(
                ["", "; server_no_context_takeover"], ["", "; client_no_context_takeover"],
                [""] + [f"; server_max_window_bits={bits}" for bits in range(8, 16)],
                ["", "; client_max_window_bits"] +
                [f"; client_max_window_bits={bits}" for bits in range(8, 16)]):
            offer = "permessage-deflate" + "".join(parts)
            asked = parameters_of(offer)
            with self.subTest(offer=offer), Client(self.address, offer) as client:
                agreed = parameters_of(client.headers["sec-websocket-extensions"])
                if "server_no_context_takeover" in asked:
                    self.assertIn("server_no_context_takeover", agreed)
                if "server_max_window_bits" in asked:
                    self.assertLessEqual(int(agreed["server_max_window_bits"]),
                                         int(asked["server_max_window_bits"]))
                if "client_max_window_bits" not in asked:
                    self.assertNotIn("client_max_window_bits", agreed)
                elif asked["client_max_window_bits"] and "client_max_window_bits" in agreed:
                    self.assertLessEqual(int(agreed["client_max_window_bits"]),
                                         int(asked["client_max_window_bits"]))

    def test_offers_that_are_declined(self):
        for parts in ("; unknown", "; server_max_window_bits", "; server_max_window_bits=7",
                      "; server_max_window_bits=16", "; server_max_window_bits=08",
                      "; server_max_window_bits=+9", "; client_max_window_bits=0",
                      "; client_max_window_bits=16", "; client_max_window_bits=a",
                      "; server_no_context_takeover=1", "; client_no_context_takeover=1",
                      "; server_no_context_takeover; server_no_context_takeover",
                      "; client_max_window_bits; client_max_window_bits",
                      "; server_max_window_bits=9; server_max_window_bits=9"):
            bad = "permessage-deflate" + parts
            with self.subTest(offer=bad):
                with Client(self.address, bad) as client:
                    self.assertEqual(client.status, 101)
                    self.assertNotIn("sec-websocket-extensions", client.headers)
                self.fails(frame(TEXT, "x", rsv=RSV1), extensions=bad, chops=(None,))
                # The next acceptable one is taken, not one after it.
                good = "permessage-deflate; server_max_window_bits=10"
                with Client(self.address, f"{bad}, x-other, {good}, permessage-deflate") as client:
                    agreed = parameters_of(client.headers["sec-websocket-extensions"])
                    self.assertEqual(agreed["server_max_window_bits"], "10")

    def test_uncompressed_messages_among_compressed_ones(self):
        with Client(self.address, "permessage-deflate") as client:
            agreed = Compression(client.headers["sec-websocket-extensions"])
            for i in range(20):
                payload = json_text(1000)
                client.send(frame(TEXT, payload) if i % 2 else frame(TEXT, agreed.compress(payload), rsv=RSV1))
                first, received = client.receive()
                self.assertEqual(agreed.decompress(received) if first & RSV1 else received, payload)

    def test_empty_messages(self):
        for opcode, payload in itertools.product((TEXT, BINARY), (b"", b"\0", b"\2\0", b"\3\0")):
            data = frame(opcode, payload, rsv=RSV1)
            self.exchange(data * 3 + close_frame(1000), [echo(opcode, b"")] * 3, extensions="permessage-deflate")
            self.exchange(frame(opcode, b"", False, RSV1) + frame(CONTINUATION, payload) + close_frame(1000),
                          [echo(opcode, b"")], extensions="permessage-deflate")

    def test_reserved_bits(self):
        text = Compression("permessage-deflate").compress(b"text")
        for opcode in (PING, PONG, CLOSE):
            self.fails(frame(opcode, b"\x03\xe8", rsv=RSV1), extensions="permessage-deflate")
        self.fails(frame(TEXT, text[:3], False, RSV1) + frame(CONTINUATION, text[3:], rsv=RSV1),
                   extensions="permessage-deflate")
        for rsv in (RSV2, RSV3, RSV1 | RSV2):
            self.fails(frame(TEXT, text, rsv=rsv), extensions="permessage-deflate")

    def test_control_frames_between_compressed_fragments(self):
        text = b"text " * 40
        data = Compression("permessage-deflate").compress(text)
        for size in (1, 5):
            parts = fragments(TEXT, data, size, RSV1)
            sent = b"".join(part + frame(PING, bytes([i])) for i, part in enumerate(parts[:-1])) + parts[-1]
            self.exchange(sent + close_frame(1000),
                          [echo(PONG, bytes([i])) for i in range(len(parts) - 1)] + [echo(TEXT, text)],
                          extensions="permessage-deflate")

    def test_malformed_data(self):
        whole = Compression("permessage-deflate").compress(json_text(2000))
        for data in (b"\xff" * 5, b"\x06", whole[:len(whole) // 2], whole[5:], bytes([whole[0] | 6]) + whole[1:]):
            self.fails(frame(BINARY, data, rsv=RSV1), code=1007, extensions="permessage-deflate")

    def test_invalid_text(self):
        agreed = "permessage-deflate"
        for bad in INVALID:
            text = b"text " * 100 + bad + json_text(20000)
            data = Compression(agreed).compress(text)
            self.fails(frame(TEXT, data, rsv=RSV1), code=1007, chops=(None, 500), extensions=agreed)
            # Half of the frame, or of the fragments, is enough.
            self.exchange(frame(TEXT, data, rsv=RSV1)[:len(data) // 2], [], 1007, extensions=agreed,
                          chops=(None, 500))
            half = fragments(TEXT, data, 100, RSV1)
            self.exchange(b"".join(half[:len(half) // 2]), [], 1007, extensions=agreed, chops=(None,))

    def test_messages_too_long_when_decompressed(self):
        data = Compression("permessage-deflate", 9).compress(bytes(80 << 20))
        self.assertLess(len(data), 100000)
        self.exchange(frame(BINARY, data, rsv=RSV1)[:-100], [], 1009, (None,), "permessage-deflate")

    def test_final_blocks(self):
        compressor = zlib.compressobj(6, zlib.DEFLATED, -15)
        final = compressor.compress(b"final block") + compressor.flush(zlib.Z_FINISH)
        for data in (final, final + b"\0"):
            self.exchange(frame(TEXT, data, rsv=RSV1) * 2 + close_frame(1000),
                          [echo(TEXT, "final block")] * 2, extensions="permessage-deflate")


class Volume(Conversation):
    """Many messages of each size, for each set of parameters."""

    OFFERS = tuple(
        f"permessage-deflate{takeover}{bits}"
        for takeover in ("", "; client_no_context_takeover; server_no_context_takeover")
        for bits in ("", "; client_max_window_bits=9; server_max_window_bits=9",
                     "; client_max_window_bits=15; server_max_window_bits=15"))

    def test_many_messages_of_every_size(self):
        for offer in self.OFFERS:
            with self.subTest(offer=offer):
                self.converse(offer, SIZES, MANY_MESSAGES)

    def test_many_messages_in_fragments(self):
        for offer in self.OFFERS:
            for part in (256, 1024, 4096, 32768):
                with self.subTest(offer=offer, part=part):
                    self.converse(offer, (SIZES[-1],), MANY_MESSAGES // 4, part)


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The client of python3-websocket against the echo server.

    python3 python_client.py messages PORT COUNT SEED
    python3 python_client.py connections PORT COUNT SEED

"connections" prints "open" when all are open and goes on when it is sent a line. Both end with
a line of counts and status 0, or with an error and status 1.
"""

import os
import random
import signal
import socket
import sys
import time

import websocket
from websocket import ABNF, _handshake

MIB = 1024 * 1024
SERVER_BLOCK_BYTES = 1024
BOUNDARIES = [0, 125, 126, 127, 65535, 65536, 131000, 131001, 262000, 262001]
LARGE = [MIB, 2 * MIB, 3 * MIB, 4 * MIB]
CONNECTION_SIZES = [0, 1, 125, 126, 3000, 131001, 40000, 500, 0, 65536]
LIMIT_SECONDS = int(os.environ.get("WENDREL_WEBSOCKET_LIMIT_SECONDS", "60"))

make_headers = _handshake._get_handshake_headers


def make_headers_with_token(*arguments):
    """The package has no option for the token, so its line is exchanged."""
    headers, key = make_headers(*arguments)
    headers[headers.index("Upgrade: websocket")] = "Upgrade: WebSocket"
    return headers, key


_handshake._get_handshake_headers = make_headers_with_token


class Contents:
    """Where payloads are cut from: bytes, and text whose characters are 1 to 4 bytes long."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.bytes = self.random.randbytes(5 * MIB)
        part = "".join(self.random.choices("aZ \n\0äß€한😀", k=32768)).encode()
        self.text = part * (5 * MIB // len(part) + 1)

    def message(self, size):
        at = self.random.randrange(MIB)
        if self.random.random() < 0.5:
            return ABNF.OPCODE_BINARY, self.bytes[at:at + size]
        # A character that the cut divides is replaced, so that all of it is valid.
        whole = self.text[at:at + size].decode(errors="ignore").encode()
        return ABNF.OPCODE_TEXT, whole + b"x" * (size - len(whole))

    def sizes(self, count):
        """Mostly short, each boundary 40 times and each large size 10 times in 10000."""
        sizes = BOUNDARIES * -(-count // 250) + LARGE * -(-count // 1000)
        while len(sizes) < count:
            kind = self.random.randrange(100)
            sizes.append(self.random.randrange(300 if kind < 80 else 4096 if kind < 99 else 65536))
        self.random.shuffle(sizes)
        return sizes

    def turn(self, sizes, at):
        """The bytes sent before waiting for the replies: two messages of one frame each, or one
        message in pieces, or one whole; as a list of messages with the lengths of their pieces.

        The server handles one frame each time it receives and one more when nothing is left to
        receive; further frames that came along would wait for the next byte from here. So there
        are two frames at most, or longer ones of which at most two end in the 1024 bytes that it
        receives at a time.
        """
        kind = self.random.randrange(4)
        if kind == 0:
            return [(self.message(size), []) for size in sizes[at:at + 2]]
        return [(self.message(sizes[at]), self.pieces(sizes[at]) if kind == 1 else [])]

    def pieces(self, size):
        """Lengths of all but the last; the first is never 0, the server would refuse it."""
        if size < 2:
            return []
        if size < 4 * SERVER_BLOCK_BYTES:
            return [self.random.randrange(1, size)]
        return [self.random.randint(SERVER_BLOCK_BYTES, size // 4)
                for _ in range(self.random.randint(1, 4))]


def connect(port):
    client = websocket.WebSocket(
        sockopt=[(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)],
        skip_utf8_validation=True)  # the package's own takes seconds for each MiB
    client.connect(f"ws://127.0.0.1:{port}/", timeout=LIMIT_SECONDS)
    return client


def send(client, opcode, data, pieces):
    at = 0
    for size in pieces:
        client.send_frame(ABNF.create_frame(data[at:at + size], opcode, fin=0))
        opcode = ABNF.OPCODE_CONT
        at += size
    client.send_frame(ABNF.create_frame(data[at:], opcode, fin=1))


def receive(client, expected):
    """One message; gives its length."""
    opcode, data = client.recv_data()
    if (opcode, data) != expected:
        raise AssertionError(f"{len(expected[1])} bytes came back as opcode {opcode}, {len(data)} bytes")
    return len(data)


def close(client):
    """A server of polling mode drops the connection without a close frame in reply."""
    client.send_close()
    if "WENDREL_WEBSOCKET_CLEAN_CLOSE" in os.environ:
        frame = client.recv_frame()
        if (frame.opcode, frame.data) != (ABNF.OPCODE_CLOSE, b"\x03\xe8"):
            raise AssertionError(f"instead of a close frame came {frame}")
        client.shutdown()
        return
    try:
        frame = client.recv_frame()
    except websocket.WebSocketConnectionClosedException:
        client.shutdown()
        return
    raise AssertionError(f"instead of the end came {frame}")


def report(messages, total, connections, begin):
    print(f"{messages} messages, {total} bytes each way, {connections} connections, "
          f"{time.monotonic() - begin:.2f} s")


def run_messages(port, count, seed):
    contents = Contents(seed)
    sizes = contents.sizes(count)
    client = connect(port)
    begin = time.monotonic()
    at = 0
    total = 0
    while at < count:
        turn = contents.turn(sizes, at)
        for (opcode, data), pieces in turn:
            send(client, opcode, data, pieces)
        total += sum(receive(client, message) for message, _ in turn)
        at += len(turn)
    report(count, total, 1, begin)
    close(client)


def run_connections(port, count, seed):
    contents = Contents(seed)
    clients = [connect(port) for _ in range(count)]
    print("open", flush=True)
    sys.stdin.readline()
    begin = time.monotonic()
    total = 0
    for size in CONNECTION_SIZES:
        awaited = []
        for client in clients:
            message = contents.message(size)
            awaited.append(message)
            send(client, *message, contents.pieces(size))
        total += sum(map(receive, clients, awaited))
    report(count * len(CONNECTION_SIZES), total, count, begin)
    for client in clients:
        close(client)


def give_up(*_):
    raise TimeoutError(f"not ready after {LIMIT_SECONDS} s")


def main():
    mode, port, count, seed = sys.argv[1:]
    signal.signal(signal.SIGALRM, give_up)
    signal.alarm(LIMIT_SECONDS)
    run = {"messages": run_messages, "connections": run_connections}[mode]
    run(int(port), int(count), int(seed))


if __name__ == "__main__":
    main()

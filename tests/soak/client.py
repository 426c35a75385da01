"""HTTP and WebSocket clients for asyncio, with all that well-behaved ones would hide."""

import asyncio
import os
import socket
import struct

HOST = "127.0.0.1"
BLOCK = 256 * 1024
LIMIT_SECONDS = 60 if os.environ.get("WENDREL_SANITIZED", "0") == "0" else 180


class Wrong(Exception):
    """The server did something else than it should."""


def expect(condition, what):
    if not condition:
        raise Wrong(what)


def within(awaitable, seconds=LIMIT_SECONDS):
    return asyncio.wait_for(awaitable, seconds)


async def cancel(task):
    """Ends a task. Asked again until it does: a wait_for that ends just then forgets that."""
    while not task.done():
        task.cancel()
        await asyncio.wait([task], timeout=0.1)


class Connection:
    """A TCP connection that can be ended in every way there is."""

    @classmethod
    async def open(cls, port, receive_buffer=None):
        self = cls()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.setblocking(False)
        self.writer = None
        try:
            if receive_buffer:
                self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
            await within(asyncio.get_running_loop().sock_connect(self.socket, (HOST, port)))
            self.reader, self.writer = await asyncio.open_connection(
                sock=self.socket, limit=receive_buffer or BLOCK)
        except BaseException:
            self.socket.close()
            raise
        return self

    async def __aenter__(self):
        return self

    async def __aexit__(self, kind, error, trace):
        # Cleans up after any failure.
        self.writer.transport.abort()

    async def send(self, data):
        self.writer.write(data)
        await within(self.writer.drain())

    def finish_sending(self):
        self.writer.write_eof()

    async def reset(self):
        """Resets the connection."""
        self.writer.get_extra_info("socket").setsockopt(
            socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.writer.transport.abort()
        await asyncio.sleep(0)  # the transport closes its socket in the loop's next turn

    async def wait_end(self):
        """Reads and discards the remaining bytes."""
        try:
            while await within(self.reader.read(BLOCK)):
                pass
        except ConnectionError:
            pass


class Response:
    def __init__(self, status, headers, body=b""):
        self.status = status
        self.headers = headers
        self.body = body


class Http(Connection):
    """One kept-alive connection; a request at a time."""

    async def send_head(self, method, target, headers=()):
        lines = [f"{method} {target} HTTP/1.1", "Host: soak", *headers]
        await self.send(("\r\n".join(lines) + "\r\n\r\n").encode())

    async def receive_head(self):
        head = await within(self.reader.readuntil(b"\r\n\r\n"))
        first, *lines = head.decode("latin-1").split("\r\n")[:-2]
        parts = first.split(" ", 2)
        expect(len(parts) == 3 and parts[0] == "HTTP/1.1", f"the response begins with {first!r}")
        headers = {}
        for line in lines:
            name, _, value = line.partition(":")
            headers[name.lower()] = value.strip()
        return Response(int(parts[1]), headers)

    async def receive_body(self, response, take=None):
        """All of the body; piece by piece to `take` if there is one."""
        length = response.headers.get("content-length")
        expect(length is not None, f"no length in a response {response.status}")
        left = int(length)
        pieces = []
        while left > 0:
            piece = await within(self.reader.read(min(BLOCK, left)))
            expect(piece, f"the connection ended {left} of {length} bytes before the end")
            left -= len(piece)
            (take or pieces.append)(piece)
        response.body = b"".join(pieces)
        return response

    async def request(self, method, target, headers=(), body=None):
        if body is not None:
            headers = (*headers, f"Content-Length: {len(body)}")
        await self.send_head(method, target, headers)
        if body:
            await self.send(body)
        response = await self.receive_head()
        if method != "HEAD" and response.status not in (204, 304):
            await self.receive_body(response)
        return response


HANDSHAKE = ("Upgrade: websocket", "Connection: Upgrade", "Sec-WebSocket-Version: 13",
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==")
ACCEPT = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo="


def frame(message):
    """One masked frame with a whole message: text or bytes."""
    payload = message.encode() if isinstance(message, str) else message
    head = bytes([0x81 if isinstance(message, str) else 0x82])
    if len(payload) < 126:
        head += bytes([0x80 | len(payload)])
    elif len(payload) < 65536:
        head += b"\xfe" + len(payload).to_bytes(2, "big")
    else:
        head += b"\xff" + len(payload).to_bytes(8, "big")
    mask = os.urandom(4)
    key = (mask * (len(payload) // 4 + 1))[:len(payload)]
    masked = int.from_bytes(payload, "big") ^ int.from_bytes(key, "big")
    return head + mask + masked.to_bytes(len(payload), "big")


CLOSE_FRAME = bytes([0x88, 0x82, 1, 2, 3, 4, 0x03 ^ 1, 0xe9 ^ 2])


class WebSocket(Http):
    """An upgraded connection."""

    @classmethod
    async def upgrade(cls, port, receive_buffer=None):
        self = await cls.open(port, receive_buffer)
        try:
            await self.send_head("GET", "/live", HANDSHAKE)
            response = await self.receive_head()
            expect(response.status == 101, f"status {response.status} for an upgrade")
            expect(response.headers.get("sec-websocket-accept") == ACCEPT, "a wrong accept key")
        except BaseException:
            self.writer.transport.abort()
            raise
        return self

    async def receive(self, seconds=LIMIT_SECONDS):
        """The next message: text or bytes; None at the end of the connection.

        Responds to pings and to a close frame.
        """
        while True:
            opcode, payload = await self.receive_frame(seconds)
            if opcode is None:
                return None
            if opcode in (8, 9):
                await self.respond(opcode, payload)
            elif opcode != 10:
                return payload.decode() if opcode == 1 else payload

    async def receive_frame(self, seconds):
        """Opcode and payload; the server sends whole messages."""
        try:
            head = await within(self.reader.readexactly(2), seconds)
        except asyncio.IncompleteReadError as error:
            expect(not error.partial, "the connection ended within a frame")
            return None, b""
        expect(head[0] & 0xf0 == 0x80, f"no whole message without extensions: {head!r}")
        expect(head[1] < 128, "a frame of the server is masked")
        length = head[1]
        try:
            if length > 125:
                size = 2 if length == 126 else 8
                length = int.from_bytes(await within(self.reader.readexactly(size)), "big")
            return head[0] & 0x0f, await within(self.reader.readexactly(length))
        except asyncio.IncompleteReadError:
            expect(False, "the connection ended within a frame")

    async def respond(self, opcode, payload):
        """Sends a pong, or the close frame, with the mask 0."""
        reply = 10 if opcode == 9 else 8
        try:
            await self.send(bytes([0x80 | reply, 0x80 | len(payload), 0, 0, 0, 0]) + payload)
        except ConnectionError:
            pass  # the connection has ended

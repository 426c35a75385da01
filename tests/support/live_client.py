"""A WebSocket client of a few lines, for what complete clients do not do."""

import os
import socket

HANDSHAKE = ("GET {target} HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n{headers}\r\n")

TEXT, BINARY, CLOSE, PING, PONG = 1, 2, 8, 9, 10


class LiveClient:
    def __init__(self, port, limit_seconds, target="/live", headers=""):
        """`headers`: further lines, each with its end."""
        self.close_code = None  # of the server's close frame
        self.has_sent_close = False
        self.socket = socket.create_connection(("127.0.0.1", port), limit_seconds)
        self.file = self.socket.makefile("rb")
        self.socket.sendall(HANDSHAKE.format(target=target, headers=headers).encode())
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            line = self.file.readline()
            assert line, f"the connection ended after {head!r}"
            head += line
        assert head.startswith(b"HTTP/1.1 101 "), head
        assert b"s3pPLMBiTxaQ9kYGzzhZRbK+xOo=" in head, head

    def receive(self):
        """The next message: text or bytes; None at the end of the connection.

        Responds to pings and to a close frame.
        """
        while True:
            frame = self._receive_frame()
            if frame is None:
                return None
            opcode, payload = frame
            if opcode == PING:
                self.send_frame(PONG, payload)
            elif opcode == CLOSE:
                self.close_code = int.from_bytes(payload[:2], "big") if payload else 1005
                if not self.has_sent_close:
                    self._send_last(CLOSE, payload[:2])
            elif opcode != PONG:
                return payload.decode() if opcode == TEXT else payload

    def _receive_frame(self):
        """Opcode and payload; the server sends whole messages."""
        start = self._read(2)
        if start is None:
            return None
        assert start[0] & 0xf0 == 0x80, f"no whole message without extensions: {start!r}"
        assert start[1] < 128, "a server does not mask"
        length = start[1]
        if length == 126:
            length = int.from_bytes(self._rest(2), "big")
        elif length == 127:
            length = int.from_bytes(self._rest(8), "big")
        return start[0] & 0x0f, self._rest(length)

    def _rest(self, size):
        data = self._read(size)
        assert data is not None, "the connection ended within a message"
        return data

    def _read(self, size):
        try:
            data = self.file.read(size)
        except ConnectionResetError:
            return None
        return data if len(data) == size else None

    def send(self, message):
        """One message in one masked frame."""
        if isinstance(message, str):
            self.send_frame(TEXT, message.encode())
        else:
            self.send_frame(BINARY, message)

    def send_frame(self, opcode, payload):
        head = bytes([0x80 | opcode])
        if len(payload) < 126:
            head += bytes([0x80 | len(payload)])
        elif len(payload) < 65536:
            head += bytes([0xfe]) + len(payload).to_bytes(2, "big")
        else:
            head += bytes([0xff]) + len(payload).to_bytes(8, "big")
        mask = os.urandom(4)
        key = int.from_bytes(mask * (len(payload) // 4 + 1), "big") >> 8 * (4 - len(payload) % 4)
        masked = (int.from_bytes(payload, "big") ^ key).to_bytes(len(payload), "big")
        self.socket.sendall(head + mask + masked)

    def _send_last(self, opcode, payload):
        """The server may have closed the connection already."""
        try:
            self.send_frame(opcode, payload)
        except ConnectionError:
            pass

    def send_close(self):
        """The close frame that a browser sends when its page closes."""
        self.has_sent_close = True
        self.send_frame(CLOSE, (1001).to_bytes(2, "big"))

    def finish_sending(self):
        self.socket.shutdown(socket.SHUT_WR)

    def close(self):
        self.file.close()
        self.socket.close()

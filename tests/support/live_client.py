"""A WebSocket client of a few lines, whose handshake is spelt as the library takes it."""

import os
import socket

HANDSHAKE = ("GET /live HTTP/1.1\r\nHost: x\r\nUpgrade: WebSocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n")


class LiveClient:
    def __init__(self, port, limit_seconds):
        self.socket = socket.create_connection(("127.0.0.1", port), limit_seconds)
        self.file = self.socket.makefile("rb")
        self.socket.sendall(HANDSHAKE.encode())
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            line = self.file.readline()
            assert line, f"the connection ended after {head!r}"
            head += line
        assert head.startswith(b"HTTP/1.1 101 "), head
        assert b"s3pPLMBiTxaQ9kYGzzhZRbK+xOo=" in head, head

    def receive(self):
        """The next message: text or bytes; None at the end of the connection."""
        payload = b""
        opcode = 0
        fin = False
        while not fin:
            start = self._read(2)
            if start is None:
                return None
            fin = bool(start[0] & 0x80)
            opcode = opcode or start[0] & 0x0f
            assert start[1] < 128, "a server does not mask"
            length = start[1]
            if length == 126:
                length = int.from_bytes(self._rest(2), "big")
            elif length == 127:
                length = int.from_bytes(self._rest(8), "big")
            payload += self._rest(length)
        return payload.decode() if opcode == 1 else payload

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
        payload = message.encode() if isinstance(message, str) else message
        head = bytes([0x81 if isinstance(message, str) else 0x82])
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

    def send_close(self):
        """The close frame that a browser sends when its page closes."""
        self.socket.sendall(bytes([0x88, 0x82, 1, 2, 3, 4, 0x03 ^ 1, 0xe9 ^ 2]))

    def finish_sending(self):
        self.socket.shutdown(socket.SHUT_WR)

    def close(self):
        self.file.close()
        self.socket.close()

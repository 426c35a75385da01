#!/usr/bin/env python3
"""Uploads a number of bytes at a constant rate. Usage: even_upload.py PORT BYTES BYTES_A_SECOND"""

import socket
import sys
import time

PIECE_BYTES = 65536
LIMIT_SECONDS = 60


def main():
    port, left, rate = map(int, sys.argv[1:])
    piece = bytes(PIECE_BYTES)
    with socket.create_connection(("127.0.0.1", port), LIMIT_SECONDS) as connection:
        connection.sendall(b"POST /upload HTTP/1.1\r\nHost: bench\r\nConnection: close\r\n"
                           b"Content-Length: %d\r\n\r\n" % left)
        due = time.monotonic()
        while left > 0:
            part = min(left, PIECE_BYTES)
            connection.sendall(piece[:part])
            left -= part
            due += part / rate
            time.sleep(max(0.0, due - time.monotonic()))
        response = b""
        while more := connection.recv(PIECE_BYTES):
            response += more
    _, _, body = response.partition(b"\r\n\r\n")
    return 0 if body == sys.argv[2].encode() else 1


if __name__ == "__main__":
    sys.exit(main())

"""Starts filedrop, sends requests with curl, and inspects its files."""

import hashlib
import http.client
import json
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

from processes import LIMIT_SECONDS, Process, free_port

SERVER = os.environ.get("WENDREL_FILEDROP", "wendrel-filedrop")
MIB = 1024 * 1024
TEMPORARY_PREFIX = ".filedrop-upload-"


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(MIB):
            digest.update(block)
    return digest.hexdigest()


def make_sparse(path, size):
    """A file of holes with a different random piece in each 16th of it."""
    with open(path, "wb") as file:
        file.truncate(size)
        for part in range(16):
            file.seek(part * (size // 16) + part)
            file.write(os.urandom(min(4096, size // 16 - 16)))
    return path


class Response:
    def __init__(self, code, status, headers, body, error):
        self.code = code  # of curl
        self.status = status
        self.headers = headers
        self.body = body
        self.error = error

    def json(self):
        return json.loads(self.body)

    def __repr__(self):
        return f"curl {self.code}, status {self.status}, {self.headers}, {self.body[:300]!r} {self.error}"


def parse_head(text):
    """Status and headers of the last head in the output of curl -D."""
    heads = [head for head in text.split("\r\n\r\n") if head.startswith("HTTP/")]
    if not heads:
        return 0, {}
    lines = heads[-1].split("\r\n")
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(":")
        headers.setdefault(name.strip().lower(), value.strip())
    return int(lines[0].split()[1]), headers


class Server(Process):
    """One filedrop process."""

    def __init__(self, directory, *options, port=None, endpoints=()):
        """Without a port on a free one; with endpoints on these instead."""
        self.port = port or free_port()
        self.url = f"http://127.0.0.1:{self.port}"
        place = [word for endpoint in endpoints for word in ("--listen", endpoint)] or ["--port", str(self.port)]
        super().__init__(SERVER, "--directory", str(directory), *place, *options)

    def wait_ready(self):
        line = self.next_line()
        assert self.url in line, line
        return self

    def peak_memory(self):
        """The most resident memory it ever had, in bytes."""
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(r"VmHWM:\s+(\d+) kB", status).group(1)) * 1024


class Upload:
    """A PUT whose body is sent piece by piece; without a size it is chunked."""

    def __init__(self, server, name, size=None):
        self.is_chunked = size is None
        framing = "Transfer-Encoding: chunked" if self.is_chunked else f"Content-Length: {size}"
        self.socket = socket.create_connection(("127.0.0.1", server.port), LIMIT_SECONDS)
        self.socket.sendall(f"PUT /files/{name} HTTP/1.1\r\nHost: x\r\n{framing}\r\n\r\n".encode())

    def send(self, data):
        self.socket.sendall(b"%x\r\n%b\r\n" % (len(data), data) if self.is_chunked else data)

    def finish(self):
        """Ends a chunked body; returns the status."""
        if self.is_chunked:
            self.socket.sendall(b"0\r\n\r\n")
        response = http.client.HTTPResponse(self.socket)
        response.begin()
        return response.status

    def close(self):
        self.socket.close()


class Download:
    """A GET with a reader that reads on demand: with a small receive buffer, a large file
    keeps its request open until `read_rest` or `close`."""

    RECEIVE_BYTES = 65536

    def __init__(self, server, name):
        self.socket = socket.socket()
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self.RECEIVE_BYTES)
        self.socket.settimeout(LIMIT_SECONDS)
        self.socket.connect(("127.0.0.1", server.port))
        self.socket.sendall(f"GET /files/{name} HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        self.response = http.client.HTTPResponse(self.socket)
        self.response.begin()
        self.status = self.response.status

    def read_rest(self):
        return self.response.read()

    def close(self):
        self.response.close()
        self.socket.close()


class ServerCase(unittest.TestCase):
    """A server on a directory of its own for each test."""

    options = ()

    def setUp(self):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="filedrop-"))
        self.addCleanup(subprocess.run, ["rm", "-rf", str(self.work)], check=True)
        self.directory = self.work / "served"
        self.directory.mkdir()
        self.server = None

    def start(self, *options, directory=None):
        self.server = Server(directory or self.directory, *self.options, *options)
        self.addCleanup(self.end_server)
        return self.server.wait_ready()

    def end_server(self):
        """After each test the server must stop with exit code 0."""
        if self.server:
            server, self.server = self.server, None
            code = server.stop()
            self.assertEqual(code, 0, "".join(server.errors[-40:]))

    def upload(self, name, size=None):
        upload = Upload(self.server, name, size)
        self.addCleanup(upload.close)
        return upload

    def download(self, name):
        download = Download(self.server, name)
        self.addCleanup(download.close)
        self.assertEqual(download.status, 200)
        return download

    def spawn_curl(self, *arguments, **options):
        process = subprocess.Popen(
            ["curl", "-sS", "--noproxy", "*", "--max-time", str(4 * LIMIT_SECONDS), *map(str, arguments)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self.addCleanup(self.end_curl, process)
        return process

    @staticmethod
    def end_curl(process):
        if process.poll() is None:
            process.kill()
        process.communicate()

    def curl(self, target, *arguments, data=None):
        """One request; `target` goes onto the wire as it is."""
        head = self.work / f"head-{threading.get_ident()}"
        head.unlink(missing_ok=True)
        done = subprocess.run(
            ["curl", "-sS", "--noproxy", "*", "--path-as-is", "-g", "--max-time", str(2 * LIMIT_SECONDS),
             "-D", str(head), *map(str, arguments), self.server.url + target],
            input=data, capture_output=True, check=False)
        status, headers = parse_head(head.read_bytes().decode("latin-1") if head.exists() else "")
        return Response(done.returncode, status, headers, done.stdout, done.stderr.decode())

    def put(self, target, data, *arguments):
        source = self.work / f"source-{threading.get_ident()}"
        source.write_bytes(data)
        return self.curl(target, "-T", source, *arguments)

    def names(self):
        """Everything in the served directory."""
        return sorted(os.listdir(self.directory))

    def temporary(self):
        return [name for name in self.names() if name.startswith(TEMPORARY_PREFIX)]

    def status(self):
        return self.curl("/api/status").json()


def main():
    """Runs the named tests; 77 when all of them were skipped."""
    program = unittest.main(module="__main__", exit=False, verbosity=2)
    result = program.result
    if not result.wasSuccessful():
        sys.exit(1)
    if result.testsRun == 0:
        print("no test ran")
        sys.exit(1)
    if len(result.skipped) == result.testsRun:
        sys.exit(77)

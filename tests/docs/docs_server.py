"""A program of the documentation, running in a directory of its own."""

import http.client
import pathlib
import shutil
import socket
import tempfile

from processes import LIMIT_SECONDS, Process, free_port, wait_until

RESET_AT_CLOSE = b"\1\0\0\0\0\0\0\0"


class DocsServer:
    """The program, started with a free port and `arguments`, and operations of clients.

    "DIRECTORY" in an argument is the directory of the program."""

    def __init__(self, test, program, *arguments):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="wendrel-docs-"))
        test.addCleanup(shutil.rmtree, self.directory)
        more = [str(argument).replace("DIRECTORY", str(self.directory)) for argument in arguments]
        for last_attempt in (False, False, True):
            self.port = free_port()
            self.process = Process("env", "-C", self.directory, program, self.endpoint(), *more)
            test.addCleanup(self.process.kill)
            try:
                self.process.wait_line(rf"(?:listening on )?http://127\.0\.0\.1:{self.port}/$")
                return
            except AssertionError:
                # Somebody else may have taken the port meanwhile.
                if last_attempt or self.process.wait_end() != 1:
                    raise

    def endpoint(self):
        """The first argument of the program."""
        return str(self.port)

    def connect(self, receive_bytes=None):
        """A connection; with `receive_bytes` the system takes little that is not read."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
        if receive_bytes is not None:
            connection.sock = socket.socket()
            connection.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
            connection.sock.settimeout(LIMIT_SECONDS)
            connection.sock.connect(("127.0.0.1", self.port))
        return connection

    def ask(self, method, target, body=None, **more):
        """Status, body and the response itself, on a connection of its own."""
        connection = self.connect()
        try:
            connection.request(method, target, body=body, **more)
            response = connection.getresponse()
            return response.status, response.read(), response
        finally:
            connection.close()

    def begin_upload(self, method, target, declared, sent):
        """A connection on which `sent` of an upload of `declared` bytes has been sent."""
        connection = self.connect()
        connection.putrequest(method, target)
        connection.putheader("Content-Length", str(declared))
        connection.putheader("Expect", "100-continue")
        connection.endheaders()
        # It comes when the application has got the request.
        interim = b""
        while not interim.endswith(b"\r\n\r\n"):
            byte = connection.sock.recv(1)
            assert byte, f"closed after {interim}"
            interim += byte
        assert interim.startswith(b"HTTP/1.1 100 "), interim
        connection.send(sent)
        return connection

    def wait_until_refusing(self, target):
        """The server has been told to stop, and does not take requests any more."""
        _, _, response = wait_until(lambda: (found := self.ask("GET", target))[0] == 503 and found,
                                  "a new request is refused")
        return response


class KitServer(DocsServer):
    """The same of a program whose first argument is an endpoint."""

    def endpoint(self):
        return f"127.0.0.1:{self.port}"

    def is_accepting(self):
        connection = self.connect()
        try:
            connection.connect()
            return True
        except ConnectionRefusedError:
            return False
        finally:
            connection.close()

    def wait_until_stopping(self):
        """The server has been told to stop: it accepts no connection any more."""
        wait_until(lambda: not self.is_accepting(), "the endpoint is closed")


def reset(connection):
    """Breaks the connection off. A quiet end together with the last bytes can go unnoticed."""
    connection.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET_AT_CLOSE)
    connection.close()

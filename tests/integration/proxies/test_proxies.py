#!/usr/bin/env python3
"""The library behind nginx and HAProxy, with the configurations of deploy/.

    WENDREL_PROXY=nginx WENDREL_FILEDROP=.../wendrel-filedrop WENDREL_CHAT=.../wendrel-chat \
    WENDREL_ECHO_SERVER=.../websocket_session_server WENDREL_POLLING_ECHO=.../websocket_echo_server \
    WENDREL_DOCS_ECHO=.../docs_websocket_echo \
        /usr/bin/python3 test_proxies.py [Class[.test]]
"""

import hashlib
import http.client
import json
import os
import pathlib
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse

import websocket

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
import filedrop_server as filedrop
from filedrop_server import MIB
from processes import LIMIT_SECONDS, Process, free_port, wait_until
from support import (DEPLOY, HeadRecorder, Proxy, activate, adapt, backend_connections, find_program,
                     nginx_files)

PROXY = os.environ.get("WENDREL_PROXY", "nginx")
ECHO_SERVER = os.environ.get("WENDREL_ECHO_SERVER", "websocket_session_server")
POLLING_ECHO = os.environ.get("WENDREL_POLLING_ECHO", "websocket_echo_server")
DOCS_ECHO = os.environ.get("WENDREL_DOCS_ECHO", "docs_websocket_echo")
CHAT = os.environ.get("WENDREL_CHAT", "wendrel-chat")
HELLO = os.environ.get("WENDREL_HELLO", "hello")
CHAT_CLIENTS = pathlib.Path(__file__).resolve().parents[3] / "scripts" / "demo_chat.py"
LARGE = 64 * MIB
UNFETCHED = 1024 * MIB  # far more than the system's socket buffers can hold


class ProxyCase(unittest.TestCase):
    """Starts the proxy, and sees that it ends well."""

    def start_proxy(self, backend, tls=False, change=lambda text: text):
        proxy = Proxy(PROXY, backend, change, tls=tls)
        self.addCleanup(self.end_proxy, proxy)
        return proxy.wait_ready()

    def end_proxy(self, proxy):
        log = proxy.log()
        # HAProxy ends by the signal itself.
        self.assertIn(proxy.stop(), (0, -signal.SIGTERM), log)
        for word in ("[emerg]", "[alert]", "[crit]", "[ALERT]"):
            self.assertNotIn(word, log)

    def start_server(self, *command):
        """A server of ours that tells on a line of its own where it listens; returns the port."""
        server = Process(*command)
        self.addCleanup(lambda: self.assertEqual(server.stop(), 0, server.text()))
        # Lines of the library's log may stand before it.
        return int(server.wait_line(r"(?:port |.*(?:http|ws)://127\.0\.0\.1:)(\d+)")[1])


class Configuration(unittest.TestCase):
    def test_a_missing_mark_is_noticed(self):
        text = "listen 80;  # ADAPT: address\nother 80;"
        self.assertEqual(adapt(text, "address", "80", "81"), "listen 81;  # ADAPT: address\nother 80;")
        for mark, old in (("addres", "80"), ("port", "80"), ("address", "443")):
            with self.subTest(mark=mark, old=old), self.assertRaises(AssertionError):
                adapt(text, mark, old, "81")

    def test_lines_that_are_commented_in(self):
        text = "  #listen 443;   # ADAPT: TLS\n#other 80;\n    #key /k;# ADAPT: TLS"
        self.assertEqual(activate(text, "TLS"), "  listen 443;\n#other 80;\n    key /k;")
        with self.assertRaises(AssertionError):
            activate(text, "TLS 2")

    def test_the_file_is_accepted_as_it_is(self):
        if os.geteuid() != 0:
            self.skipTest("needs root: the file names users and ports of the system")
        work = pathlib.Path(tempfile.mkdtemp(prefix="proxy-check-"))
        self.addCleanup(shutil.rmtree, work)
        file = work / "configuration"
        if PROXY == "nginx":  # makes files also when it only checks
            file.write_text(nginx_files((DEPLOY / "nginx.conf").read_text(), work))
            command = ["nginx", "-t", "-c", file]
        else:
            command = ["haproxy", "-c", "-f", DEPLOY / "haproxy.cfg"]
        done = subprocess.run([find_program(command[0]), *map(str, command[1:])], capture_output=True,
                              text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn("warn", (done.stdout + done.stderr).lower())


class Headers(ProxyCase):
    """The request headers that reach the application, recorded by a server."""

    def setUp(self):
        self.recorder = HeadRecorder()
        self.addCleanup(self.recorder.close)
        self.proxy = self.start_proxy(self.recorder.port)

    def ask(self, *lines, request="GET / HTTP/1.1"):
        head = "\r\n".join([request, "Host: site.test", *lines, "", ""])
        with socket.create_connection(("127.0.0.1", self.proxy.port), timeout=LIMIT_SECONDS) as client:
            client.sendall(head.encode())
            response = client.recv(65536)
        self.assertTrue(response.startswith(b"HTTP/1.1 200"), response)
        return self.recorder.take()

    def test_the_upgrade_of_a_websocket_is_forwarded(self):
        rows = (
            ("Chromium", "websocket", "Upgrade"),
            ("Firefox", "websocket", "keep-alive, Upgrade"),
            ("no space after the comma", "websocket", "keep-alive,Upgrade"),
            ("the word first", "websocket", "Upgrade, keep-alive"),
            ("lower case", "websocket", "upgrade"),
            ("upper case", "WEBSOCKET", "UPGRADE"),
            ("mixed case", "WebSocket", "Upgrade"),
            ("among other protocols", "h2c, websocket", "Upgrade"))
        for name, upgrade, connection in rows:
            with self.subTest(name):
                head = self.ask(f"Upgrade: {upgrade}", f"Connection: {connection}",
                                "Sec-WebSocket-Version: 13", "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==",
                                "Origin: http://site.test", request="GET /live?a=%2F HTTP/1.1")
                self.assertEqual(head.request, "GET /live?a=%2F HTTP/1.1")
                self.assertEqual(len(head.values("upgrade")), 1, head.headers)
                self.assertIn("websocket", head.values("upgrade")[0].lower())
                self.assertEqual(len(head.values("connection")), 1, head.headers)
                self.assertIn("upgrade", head.values("connection")[0].lower())
                self.assertEqual(head.values("sec-websocket-version"), ["13"])
                self.assertEqual(head.values("sec-websocket-key"), ["dGhlIHNhbXBsZSBub25jZQ=="])
                self.assertEqual(head.values("origin"), ["http://site.test"])
                self.assertEqual(head.values("host"), ["site.test"])
                self.assertEqual(head.values("x-forwarded-for"), ["127.0.0.1"])

    def test_other_upgrades_are_not(self):
        rows = (
            ("nothing", ()),
            ("keep-alive", ("Connection: keep-alive",)),
            ("another protocol", ("Upgrade: h2c", "Connection: Upgrade")),
            ("a longer word", ("Upgrade: websocket-2", "Connection: Upgrade")),
            ("no Connection header", ("Upgrade: websocket",)),
            ("Connection without the word", ("Upgrade: websocket", "Connection: keep-alive")),
            ("the word within another", ("Upgrade: websocket", "Connection: upgrades")),
            ("no Upgrade header", ("Connection: Upgrade",)),
            ("an insecure one", ("Upgrade-Insecure-Requests: 1", "Connection: keep-alive")))
        for name, lines in rows:
            with self.subTest(name):
                head = self.ask(*lines)
                self.assertEqual(head.values("upgrade"), [])
                self.assertNotIn("upgrade", ",".join(head.values("connection")).lower())

    def test_the_request_is_passed_on_as_it_came(self):
        target = "/files/a%2Fb//c%20d/..%3B?x=%20+&y=%C3%A9"
        head = self.ask("Cookie: a=1; b=2", "X-Own: some value", "Accept-Encoding: gzip",
                        "X-Long: " + "x" * 8000, request=f"GET {target} HTTP/1.1")
        self.assertEqual(head.request, f"GET {target} HTTP/1.1")
        self.assertEqual(head.values("host"), ["site.test"])
        self.assertEqual(head.values("cookie"), ["a=1; b=2"])
        self.assertEqual(head.values("x-own"), ["some value"])
        self.assertEqual(head.values("accept-encoding"), ["gzip"])
        self.assertEqual(head.values("x-long"), ["x" * 8000])

    def test_the_client_address_cannot_be_forged(self):
        head = self.ask("X-Forwarded-For: 192.0.2.7", "X-Forwarded-Proto: https")
        self.assertEqual(head.values("x-forwarded-for"), ["127.0.0.1"])
        self.assertEqual(head.values("x-forwarded-proto"), ["http"])


class Transfers(ProxyCase, filedrop.ServerCase):
    """filedrop behind the proxy."""

    def start(self, *options):
        super().start(*options)
        self.direct = self.server.url
        self.proxy = self.start_proxy(self.server.port)
        self.server.url = self.proxy.url  # for `curl`

    def server_status(self):
        """Asked past the proxy."""
        connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=LIMIT_SECONDS)
        try:
            connection.request("GET", "/api/status")
            return json.load(connection.getresponse())
        finally:
            connection.close()

    def test_an_upload_arrives_while_it_is_sent(self):
        self.start()
        content = os.urandom(MIB) * (LARGE // MIB)
        with socket.create_connection(("127.0.0.1", self.proxy.port), timeout=2 * LIMIT_SECONDS) as client:
            client.sendall(b"PUT /files/large.bin HTTP/1.1\r\nHost: site.test\r\n"
                           b"Content-Length: %d\r\n\r\n" % LARGE)
            client.sendall(content[:MIB])

            def begun():
                return any((self.directory / name).stat().st_size > MIB // 4 for name in self.temporary())

            wait_until(begun, "the server has the first bytes, the last are not sent yet")
            self.assertEqual(self.names(), self.temporary())
            client.sendall(content[MIB:])
            response = client.recv(65536)
        self.assertTrue(response.startswith(b"HTTP/1.1 201"), response[:200])
        self.assertEqual(self.names(), ["large.bin"])
        self.assertEqual(filedrop.sha256(self.directory / "large.bin"), hashlib.sha256(content).hexdigest())

    def test_a_chunked_upload_of_unknown_length(self):
        self.start()
        source = filedrop.make_sparse(self.work / "source", LARGE // 4)
        with open(source, "rb") as stream:
            curl = self.spawn_curl("-T", "-", "-o", os.devnull, "-w", "%{http_code}",
                                   self.server.url + "/files/large.bin", stdin=stream)
            output, error = curl.communicate(timeout=2 * LIMIT_SECONDS)
        self.assertEqual(output, b"201", error)
        self.assertEqual(filedrop.sha256(self.directory / "large.bin"), filedrop.sha256(source))

    def test_a_download_is_made_as_it_is_fetched(self):
        self.start()
        filedrop.make_sparse(self.directory / "large.bin", UNFETCHED)
        with socket.create_connection(("127.0.0.1", self.proxy.port), timeout=LIMIT_SECONDS) as client:
            client.sendall(b"GET /files/large.bin HTTP/1.1\r\nHost: site.test\r\n\r\n")
            self.assertTrue(client.recv(65536).startswith(b"HTTP/1.1 200"))
            # The client reads no more: the buffers between client and server fill up.
            read = self.wait_until_reading_stalls()
            self.assertGreater(read, 65536)
            self.assertLess(read, UNFETCHED // 2)
        wait_until(lambda: self.server_status()["openRequests"] == 1, "the server notices the end")

    def test_a_large_download(self):
        self.start()
        source = filedrop.make_sparse(self.directory / "large.bin", LARGE)
        target = self.work / "target"
        response = self.curl("/files/large.bin", "-o", target)
        self.assertEqual((response.status, response.headers["content-length"]), (200, str(LARGE)), response)
        self.assertEqual(filedrop.sha256(target), filedrop.sha256(source))

    def wait_until_reading_stalls(self):
        """How many bytes the server has read, of files, when it reads no more."""
        counters = pathlib.Path(f"/proc/{self.server.pid}/io")
        seen = []

        def stalled():
            seen.append(int(counters.read_text().split()[1]))
            time.sleep(0.05)  # between two looks
            return len(seen) > 20 and seen[-1] - seen[-20] < 65536  # other files count, too

        wait_until(stalled, "the server waits for the client")
        return seen[-1]

    def test_head_range_and_not_modified(self):
        self.start()
        content = os.urandom(3 * MIB + 1)
        self.assertEqual(self.put("/files/a.bin", content).status, 201)
        head = self.curl("/files/a.bin", "-I")
        self.assertEqual((head.status, head.headers["content-length"]), (200, str(len(content))))
        whole = self.curl("/files/a.bin")
        self.assertEqual((whole.status, whole.body), (200, content))
        part = self.curl("/files/a.bin", "-r", "1000000-1999999")
        self.assertEqual((part.status, part.body), (206, content[1000000:2000000]))
        self.assertEqual(part.headers["content-range"], f"bytes 1000000-1999999/{len(content)}")
        same = self.curl("/files/a.bin", "-H", f"If-None-Match: {whole.headers['etag']}")
        self.assertEqual((same.status, same.body), (304, b""))
        self.assertEqual(self.curl("/files/none").status, 404)
        self.assertEqual(self.curl("/files/a.bin", "-X", "DELETE").status, 204)
        self.assertEqual(self.names(), [])

    def test_connections_are_used_again(self):
        self.start()
        (self.directory / "a").write_bytes(b"one")
        rounds = 20
        connection = http.client.HTTPConnection("127.0.0.1", self.proxy.port, timeout=LIMIT_SECONDS)
        self.addCleanup(connection.close)
        connection.connect()
        own_end = connection.sock.getsockname()

        def ask(method, length, headers=None):
            connection.request(method, "/files/a", headers=headers or {})
            response = connection.getresponse()
            self.assertEqual(len(response.read()), length)
            return response

        seen = []
        for _ in range(rounds):
            self.assertEqual(ask("GET", 3).status, 200)
            seen.append(backend_connections(self.server.port))
        # The one to the application is given up behind these, the client's is not.
        self.assertEqual(ask("HEAD", 0).status, 200)
        etag = ask("GET", 3).headers["ETag"]
        self.assertEqual(ask("GET", 0, {"If-None-Match": etag}).status, 304)
        self.assertEqual(ask("GET", 3).status, 200)
        self.assertEqual(connection.sock.getsockname(), own_end)
        self.assertTrue(set.intersection(*seen), "none has stayed open")
        # One would do; the health check makes some of its own.
        self.assertLess(len(set.union(*seen)), rounds)

    def test_a_refusal_in_the_middle_of_an_upload_reaches_the_client(self):
        self.start("--max-upload", "1M")
        source = filedrop.make_sparse(self.work / "source", LARGE)
        response = self.curl("/files/large.bin", "-T", source)
        self.assertEqual(response.status, 413, response)
        self.assertIn("detail", response.json())

    def test_an_upload_that_is_broken_off_leaves_nothing(self):
        self.start()
        with socket.create_connection(("127.0.0.1", self.proxy.port), timeout=LIMIT_SECONDS) as client:
            client.sendall(b"PUT /files/a HTTP/1.1\r\nHost: site.test\r\nContent-Length: 10000000\r\n\r\n")
            client.sendall(bytes(MIB))
            wait_until(self.temporary, "the upload has begun")
        wait_until(lambda: not self.names(), "what was left has been removed")
        wait_until(lambda: self.server_status()["openRequests"] == 1, "no request is left open")


class WebSockets(ProxyCase):
    """Sessions of the kit behind the proxy."""

    sizes = (0, 1, 125, 126, 65535, 65536, 131000, 131001, 262001, MIB, 4 * MIB)

    def start_echo(self):
        self.proxy = self.start_proxy(self.start_server(ECHO_SERVER))

    def connect(self, port, connection=None):
        client = websocket.create_connection(f"ws://127.0.0.1:{port}/live", timeout=LIMIT_SECONDS,
                                             connection=connection)
        self.addCleanup(client.shutdown)
        return client

    def check_echo(self, client, data, opcode):
        client.send(data, opcode=opcode)
        got, received = client.recv_data()
        self.assertEqual(got, opcode)
        self.assertTrue(received == data, f"{len(data)} bytes came back changed")

    @staticmethod
    def end(client):
        """With the close frames of both sides."""
        client.send_close(1000)
        opcode, payload = client.recv_data()
        assert (opcode, payload[:2]) == (websocket.ABNF.OPCODE_CLOSE, b"\x03\xe8"), (opcode, payload)

    def test_messages_both_ways(self):
        self.start_echo()
        for connection in (None, "Connection: keep-alive, Upgrade"):
            with self.subTest(connection=connection):
                client = self.connect(self.proxy.port, connection)
                self.assertEqual(client.status, 101)
                for size in self.sizes:
                    self.check_echo(client, os.urandom(size), websocket.ABNF.OPCODE_BINARY)
                    self.check_echo(client, b"x" * size, websocket.ABNF.OPCODE_TEXT)
                self.end(client)

    def test_many_connections_at_once(self):
        self.start_echo()
        clients = [self.connect(self.proxy.port) for _ in range(50)]
        for turn in range(3):
            data = [b"%d of %d" % (turn, number) * 500 for number in range(len(clients))]
            for client, text in zip(clients, data):
                client.send(text)
            for client, text in zip(clients, data):
                self.assertTrue(client.recv().encode() == text)
        for client in clients:
            self.end(client)

    def test_other_requests_are_served_meanwhile(self):
        self.start_echo()
        client = self.connect(self.proxy.port)
        ordinary = http.client.HTTPConnection("127.0.0.1", self.proxy.port, timeout=LIMIT_SECONDS)
        self.addCleanup(ordinary.close)
        for _ in range(3):
            ordinary.request("GET", "/")
            self.assertIn(b"<title>", ordinary.getresponse().read())
            self.check_echo(client, b"still here", websocket.ABNF.OPCODE_TEXT)
        self.end(client)

    def test_a_wrong_version_is_refused_with_426(self):
        self.start_echo()
        connection = http.client.HTTPConnection("127.0.0.1", self.proxy.port, timeout=LIMIT_SECONDS)
        self.addCleanup(connection.close)
        connection.request("GET", "/", headers={"Upgrade": "websocket", "Connection": "Upgrade",
                                                "Sec-WebSocket-Version": "8",
                                                "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="})
        response = connection.getresponse()
        self.assertEqual(response.status, 426)
        self.assertEqual(response.headers["Sec-WebSocket-Version"], "13")
        response.read()

    def test_clients_that_vanish_are_noticed(self):
        port = self.start_server(CHAT, "--port", str(free_port()))
        proxy = self.start_proxy(port)

        def connections():
            status = http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS)
            try:
                status.request("GET", "/api/status")
                return json.load(status.getresponse())["connections"]
            finally:
                status.close()

        clients = [self.connect(proxy.port) for _ in range(10)]
        wait_until(lambda: connections() == len(clients), "all are connected")
        for number, client in enumerate(clients):
            if number % 2 == 1:  # a reset instead of an orderly end
                client.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            client.sock.close()
        wait_until(lambda: connections() == 0, "all have left")


class PollingWebSockets(ProxyCase):
    """WebSockets of polling mode, with the lines that are marked for it."""

    def connect(self, *command):
        backend = self.start_server(*command)
        self.proxy = self.start_proxy(backend, change=lambda text: activate(text, "WebSockets in polling mode"))
        client = websocket.create_connection(f"ws://127.0.0.1:{self.proxy.port}/live", timeout=LIMIT_SECONDS)
        self.addCleanup(client.shutdown)
        return client

    def check_echo(self, client):
        for size in WebSockets.sizes:
            for opcode, data in ((websocket.ABNF.OPCODE_BINARY, os.urandom(size)),
                                 (websocket.ABNF.OPCODE_TEXT, b"x" * size)):
                client.send(data, opcode=opcode)
                self.assertTrue(client.recv_data() == (opcode, data), size)
        # A close frame gets no reply: the connection ends.
        client.send_close()
        with self.assertRaises((websocket.WebSocketConnectionClosedException, ConnectionResetError)):
            client.recv()

    def test_messages_both_ways(self):
        self.check_echo(self.connect(POLLING_ECHO))

    def test_the_server_of_the_documentation(self):
        self.check_echo(self.connect(DOCS_ECHO, str(free_port())))

    def test_the_default_lines_do_not_upgrade(self):
        proxy = self.start_proxy(self.start_server(POLLING_ECHO))
        with self.assertRaises(websocket.WebSocketBadStatusException) as refused:
            websocket.create_connection(f"ws://127.0.0.1:{proxy.port}/live", timeout=LIMIT_SECONDS)
        self.assertEqual(refused.exception.status_code, 404)


class Tls(ProxyCase):
    """With a certificate: the lines that are marked for it are commented in."""

    def start_tls(self, backend):
        self.proxy = self.start_proxy(backend, tls=True)
        self.context = ssl.create_default_context(cafile=self.proxy.certificate.certificate)

    def connect(self):
        connection = http.client.HTTPSConnection("127.0.0.1", self.proxy.port, timeout=LIMIT_SECONDS,
                                                 context=self.context)
        self.addCleanup(connection.close)
        return connection

    def test_hello(self):
        self.start_tls(self.start_server(HELLO, f"127.0.0.1:{free_port()}"))
        connection = self.connect()
        for name in ("you", "gr%C3%BC%C3%9Fe"):
            connection.request("GET", f"/hello/{name}")
            response = connection.getresponse()
            self.assertEqual(response.status, 200)
            self.assertEqual(response.read().decode(), f"Hello, {urllib.parse.unquote(name)}!\n")

    def test_the_application_is_told_of_tls(self):
        recorder = HeadRecorder()
        self.addCleanup(recorder.close)
        self.start_tls(recorder.port)
        connection = self.connect()
        connection.request("GET", "/", headers={"X-Forwarded-Proto": "http"})
        self.assertEqual(connection.getresponse().read(), b"ok")
        self.assertEqual(recorder.take().values("x-forwarded-proto"), ["https"])

    def test_clear_text_and_old_versions_are_refused(self):
        self.start_tls(self.start_server(HELLO, f"127.0.0.1:{free_port()}"))
        with socket.create_connection(("127.0.0.1", self.proxy.port), timeout=LIMIT_SECONDS) as client:
            client.sendall(b"GET /hello/you HTTP/1.1\r\nHost: site.test\r\n\r\n")
            self.assertNotIn(b"Hello", client.recv(65536))
        for version, accepted in (("TLSv1_1", False), ("TLSv1_2", True), ("TLSv1_3", True)):
            with self.subTest(version):
                # The client itself allows the old version.
                self.context.set_ciphers("ALL:@SECLEVEL=0")
                self.context.minimum_version = ssl.TLSVersion.TLSv1
                self.context.maximum_version = ssl.TLSVersion[version]
                connection = self.connect()
                if accepted:
                    connection.request("GET", "/hello/you")
                    self.assertEqual(connection.getresponse().status, 200)
                else:
                    with self.assertRaises((ssl.SSLError, ConnectionResetError)):
                        connection.request("GET", "/hello/you")

    def test_messages_of_a_websocket(self):
        self.start_tls(self.start_server(ECHO_SERVER))
        client = websocket.create_connection(f"wss://127.0.0.1:{self.proxy.port}/live", timeout=LIMIT_SECONDS,
                                             sslopt={"ca_certs": str(self.proxy.certificate.certificate)})
        self.addCleanup(client.shutdown)
        for size in WebSockets.sizes:
            content = os.urandom(size)
            client.send(content, opcode=websocket.ABNF.OPCODE_BINARY)
            self.assertTrue(client.recv_data() == (websocket.ABNF.OPCODE_BINARY, content), size)
        WebSockets.end(client)

    def test_two_people_in_a_room_of_the_chat(self):
        self.start_tls(self.start_server(CHAT, "--port", str(free_port())))
        done = subprocess.run([sys.executable, "-B", CHAT_CLIENTS, self.proxy.url,
                               self.proxy.certificate.certificate],
                              capture_output=True, text=True, check=False, timeout=4 * LIMIT_SECONDS)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertIn("Bob left; the others were told", done.stdout)


class TlsTransfers(ProxyCase, filedrop.ServerCase):
    """filedrop behind the proxy with a certificate, by HTTP/1.1 and HTTP/2."""

    def start(self, *options):
        super().start(*options)
        self.proxy = self.start_proxy(self.server.port, tls=True)
        self.server.url = self.proxy.url  # for `curl`

    def curl(self, target, *arguments, data=None):
        return super().curl(target, "--cacert", self.proxy.certificate.certificate, *arguments, data=data)

    def test_uploads_and_downloads(self):
        self.start()
        source = filedrop.make_sparse(self.work / "source", LARGE)
        for option, version in (("--http1.1", b"1.1"), ("--http2", b"2")):
            with self.subTest(option):
                target = self.work / "target"
                version_of = ("-w", "%{http_version}", "-o")
                upload = self.curl("/files/large.bin", option, "-T", source, *version_of, os.devnull)
                self.assertEqual((upload.code, upload.status, upload.body), (0, 201, version), upload)
                self.assertEqual(filedrop.sha256(self.directory / "large.bin"), filedrop.sha256(source))
                download = self.curl("/files/large.bin", option, *version_of, target)
                self.assertEqual((download.code, download.status, download.body), (0, 200, version), download)
                self.assertEqual(filedrop.sha256(target), filedrop.sha256(source))
                part = self.curl("/files/large.bin", option, "-r", "100-199")
                self.assertEqual((part.status, part.body), (206, source.read_bytes()[100:200]))
                self.assertEqual(self.curl("/files/large.bin", option, "-X", "DELETE").status, 204)

    def test_a_chunked_upload_of_unknown_length(self):
        self.start()
        content = os.urandom(3 * MIB + 1)
        for option in ("--http1.1", "--http2"):
            with self.subTest(option):
                upload = self.curl("/files/a.bin", option, "-T", "-", data=content)
                self.assertIn(upload.status, (200, 201), upload)
                self.assertEqual((self.directory / "a.bin").read_bytes(), content)


if __name__ == "__main__":
    if not find_program(PROXY):
        print(f"{PROXY} is missing")
        sys.exit(77)
    filedrop.main()

#!/usr/bin/env python3
"""Clients and scanners of TLS that others wrote, at the secure endpoint of the chat.

    WENDREL_CHAT=build/release/examples/chat/wendrel-chat python3 test_clients.py [Class[.test]]
"""

import http.client
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
from processes import LIMIT_SECONDS, Process, free_port, wait_until

SERVER = os.environ.get("WENDREL_CHAT", "wendrel-chat")
FILEDROP = os.environ.get("WENDREL_FILEDROP", "wendrel-filedrop")
REQUEST = b"GET /chat.css HTTP/1.1\r\nHost: localhost\r\n\r\n"
LAST_REQUEST = b"GET /chat.css HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"
NODE_CLIENT = """
const https = require('node:https')
const [, url, file] = process.argv
const agent = new https.Agent({ keepAlive: true, maxSockets: 1, ca: require('node:fs').readFileSync(file) })
function get() {
    return new Promise((resolve, reject) => {
        const request = https.get(url, { agent }, (response) => {
            const { socket } = response
            let bytes = 0
            response.on('data', (piece) => { bytes += piece.length })
            response.on('end', () => resolve([response.statusCode, bytes > 0, socket.authorized,
                socket.getProtocol(), request.reusedSocket, socket.isSessionReused()].join(' ')))
        })
        request.on('error', reject)
    })
}
async function main() {
    console.log(await get())
    console.log(await get())
    agent.destroy()
    console.log(await get())
    agent.destroy()
}
main()
"""


class SecureCase(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.certificate = self.directory / "certificate.pem"
        self.key = self.directory / "key.pem"
        self.make_certificate()
        self.port = free_port()
        self.url = f"https://127.0.0.1:{self.port}/chat.css"
        self.server = Process(*self.command(), "--tls-certificate", str(self.certificate), "--tls-key", str(self.key))
        self.addCleanup(self.stop)
        self.server.wait_line(rf".*https://127\.0\.0\.1:{self.port}/")

    def command(self):
        return SERVER, "--port", str(self.port)

    def make_certificate(self):
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
             "-days", "90", "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
             "-keyout", self.key, "-out", self.certificate],
            check=True, capture_output=True, timeout=LIMIT_SECONDS)

    def stop(self):
        code = self.server.stop()
        log = "".join(self.server.errors)
        self.assertEqual(code, 0, log)
        self.assertNotIn("Sanitizer", log)

    def run_client(self, *command, bytes_in=b"", limit=LIMIT_SECONDS):
        """Exit code and output of a program that must end by itself."""
        if shutil.which(command[0]) is None:
            self.skipTest(f"{command[0]} is not installed")
        done = subprocess.run(command, input=bytes_in, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=limit, cwd=self.directory)
        return done.returncode, done.stdout.decode(errors="replace")

    def run_openssl(self, *options, bytes_in=LAST_REQUEST):
        return self.run_client("openssl", "s_client", "-connect", f"127.0.0.1:{self.port}", "-CAfile",
                               str(self.certificate), "-verify_return_error", "-ign_eof", *options,
                               bytes_in=bytes_in)


class Curl(SecureCase):
    def run_curl(self, *options):
        return self.run_client("curl", "-sS", "--noproxy", "*", "--cacert", str(self.certificate), *options)

    def test_keeps_a_connection_alive(self):
        form = "%{http_code} %{http_version} %{num_connects} %{ssl_verify_result}\n"
        urls = [argument for _ in range(3) for argument in ("-o", "/dev/null", self.url)]
        self.assertEqual(self.run_curl("-w", form, *urls), (0, "200 1.1 1 0\n200 1.1 0 0\n200 1.1 0 0\n"))

    def test_refuses_an_unknown_certificate(self):
        code, _ = self.run_client("curl", "-sS", "--noproxy", "*", self.url)
        self.assertEqual(code, 60)


class Python(SecureCase):
    def context(self, version):
        context = ssl.create_default_context(cafile=self.certificate)
        context.minimum_version = context.maximum_version = version
        return context

    def connect(self, context, session=None):
        plain = socket.create_connection(("127.0.0.1", self.port), timeout=LIMIT_SECONDS)
        self.addCleanup(plain.close)
        secure = context.wrap_socket(plain, server_hostname="localhost", session=session)
        self.addCleanup(secure.close)
        return secure

    def get(self, connection, request):
        connection.sendall(request)
        response = http.client.HTTPResponse(connection)
        response.begin()
        body = response.read()
        self.assertEqual(len(body), int(response.getheader("Content-Length")))
        return response.status

    def test_keeps_a_connection_alive_and_sees_its_end(self):
        connection = self.connect(self.context(ssl.TLSVersion.TLSv1_3))
        for request in (REQUEST, REQUEST, LAST_REQUEST):
            self.assertEqual(self.get(connection, request), 200)
        # Without a close_notify this raises.
        self.assertEqual(connection.recv(1), b"")

    def test_resumes_a_session(self):
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            with self.subTest(version.name):
                context = self.context(version)
                first = self.connect(context)
                self.assertEqual(self.get(first, REQUEST), 200)
                self.assertFalse(first.session_reused)
                second = self.connect(context, first.session)
                self.assertTrue(second.session_reused)
                self.assertEqual(self.get(second, REQUEST), 200)

    def test_chooses_http_1_1(self):
        context = self.context(ssl.TLSVersion.TLSv1_3)
        context.set_alpn_protocols(["h2", "http/1.1"])
        self.assertEqual(self.connect(context).selected_alpn_protocol(), "http/1.1")

    def test_is_told_that_there_is_no_other_protocol(self):
        context = self.context(ssl.TLSVersion.TLSv1_3)
        context.set_alpn_protocols(["h2"])
        with self.assertRaisesRegex(ssl.SSLError, "alert no application protocol"):
            self.connect(context)


class Node(SecureCase):
    def test_keeps_a_connection_alive_and_resumes_its_session(self):
        code, output = self.run_client("node", "-e", NODE_CLIENT, self.url, str(self.certificate))
        self.assertEqual((code, output.splitlines()), (0, [
            "200 true true TLSv1.3 false false",
            "200 true true TLSv1.3 true false",
            "200 true true TLSv1.3 false true",
        ]))


class Openssl(SecureCase):
    def test_gets_a_file_with_each_version(self):
        for version in ("-tls1_2", "-tls1_3"):
            with self.subTest(version):
                code, output = self.run_openssl(version)
                self.assertEqual(code, 0, output)
                self.assertIn("HTTP/1.1 200 OK\r\n", output)
                self.assertIn("Verify return code: 0 (ok)", output)

    def test_resumes_a_session_in_a_later_process(self):
        for version in ("-tls1_2", "-tls1_3"):
            with self.subTest(version):
                _, output = self.run_openssl(version, "-sess_out", "session.pem")
                self.assertIn("\nNew, TLSv1.", output)
                _, output = self.run_openssl(version, "-sess_in", "session.pem")
                self.assertIn("\nReused, TLSv1.", output)
                self.assertIn("HTTP/1.1 200 OK\r\n", output)

    def test_is_refused_with_an_old_version(self):
        for version in ("-tls1", "-tls1_1"):
            with self.subTest(version):
                code, output = self.run_openssl(version, "-cipher", "DEFAULT@SECLEVEL=0")
                self.assertNotEqual(code, 0)
                self.assertIn("alert protocol version", output)
                self.assertNotIn("HTTP/1.1", output)

    def test_does_not_renegotiate(self):
        # A line that begins with R asks for it.
        code, output = self.run_client(
            "openssl", "s_client", "-connect", f"127.0.0.1:{self.port}", "-tls1_2", bytes_in=b"R\n")
        self.assertIn("RENEGOTIATING", output)
        self.assertIn("no renegotiation", output)
        self.assertNotEqual(code, 0)


class Gnutls(SecureCase):
    def run_gnutls(self, *options, bytes_in=LAST_REQUEST):
        return self.run_client("gnutls-cli", "--x509cafile", str(self.certificate), "--port", str(self.port),
                               *options, "127.0.0.1", bytes_in=bytes_in)

    def test_gets_a_file_with_each_version(self):
        for version in ("1.2", "1.3"):
            with self.subTest(version):
                code, output = self.run_gnutls("--priority", f"NORMAL:-VERS-ALL:+VERS-TLS{version}")
                self.assertEqual(code, 0, output)
                self.assertIn("The certificate is trusted", output)
                self.assertIn(f"Description: (TLS{version}-X.509)-", output)
                self.assertIn("HTTP/1.1 200 OK", output)

    def test_resumes_a_session(self):
        code, output = self.run_gnutls("--resume", "--priority", "NORMAL:-VERS-ALL:+VERS-TLS1.2")
        self.assertEqual(code, 0, output)
        self.assertIn("*** This is a resumed session", output)
        self.assertIn("HTTP/1.1 200 OK", output)

    def test_is_refused_with_an_old_version(self):
        code, output = self.run_gnutls("--priority", "LEGACY:-VERS-ALL:+VERS-TLS1.1")
        self.assertNotEqual(code, 0)
        self.assertNotIn("HTTP/1.1", output)


class Reload(SecureCase):
    def served(self):
        return ssl.get_server_certificate(("127.0.0.1", self.port), timeout=LIMIT_SECONDS).strip()

    def test_of_the_files_follows_sighup(self):
        first = self.certificate.read_text().strip()
        self.assertEqual(self.served(), first)
        self.make_certificate()
        self.server.send(signal.SIGHUP)
        wait_until(lambda: self.served() == self.certificate.read_text().strip(), "the new certificate")
        self.assertNotEqual(self.served(), first)


class ReloadOfFiledrop(Reload):
    def command(self):
        return FILEDROP, "--directory", str(self.directory), "--port", str(self.port)


class Sslscan(SecureCase):
    def test_finds_no_weakness(self):
        code, output = self.run_client("sslscan", "--no-colour", f"127.0.0.1:{self.port}")
        self.assertEqual(code, 0, output)
        for line in ("SSLv2     disabled", "SSLv3     disabled", "TLSv1.0   disabled", "TLSv1.1   disabled",
                     "TLSv1.2   enabled", "TLSv1.3   enabled", "Server supports TLS Fallback SCSV",
                     "Session renegotiation not supported", "TLSv1.3 not vulnerable to heartbleed",
                     "TLSv1.2 not vulnerable to heartbleed"):
            self.assertIn(line, output)
        ciphers = re.findall(r"^(?:Preferred|Accepted)\s+(\S+)\s+(\d+) bits\s+(\S+)\s+(.*)$", output, re.M)
        self.assertGreaterEqual(len(ciphers), 6, output)
        for version, bits, cipher, exchange in ciphers:
            with self.subTest(f"{version} {cipher}"):
                self.assertIn(version, ("TLSv1.2", "TLSv1.3"))
                self.assertGreaterEqual(int(bits), 128)
                self.assertRegex(cipher, "GCM|CHACHA20")
                self.assertRegex(exchange, "DHE")
        groups = re.findall(r"^TLSv1\.\d\s+(\d+) bits\s", output, re.M)
        self.assertGreaterEqual(len(groups), 2, output)
        self.assertGreaterEqual(min(map(int, groups)), 112)


class Testssl(SecureCase):
    LIMIT_SECONDS = 600
    # Protocols, ciphers, forward secrecy, choices of the server and its certificate, headers, and all
    # known attacks. Left out: the simulation of clients, and each cipher for itself.
    SECTIONS = ("-p", "-s", "-f", "-P", "-S", "-h", "-U")
    SEVERE = ("MEDIUM", "HIGH", "CRITICAL", "WARN", "FATAL")
    # Of a certificate that no authority has issued, nobody can be asked whether it was revoked; and the
    # scanner's own OpenSSL has no engines.
    KNOWN = {"cert_revocation", "engine_problem"}
    EXPECTED = {"TLS1_2": "OK", "TLS1_3": "OK", "SSLv2": "OK", "SSLv3": "OK", "TLS1": "INFO", "heartbleed": "OK",
                "CCS": "OK", "ROBOT": "OK", "secure_client_renego": "OK", "CRIME_TLS": "OK", "LUCKY13": "OK"}

    # A busy machine may let a connection of the scanner run into one of its own time limits; it says so.
    ATTEMPTS = 3

    def scan(self, number):
        found = self.directory / f"found-{number}.json"
        _, output = self.run_client(
            "testssl", *self.SECTIONS, "--quiet", "--color", "0", "--warnings", "off", "--nodns", "none",
            "--add-ca", str(self.certificate), "--jsonfile", str(found), f"127.0.0.1:{self.port}",
            limit=self.LIMIT_SECONDS)
        return json.loads(found.read_text()), output

    def test_finds_nothing_of_severity_medium_or_worse(self):
        for number in range(self.ATTEMPTS):
            findings, output = self.scan(number)
            if not any("connect problem" in finding["finding"] for finding in findings):
                break
        severities = {finding["id"]: finding["severity"] for finding in findings}
        severe = {finding["id"]: finding["finding"] for finding in findings if finding["severity"] in self.SEVERE}
        self.assertEqual(set(severe), self.KNOWN, severe)
        # It has looked.
        self.assertEqual({name: severities.get(name) for name in self.EXPECTED}, self.EXPECTED, output)


if __name__ == "__main__":
    unittest.main(verbosity=2)

#!/usr/bin/env python3
"""The client's address in event-driven mode behind nginx and HAProxy.

    WENDREL_PROXY=haproxy WENDREL_ADDRESS_SERVER=.../proxies_address_server \
        python3 test_addresses.py [Class[.test]]
"""

import http.client
import os
import pathlib
import signal
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
from processes import LIMIT_SECONDS, Process, wait_until
from support import Proxy, adapt

PROXY = os.environ.get("WENDREL_PROXY", "haproxy")
ADDRESS_SERVER = os.environ.get("WENDREL_ADDRESS_SERVER", "proxies_address_server")
CLIENT = "127.0.0.5"
OTHER = "127.0.0.6"
FORGED = "192.0.2.7"


def ask(port, client=CLIENT, headers=None):
    """The address that the server sees for a client at `client`."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=LIMIT_SECONDS,
                                            source_address=(client, 0))
    try:
        connection.request("GET", "/", headers=headers or {})
        response = connection.getresponse()
        body = response.read().decode()
    finally:
        connection.close()
    return body if response.status == 200 else f"status {response.status}"


def with_server_option(option):
    return lambda text: adapt(text, "address of the application", " check ", f" {option} check ")


def in_tcp_mode(option):
    """The same addresses without any knowledge of HTTP."""
    def change(text):
        lines = [line.split("#")[0].split() for line in text.split("\n")]
        bind = next(line[1] for line in lines if line[:1] == ["bind"])
        server = next(line[2] for line in lines if line[:1] == ["server"])
        return f"""defaults
    mode tcp
    timeout connect 5s
    timeout client 60s
    timeout server 60s
listen site
    bind {bind}
    server application {server} {option}
"""
    return change


class AddressCase(unittest.TestCase):
    def start_server(self, *trusted):
        server = Process(ADDRESS_SERVER, *trusted)
        self.addCleanup(lambda: self.assertEqual(server.stop(), 0, server.text()))
        self.server = server
        return int(server.wait_line(r"port (\d+)")[1])

    def start_proxy(self, backend, change=lambda text: text):
        proxy = Proxy(PROXY, backend, change)
        self.addCleanup(lambda: self.assertIn(proxy.stop(), (0, -signal.SIGTERM)))
        proxy.wait_ready()
        # HAProxy accepts connections before it knows that the server is up.
        wait_until(lambda: ask(proxy.port) not in ("status 502", "status 503"), "the server is up")
        return proxy.port


class HeadersOfRequests(AddressCase):
    """X-Forwarded-For, as both configurations of deploy/ write it."""

    def test_the_client_is_told(self):
        port = self.start_proxy(self.start_server("127.0.0.1"))
        self.assertEqual(ask(port), CLIENT)
        self.assertEqual(ask(port, OTHER), OTHER)

    def test_the_client_cannot_forge_it(self):
        port = self.start_proxy(self.start_server("127.0.0.1"))
        for headers in ({"X-Forwarded-For": FORGED}, {"Forwarded": f"for={FORGED}"},
                        {"X-Forwarded-For": FORGED, "Forwarded": f"for={FORGED}"},
                        {"Forwarded": 'for="'}, {"X-Forwarded-For": "unknown"}):
            with self.subTest(headers):
                self.assertEqual(ask(port, headers=headers), CLIENT)

    def test_a_proxy_that_is_not_trusted_is_the_client(self):
        port = self.start_proxy(self.start_server(CLIENT, "unix"))
        self.assertEqual(ask(port), "127.0.0.1")

    def test_a_client_that_avoids_the_proxy_is_itself(self):
        backend = self.start_server("127.0.0.1")
        self.assertEqual(ask(backend, headers={"X-Forwarded-For": FORGED}), CLIENT)


class HeadersOfConnections(AddressCase):
    """PROXY headers, which nginx sends only with a module that is a package of its own."""

    def check(self, change):
        port = self.start_proxy(self.start_server("127.0.0.1"), change)
        for client in (CLIENT, OTHER, CLIENT):
            self.assertEqual(ask(port, client), client)
        self.assertEqual(ask(port, headers={"X-Forwarded-For": FORGED, "Forwarded": f"for={FORGED}"}),
                         CLIENT)
        self.assertNotIn("PROXY header", self.server.text())

    def test_version_1(self):
        self.check(with_server_option("send-proxy"))

    def test_version_2(self):
        self.check(with_server_option("send-proxy-v2"))

    def test_version_2_with_values(self):
        self.check(with_server_option("send-proxy-v2 proxy-v2-options crc32c,unique-id"))

    def test_version_1_in_tcp_mode(self):
        self.check(in_tcp_mode("send-proxy check"))

    def test_version_2_in_tcp_mode(self):
        self.check(in_tcp_mode("send-proxy-v2 check"))

    def test_from_a_proxy_that_is_not_trusted(self):
        backend = self.start_server(CLIENT)
        proxy = Proxy(PROXY, backend, in_tcp_mode("send-proxy"))
        self.addCleanup(lambda: self.assertIn(proxy.stop(), (0, -signal.SIGTERM)))
        proxy.wait_ready()
        # For the server the header is a malformed request line.
        self.assertEqual(ask(proxy.port), "status 400")


if __name__ == "__main__":
    unittest.main(verbosity=2)

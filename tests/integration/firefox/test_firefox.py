#!/usr/bin/env python3
"""The chat's page in two tabs of Firefox, over HTTP and HTTPS.

    WENDREL_CHAT=... [FIREFOX=/usr/bin/firefox-esr] python3 test_firefox.py [Class[.test]]

The browser is driven by WebDriver BiDi, which it speaks by itself: JSON over a WebSocket.
"""

import itertools
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from websocket import create_connection

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
from processes import LIMIT_SECONDS, Process, free_port, wait_until

SERVER = os.environ.get("WENDREL_CHAT", "wendrel-chat")
FIREFOX = os.environ.get("FIREFOX", "/usr/bin/firefox-esr")
PREFERENCES = {"network.proxy.type": 0, "app.update.enabled": False, "datareporting.policy.dataSubmissionEnabled": False,
               "toolkit.telemetry.enabled": False, "network.captive-portal-service.enabled": False,
               "network.connectivity-service.enabled": False, "extensions.update.enabled": False}


class Browser:
    """One process with a profile of its own."""

    def __init__(self, directory):
        profile = directory / "profile"
        profile.mkdir()
        (profile / "user.js").write_text("".join(
            f"user_pref({json.dumps(name)}, {json.dumps(value)});\n" for name, value in PREFERENCES.items()))
        environment = {**os.environ, "HOME": str(directory), "MOZ_HEADLESS": "1"}
        self.process = Process(FIREFOX, "--no-remote", "--profile", str(profile), "--remote-debugging-port", "0",
                               env=environment)
        self.socket = None
        self.numbers = itertools.count(1)

    def connect(self):
        address = wait_until(self.find_address, "the browser listens")
        self.socket = create_connection(f"{address}/session", timeout=LIMIT_SECONDS, suppress_origin=True,
                                        http_no_proxy=["*"])
        self.ask("session.new", capabilities={"alwaysMatch": {"acceptInsecureCerts": True}})

    def find_address(self):
        self.process_must_run()
        found = re.search(r"WebDriver BiDi listening on (ws://\S+)", "".join(self.process.errors))
        return found and found[1]

    def process_must_run(self):
        assert self.process.process.poll() is None, self.process.text()

    def ask(self, method, **parameters):
        number = next(self.numbers)
        self.socket.send(json.dumps({"id": number, "method": method, "params": parameters}))
        while (message := json.loads(self.socket.recv())).get("id") != number:
            pass
        assert message["type"] == "success", message
        return message["result"]

    def end(self):
        if self.socket:
            self.ask("browser.close")
            self.socket.close()
            self.process.wait_end()
        else:
            self.process.stop()


class Page:
    def __init__(self, browser, url):
        self.browser = browser
        self.context = browser.ask("browsingContext.create", type="tab")["context"]
        browser.ask("browsingContext.navigate", context=self.context, url=url, wait="complete")

    def run(self, expression):
        """The value of an expression, as JSON can have it."""
        result = self.browser.ask("script.evaluate", expression=f"JSON.stringify({expression})",
                                  target={"context": self.context}, awaitPromise=False)
        assert result["type"] == "success", result
        return json.loads(result["result"]["value"])

    def wait(self, expression, value):
        wait_until(lambda: self.run(expression) == value, f"{expression} is {value}: {self.run(expression)}")

    def join(self, nickname):
        self.wait("document.getElementById('status').textContent", "connected")
        self.run(f"(document.getElementById('nickname').value = {json.dumps(nickname)},"
                 "document.getElementById('join').click(), 0)")
        self.wait("document.getElementById('chat').hidden", False)

    def say(self, text):
        self.run(f"(document.getElementById('text').value = {json.dumps(text)},"
                 "document.getElementById('send').click(), 0)")

    def close(self):
        self.browser.ask("browsingContext.close", context=self.context)


class Firefox(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="firefox-", ignore_cleanup_errors=True)
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def start_chat(self, scheme):
        options = []
        if scheme == "https":
            certificate, key = self.directory / "certificate.pem", self.directory / "key.pem"
            subprocess.run(
                ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-days", "2", "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                 "-keyout", key, "-out", certificate],
                check=True, capture_output=True, timeout=LIMIT_SECONDS)
            options = ["--tls-certificate", str(certificate), "--tls-key", str(key)]
        port = free_port()
        server = Process(SERVER, "--port", str(port), *options)
        self.addCleanup(lambda: self.assertEqual(server.stop(), 0, server.text()))
        server.wait_line(rf".*{scheme}://127\.0\.0\.1:{port}/")
        return f"{scheme}://127.0.0.1:{port}/"

    def check_talk(self, scheme):
        url = self.start_chat(scheme)
        browser = Browser(self.directory)
        self.addCleanup(browser.end)
        browser.connect()
        ada, bob = Page(browser, url), Page(browser, url)
        self.assertEqual(ada.run("[location.protocol, socket.url]"),
                         [f"{scheme}:", url.replace("http", "ws", 1) + "live"])
        ada.join("Ada")
        bob.join("Bob")
        people = "[...document.querySelectorAll('#people li')].map((item) => item.textContent)"
        for page in (ada, bob):
            page.wait(people, ["Ada", "Bob"])
        texts = ["Grüße 🎉", "<b>x</b>" * 100]
        for text in texts:
            ada.say(text)
        for page in (ada, bob):
            page.wait("[...document.querySelectorAll('#lines .text')].map((item) => item.textContent)", texts)
        bob.close()
        ada.wait(people, ["Ada"])

    def test_talks_over_http(self):
        self.check_talk("http")

    def test_talks_over_https(self):
        self.check_talk("https")


if __name__ == "__main__":
    unittest.main(verbosity=2)

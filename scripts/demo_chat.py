#!/usr/bin/python3
"""Two people in a room of the chat (examples/chat): the check of scripts/demo.sh --chat.

    demo_chat.py http://127.0.0.1:PORT
    demo_chat.py https://127.0.0.1:PORT CERTIFICATE

The clients ask for their WebSockets as browsers do. Prints the exchanged messages; the exit code is 1 if
something was missing, late or changed.
"""

import hashlib
import http.client
import json
import os
import ssl
import sys
import urllib.parse

import websocket

LIMIT_SECONDS = 60
ROOM = "demo"
LINES = 100
KEPT_MESSAGES = 50  # of a room, for those who come later
PICTURE = b"\x89PNG\r\n\x1a\n" + os.urandom(1024 * 1024)


class Failed(Exception):
    pass


def expect(condition, complaint):
    if not condition:
        raise Failed(complaint)


class Site:
    def __init__(self, url, certificate=None):
        self.address = urllib.parse.urlsplit(url).netloc
        self.certificate = certificate

    def connect(self):
        if self.certificate:
            return http.client.HTTPSConnection(self.address, timeout=LIMIT_SECONDS,
                                               context=ssl.create_default_context(cafile=self.certificate))
        return http.client.HTTPConnection(self.address, timeout=LIMIT_SECONDS)

    def connect_websocket(self):
        scheme, options = ("wss", {"ca_certs": self.certificate}) if self.certificate else ("ws", None)
        return websocket.create_connection(f"{scheme}://{self.address}/live", timeout=LIMIT_SECONDS,
                                           sslopt=options)


class Person:
    def __init__(self, site, nickname):
        self.nickname = nickname
        self.socket = site.connect_websocket()

    def receive(self, wanted):
        """The next message, which has to be of the type `wanted`."""
        opcode, data = self.socket.recv_data()
        expect(opcode == websocket.ABNF.OPCODE_TEXT, f"{self.nickname} got no text but opcode {opcode}")
        message = json.loads(data)
        expect(message["type"] == wanted, f"{self.nickname} got {message} instead of '{wanted}'")
        return message

    def receive_picture(self):
        message = self.receive("picture")
        expect(message["bytesFollow"], f"{self.nickname} got no bytes of the picture")
        opcode, data = self.socket.recv_data()
        expect(opcode == websocket.ABNF.OPCODE_BINARY, f"{self.nickname} got opcode {opcode}")
        return message["from"], data

    def send(self, **message):
        self.socket.send(json.dumps(message))

    def join(self):
        self.send(type="join", room=ROOM, nickname=self.nickname)
        joined = self.receive("joined")
        expect(joined["room"] == ROOM and joined["nickname"] == self.nickname, f"joined: {joined}")

    def wait_for_people(self, *names):
        people = self.receive("people")["people"]
        expect(sorted(people) == sorted(names), f"{self.nickname} sees {people}, not {names}")


def check_page(site):
    connection = site.connect()
    files = {"/": "text/html", "/chat.js": "text/javascript", "/chat.css": "text/css"}
    for target, wanted in files.items():
        connection.request("GET", target)
        response = connection.getresponse()
        size = len(response.read())
        media_type = response.headers["Content-Type"]
        expect(response.status == 200 and media_type.startswith(wanted) and size > 0,
               f"GET {target}: {response.status}, {media_type}, {size} bytes")
        print(f"GET {target}: 200, {size} bytes")
    connection.close()


def check_lines(ada, bob):
    texts = [f"line {number}: Grüße" for number in range(LINES)]
    for text in texts:
        ada.send(type="say", text=text)
    for person in (ada, bob):
        received = [person.receive("line") for _ in texts]
        expect([line["text"] for line in received] == texts, f"{person.nickname} got other lines")
        expect({line["from"] for line in received} == {"Ada"}, "a line is not from Ada")
    print(f"Ada said {LINES} lines; Bob got them all, in order")


def check_picture(ada, bob):
    bob.socket.send_binary(PICTURE)
    for person in (ada, bob):
        sender, data = person.receive_picture()
        expect(sender == "Bob", f"the picture is from {sender}")
        expect(data == PICTURE, f"{person.nickname} got another picture")
    print(f"Bob shared a picture of {len(PICTURE)} bytes; Ada got it, "
          f"SHA-256 {hashlib.sha256(PICTURE).hexdigest()[:16]}...")


def check_history(site, ada):
    eve = Person(site, "Eve")
    eve.join()
    lines = [eve.receive("line")["text"] for _ in range(KEPT_MESSAGES - 1)]
    expect(lines[-1].startswith(f"line {LINES - 1}:"), f"the last line is {lines[-1]!r}")
    expect(eve.receive_picture() == ("Bob", PICTURE), "Eve got another picture")
    for person in (eve, ada):
        person.wait_for_people("Ada", "Bob", "Eve")
    print(f"Eve came later; she got the last {KEPT_MESSAGES} messages, the picture among them")
    return eve


def check(site):
    check_page(site)
    ada, bob = Person(site, "Ada"), Person(site, "Bob")
    ada.join()
    ada.wait_for_people("Ada")
    bob.join()
    for person in (ada, bob):
        person.wait_for_people("Ada", "Bob")
    check_lines(ada, bob)
    check_picture(ada, bob)
    eve = check_history(site, ada)
    bob.socket.close()
    for person in (ada, eve):
        person.wait_for_people("Ada", "Eve")
    print("Bob left; the others were told")
    for person in (ada, eve):
        person.socket.close()


def main():
    try:
        check(Site(*sys.argv[1:]))
    except (Failed, OSError, http.client.HTTPException, websocket.WebSocketException) as error:
        print(f"demo_chat.py: {type(error).__name__}: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

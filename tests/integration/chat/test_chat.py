#!/usr/bin/env python3
"""The chat as its clients meet it: one process, real sockets.

    WENDREL_CHAT=build/release/examples/chat/wendrel-chat python3 test_chat.py [Class[.test]]
"""

import http.client
import json
import os
import pathlib
import socket
import subprocess
import sys
import time
import unittest
import urllib.error
import urllib.request

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
from live_client import BINARY, TEXT, LiveClient
from processes import LIMIT_SECONDS, SANITIZED, Process, free_port, wait_until

SERVER = os.environ.get("WENDREL_CHAT", "wendrel-chat")
PNG = b"\x89PNG\r\n\x1a\n"


class Person(LiveClient):
    def __init__(self, port):
        super().__init__(port, LIMIT_SECONDS)

    def receive_json(self):
        message = self.receive()
        assert isinstance(message, str), f"no text message: {message!r:.100}"
        return json.loads(message)

    def say(self, text):
        self.send(json.dumps({"type": "say", "text": text}))

    def ask_to_join(self, room, nickname):
        self.send(json.dumps({"type": "join", "room": room, "nickname": nickname}))

    def join(self, room, nickname):
        """Joins, and returns the earlier messages of the chat room, as message or bytes."""
        self.ask_to_join(room, nickname)
        joined = self.receive_json()
        assert joined == {"type": "joined", "room": room, "nickname": nickname}, joined
        history = []
        while True:
            message = self.receive()
            if isinstance(message, str):
                message = json.loads(message)
                if message["type"] == "people":
                    self.people = message["people"]
                    return history
            history.append(message)

    def expect_people(self, people):
        message = self.receive_json()
        assert message == {"type": "people", "people": people}, message


class ChatCase(unittest.TestCase):
    def setUp(self):
        self.port = free_port()
        self.server = Process(SERVER, "--port", str(self.port))
        self.stopped = False
        self.addCleanup(self.end_server)
        self.assertIn(f"http://127.0.0.1:{self.port}/", self.server.next_line())

    def end_server(self):
        if not self.stopped:
            self.stop()

    def stop(self):
        """After each test the server must stop with exit code 0."""
        self.stopped = True
        code = self.server.stop()
        log = "".join(self.server.errors)
        self.assertEqual(code, 0, log)
        self.assertNotIn("not closed", log)
        self.assertNotIn("Sanitizer", log)

    def person(self):
        person = Person(self.port)
        self.addCleanup(person.close)
        return person

    def status(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/api/status",
                                    timeout=LIMIT_SECONDS) as response:
            return json.load(response)


class Talk(ChatCase):
    def test_a_line_reaches_everybody_in_the_room(self):
        people = [self.person() for _ in range(5)]
        names = [f"p{number}" for number in range(5)]
        for number, person in enumerate(people):
            person.join("one", names[number])
            self.assertEqual(person.people, names[:number + 1])
            for other in people[:number]:
                other.expect_people(names[:number + 1])
        people[3].say("  hello, wörld <b>  ")
        for person in people:
            line = person.receive_json()
            self.assertAlmostEqual(line.pop("time") / 1000, time.time(), delta=LIMIT_SECONDS)
            self.assertEqual(line, {"type": "line", "from": "p3", "text": "hello, wörld <b>"})

    def test_rooms_are_apart(self):
        ann, bob = self.person(), self.person()
        ann.join("one", "Ann")
        bob.join("two", "Ann")
        ann.say("for one")
        bob.say("for two")
        self.assertEqual(ann.receive_json()["text"], "for one")
        self.assertEqual(bob.receive_json()["text"], "for two")
        self.assertEqual(self.status(), {"connections": 2, "people": 2, "rooms": 2})

    def test_newcomers_get_the_last_50_messages(self):
        ann = self.person()
        ann.join("one", "Ann")
        for number in range(60):
            ann.say(f"line {number}")
            ann.receive()
        texts = [line["text"] for line in self.person().join("one", "Bob")]
        self.assertEqual(texts, [f"line {number}" for number in range(10, 60)])

    def test_history_outlives_the_people(self):
        ann = self.person()
        ann.join("one", "Ann")
        ann.say("goodbye")
        ann.receive()
        ann.send_close()
        wait_until(lambda: self.status()["people"] == 0, "Ann has left")
        self.assertEqual([line["text"] for line in self.person().join("one", "Bob")], ["goodbye"])

    def test_pictures_arrive_whole_and_are_kept(self):
        ann, bob = self.person(), self.person()
        ann.join("one", "Ann")
        bob.join("one", "Bob")
        ann.receive()
        picture = PNG + os.urandom(2 * 1024 * 1024 - len(PNG))
        ann.send(picture)
        for person in (ann, bob):
            announced = person.receive_json()
            announced.pop("time")
            self.assertEqual(announced, {"type": "picture", "from": "Ann", "mediaType": "image/png",
                                         "bytesFollow": True})
            self.assertEqual(person.receive(), picture)
        history = self.person().join("one", "Cy")
        self.assertEqual(len(history), 2)
        self.assertEqual(history[1], picture)

    def test_many_talk_at_once_and_all_hear_the_same(self):
        count, lines = (10, 20) if SANITIZED else (20, 50)
        people = [self.person() for _ in range(count)]
        for number, person in enumerate(people):
            person.join("one", f"p{number}")
        for line in range(lines):
            for number, person in enumerate(people):
                person.say(f"{number}:{line}")
        heard = []
        for person in people:
            texts = []
            while len(texts) < count * lines:
                message = person.receive_json()
                if message["type"] == "line":
                    texts.append(message["text"])
            heard.append(texts)
        for texts in heard[1:]:
            self.assertEqual(texts, heard[0])
        for number in range(count):
            own = [text for text in heard[0] if text.startswith(f"{number}:")]
            self.assertEqual(own, [f"{number}:{line}" for line in range(lines)])


class Leaving(ChatCase):
    def test_the_others_see_who_leaves_however_that_happens(self):
        def vanish(person):
            person.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
            person.file.close()
            person.socket.close()

        ann = self.person()
        ann.join("one", "Ann")
        ways = {"close frame": Person.send_close, "end of the stream": Person.finish_sending,
                "both ends closed": Person.close, "reset": vanish}
        for name, leave in ways.items():
            with self.subTest(name):
                bob = self.person()
                bob.join("one", "Bob")
                ann.expect_people(["Ann", "Bob"])
                leave(bob)
                ann.expect_people(["Ann"])
        wait_until(lambda: self.status()["connections"] == 1, "only Ann is connected")

    def test_the_one_who_leaves_sees_the_end(self):
        ann = self.person()
        ann.join("one", "Ann")
        ann.send_close()
        self.assertIsNone(ann.receive())

    def test_connections_that_ended_cost_nothing(self):
        ann = self.person()
        ann.join("one", "Ann")
        wait_until(lambda: self.status()["connections"] == 1, "one connection")
        before = self.server.descriptors()
        for round_number in range(20):
            others = [Person(self.port) for _ in range(10)]
            for number, other in enumerate(others):
                other.join("two", f"p{number}")
            for number, other in enumerate(others):
                (Person.send_close if number % 2 else Person.finish_sending)(other)
            wait_until(lambda: self.status()["connections"] == 1, f"round {round_number} has ended")
            for other in others:
                other.close()
        wait_until(lambda: self.server.descriptors() <= before + 1, "descriptors are given back")
        ann.say("still here")
        self.assertEqual(ann.receive_json()["text"], "still here")

    def test_stop_with_everything_open(self):
        people = [self.person() for _ in range(30)]
        for number, person in enumerate(people[:20]):
            person.join("one", f"p{number}")
        people[0].finish_sending()
        people[1].send_close()
        people[2].socket.sendall(b"\x81\xfe\x10\x00half of a frame")
        self.stop()
        for person in people[3:]:
            while person.receive() is not None:
                pass


class Refusals(ChatCase):
    def check_error(self, person, text):
        message = person.receive_json()
        self.assertEqual(message["type"], "error", message)
        self.assertIn(text, message["text"])

    def test_each_mistake_is_explained_and_the_connection_goes_on(self):
        ann, bob = self.person(), self.person()
        bob.join("one", "Bob")
        mistakes = [
            ("not JSON", "nonsense", "not understood"),
            ("no object", "[1]", "not understood"),
            ("no type", "{}", "not understood"),
            ("deep nesting", "[" * 16000, "not understood"),
            ("too long", "x" * 16385, "too long"),
            ("no room", '{"type":"join","nickname":"Ann"}', "room is missing"),
            ("no nickname", '{"type":"join","room":"one","nickname":" "}', "nickname is missing"),
            ("long room", json.dumps({"type": "join", "room": "r" * 65, "nickname": "A"}), "64 bytes"),
            ("control character", '{"type":"join","room":"a\\u0001","nickname":"A"}', "control"),
            ("taken", '{"type":"join","room":"one","nickname":"Bob"}', "called Bob already"),
            ("say outside", '{"type":"say","text":"x"}', "Join a room"),
            ("no text", '{"type":"say","text":"  "}', "no text"),
            ("long text", json.dumps({"type": "say", "text": "x" * 4001}), "4000 bytes"),
            ("no picture", b"GIF87", "not a PNG"),
            ("picture outside", PNG, "Join a room"),
        ]
        for name, message, text in mistakes:
            with self.subTest(name):
                ann.send(message)
                self.check_error(ann, text)
        ann.join("one", "Ann")
        ann.ask_to_join("two", "Ann")
        self.check_error(ann, "in a room already")

    def test_messages_that_end_the_connection(self):
        bob = self.person()
        bob.join("one", "Bob")
        ends = [
            ("not UTF-8", TEXT, b'{"a":"\xff\xfe"}', 1007),
            ("large picture", BINARY, PNG + bytes(2 * 1024 * 1024), 1009),
            ("unknown opcode", 3, b"", 1002),
        ]
        for name, opcode, payload, code in ends:
            with self.subTest(name):
                ann = self.person()
                ann.join("one", "Ann")
                bob.expect_people(["Ann", "Bob"])
                ann.send_frame(opcode, payload)
                while ann.receive() is not None:
                    pass
                self.assertEqual(ann.close_code, code)
                bob.expect_people(["Bob"])

    def test_more_rooms_than_there_may_be(self):
        people = [self.person() for _ in range(100)]
        for number, person in enumerate(people):
            person.join(f"room {number}", "x")
        late = self.person()
        late.ask_to_join("one more", "x")
        self.check_error(late, "too many rooms")
        people[7].send_close()
        wait_until(lambda: self.status()["people"] == 99, "a room is empty")
        late.join("one more", "x")


class Pages(ChatCase):
    def get(self, target, headers=None):
        request = urllib.request.Request(f"http://127.0.0.1:{self.port}{target}",
                                         headers=headers or {})
        try:
            with urllib.request.urlopen(request, timeout=LIMIT_SECONDS) as response:
                return response.status, response.headers, response.read()
        except urllib.error.HTTPError as error:
            with error:
                return error.code, error.headers, error.read()

    def test_page_and_what_it_loads(self):
        source = pathlib.Path(__file__).resolve().parents[3] / "examples" / "chat"
        for target, file, media_type in (("/", "page.html", "text/html"),
                                         ("/chat.js", "chat.js", "text/javascript"),
                                         ("/chat.css", "chat.css", "text/css")):
            status, headers, body = self.get(target)
            self.assertEqual(status, 200)
            self.assertTrue(headers["Content-Type"].startswith(media_type))
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
            self.assertEqual(body, (source / file).read_bytes())

    def test_a_request_that_asks_for_no_websocket_is_told(self):
        status, headers, body = self.get("/live")
        self.assertEqual(status, 426)
        self.assertEqual(headers["Upgrade"], "websocket")
        self.assertIn(b"WebSocket", body)

    def test_pages_of_other_sites_cannot_chat(self):
        handshake = {"Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
                     "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="}
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
        self.addCleanup(connection.close)
        connection.request("GET", "/live", headers={**handshake, "Origin": "http://evil.test"})
        response = connection.getresponse()
        self.assertEqual((response.status, response.reason), (403, "Forbidden"), response.read())


class CommandLine(unittest.TestCase):
    def run_chat(self, *arguments):
        return subprocess.run([SERVER, *arguments], capture_output=True, text=True,
                              timeout=LIMIT_SECONDS)

    def test_help_and_version(self):
        done = self.run_chat("--help")
        self.assertEqual(done.returncode, 0)
        self.assertIn("--port", done.stdout)
        self.assertEqual(self.run_chat("--version").returncode, 0)

    def test_mistakes(self):
        for arguments in (["--port", "0"], ["--prot", "1"], ["--port", "65536"]):
            done = self.run_chat(*arguments)
            self.assertEqual(done.returncode, 1, done)
            self.assertTrue(done.stderr)

    def test_port_in_use(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            done = self.run_chat("--port", str(taken.getsockname()[1]))
        self.assertEqual(done.returncode, 1)
        self.assertIn("in use", done.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)

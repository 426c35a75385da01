#!/usr/bin/env python3
"""The mixed load of a soak test: writes its progress, a line of JSON per second, until SIGTERM.

    python3 load.py FILEDROP_PORT CHAT_PORT (prime|short|long) [SEED]

prime does everything once and ends by itself.
"""

import asyncio
import collections
import hashlib
import itertools
import json
import os
import random
import resource
import signal
import sys
import traceback

from client import (
    BLOCK, CLOSE_FRAME, Connection, Http, WebSocket, Wrong, cancel, expect, frame, within)

KIB = 1024
MIB = 1024 * KIB
SMALL_SIZES = (0, 1, 100, 4096, 65535, 65536, 100000, 262144)
BIG_FILE_BYTES = 8 * MIB
MAX_FAILURES_SHOWN = 20
PNG = b"\x89PNG\r\n\x1a\n"
ROOMS = 5


class Pace:
    """How much at once, how large and how slowly."""

    def __init__(self, name):
        short = name != "long"
        prime = name == "prime"
        self.large = (4 * MIB, 16 * MIB) if short else (16 * MIB, 256 * MIB)
        self.slow_seconds = 0.5 if prime else 3 if short else 20
        self.stay_seconds = (0, 0.5) if prime else (1, 5) if short else (3, 40)
        # actors of each kind, and the seconds each of them waits on average after an operation
        self.actors = {
            "small": (2, 0.05), "chat_page": (1, 0.2), "upload_and_download": (2, 6.0),
            "abort_upload": (2, 0.7), "abort_download": (2, 0.7), "abort_head": (1, 1.0),
            "end_in_head": (0, 0) if short else (1, 15.0),
            "slow_head": (2, 1.0), "slow_body": (2, 2.0), "slow_reader": (2, 1.0),
            "live": (5, 0.5), "talk": (14, 0.5), "silent": (1, 2.0),
        }
        if short:
            self.actors["upload_and_download"] = (2, 1.0)


class Load:
    def __init__(self, filedrop, chat, pace, seed):
        self.filedrop = filedrop
        self.chat = chat
        self.pace = pace
        self.random = random.Random(seed)
        self.numbers = itertools.count()
        self.stopping = asyncio.Event()
        self.done = collections.Counter()
        self.failed = collections.Counter()
        self.failures = []
        self.bytes = collections.Counter()
        self.stop_wait = None
        self.block = self.random.randbytes(4 * MIB)
        self.small = {f"small-{size}": self.block[size:2 * size] for size in SMALL_SIZES}
        self.big = self.block + self.block[::-1]
        self.pages = {}

    # Shared parts of the operations

    async def pause(self, seconds):
        """False when the load is to stop."""
        try:
            await asyncio.wait_for(self.stopping.wait(), seconds)
            return False
        except asyncio.TimeoutError:
            return True

    def content(self, size):
        """Pieces that no two files have in common, and how to know them again."""
        start = self.random.randrange(len(self.block) - BLOCK)
        for sent in range(0, size, BLOCK):
            piece = bytearray(self.block[start:start + min(BLOCK, size - sent)])
            mark = sent.to_bytes(8, "big")[:len(piece)]
            piece[:len(mark)] = mark
            start = (start + BLOCK) % (len(self.block) - BLOCK)
            yield bytes(piece)

    def fresh_name(self):
        return f"/files/of-soak-{next(self.numbers)}"

    @staticmethod
    def person_name(number):
        """A chat room stores its messages, also those of an earlier process."""
        return f"person {os.getpid()}-{number}"

    async def put(self, connection, target, body, status=201):
        response = await connection.request("PUT", target, body=body)
        expect(response.status == status, f"PUT {target}: {response.status}")

    async def delete(self, connection, target):
        response = await connection.request("DELETE", target)
        expect(response.status == 204, f"DELETE {target}: {response.status}")

    async def expect_missing(self, target):
        async with await Http.open(self.filedrop) as connection:
            response = await connection.request("GET", target)
            expect(response.status == 404, f"an upload that was aborted is there: {response.status}")

    async def prepare(self):
        async with await Http.open(self.filedrop) as connection:
            for name, body in (*self.small.items(), ("big", self.big)):
                await self.put(connection, f"/files/{name}", body)

    # Small requests

    async def small_requests(self):
        async with await Http.open(self.filedrop) as connection:
            for _ in range(self.random.randint(1, 20)):
                request = self.random.choice(self.SMALL)
                await request(self, connection)
                self.done[request.__name__] += 1
                if not await self.pause(self.random.uniform(0, 0.1)):
                    break

    async def get_list(self, connection):
        response = await connection.request("GET", "/api/files")
        expect(response.status == 200, f"list: {response.status}")
        sizes = {file["name"]: file["size"] for file in json.loads(response.body)["files"]}
        for name, body in self.small.items():
            expect(sizes.get(name) == len(body), f"list: {name} has {sizes.get(name)} bytes")

    async def get_page(self, connection):
        response = await connection.request("GET", "/")
        # Not the same bytes each time: there is a nonce in it.
        expect(response.status == 200 and b"</html>" in response.body, f"page: {response.status}")

    def expect_page(self, name, response, part):
        """The same bytes each time."""
        expect(response.status == 200, f"{name}: {response.status}")
        expect(part in response.body, f"{name}: not the page")
        digest = hashlib.sha256(response.body).hexdigest()
        expect(self.pages.setdefault(name, digest) == digest, f"{name}: other bytes than before")

    async def get_small(self, connection):
        name, body = self.random.choice(list(self.small.items()))
        response = await connection.request("GET", f"/files/{name}")
        expect(response.status == 200 and response.body == body,
               f"GET {name}: {response.status}, {len(response.body)} bytes")

    async def head(self, connection):
        name, body = self.random.choice(list(self.small.items()))
        response = await connection.request("HEAD", f"/files/{name}")
        expect(response.status == 200 and response.headers["content-length"] == str(len(body)),
               f"HEAD {name}: {response.status}, {response.headers}")

    async def get_missing(self, connection):
        response = await connection.request("GET", f"/files/missing-{next(self.numbers)}")
        expect(response.status == 404 and json.loads(response.body)["status"] == 404,
               f"missing: {response.status}")

    async def get_if_changed(self, connection):
        target = f"/files/{self.random.choice(list(self.small))}"
        tag = (await connection.request("HEAD", target)).headers["etag"]
        response = await connection.request("GET", target, [f"If-None-Match: {tag}"])
        expect(response.status == 304, f"conditional: {response.status}")

    async def get_range(self, connection):
        first = self.random.randrange(BIG_FILE_BYTES)
        last = min(first + self.random.randrange(100000), BIG_FILE_BYTES - 1)
        response = await connection.request("GET", "/files/big", [f"Range: bytes={first}-{last}"])
        expect(response.status == 206 and response.body == self.big[first:last + 1],
               f"range: {response.status}, {len(response.body)} bytes")

    async def get_beyond(self, connection):
        response = await connection.request("GET", "/files/big", [f"Range: bytes={BIG_FILE_BYTES}-"])
        expect(response.status == 416, f"range beyond the end: {response.status}")

    async def put_and_delete(self, connection):
        target = self.fresh_name()
        body = self.random.randbytes(self.random.randrange(50000))
        await self.put(connection, target, body)
        await self.put(connection, target, body[::-1], status=200)
        response = await connection.request("GET", target)
        expect(response.status == 200 and response.body == body[::-1], "another file than was put")
        await self.delete(connection, target)

    SMALL = (get_list, get_page, get_small, head, get_missing, get_if_changed, get_range,
             get_beyond, put_and_delete)

    async def chat_requests(self):
        async with await Http.open(self.chat) as connection:
            for target, part in (("/", b"</html>"), ("/chat.js", b""), ("/chat.css", b"")):
                self.expect_page(f"chat {target}", await connection.request("GET", target), part)
            response = await connection.request("GET", "/api/status")
            expect(response.status == 200 and json.loads(response.body)["rooms"] >= 0,
                   f"chat status: {response.status}")
            for target, status in (("/nothing", 404), ("/live", 426)):
                response = await connection.request("GET", target)
                expect(response.status == status, f"chat {target}: {response.status}")

    # Large transfers

    async def upload_and_download(self):
        low, high = self.pace.large
        size = int(low * (high / low) ** self.random.random())
        chunked = self.random.random() < 0.3
        target = self.fresh_name()
        sent = hashlib.sha256()
        got = hashlib.sha256()
        async with await Http.open(self.filedrop) as connection:
            await connection.send_head("PUT", target, [
                "Transfer-Encoding: chunked" if chunked else f"Content-Length: {size}"])
            for piece in self.content(size):
                sent.update(piece)
                await connection.send(
                    b"%x\r\n%s\r\n" % (len(piece), piece) if chunked else piece)
            if chunked:
                await connection.send(b"0\r\n\r\n")
            response = await connection.receive_body(await connection.receive_head())
            expect(response.status == 201, f"upload: {response.status}")
            self.bytes["up"] += size
            await connection.send_head("GET", target)
            response = await connection.receive_head()
            expect(response.status == 200, f"download: {response.status}")
            await connection.receive_body(response, got.update)
            self.bytes["down"] += size
            await self.delete(connection, target)
        expect(sent.digest() == got.digest(), f"{size} bytes came back changed")

    # Clients that abort

    async def leave(self, connection, wait):
        """In one of the ways to end a connection; `wait`: after a half-close for the other half."""
        way = self.random.choice(("reset", "half_close", "close"))
        if way == "reset":
            await connection.reset()
        elif way == "half_close":
            connection.finish_sending()
            if wait:
                await connection.wait_end()

    async def abort_upload(self):
        size = self.random.randrange(1, 4 * MIB)
        cut = self.random.randrange(size)
        target = self.fresh_name()
        async with await Http.open(self.filedrop) as connection:
            await connection.send_head("PUT", target, [f"Content-Length: {size}"])
            for start in range(0, cut, BLOCK):
                await connection.send(self.block[start:min(start + BLOCK, cut)])
            await self.leave(connection, wait=True)
        await self.expect_missing(target)

    async def abort_download(self):
        cut = self.random.randrange(BIG_FILE_BYTES)
        async with await Http.open(self.filedrop) as connection:
            await connection.send_head("GET", "/files/big")
            response = await connection.receive_head()
            expect(response.status == 200, f"download: {response.status}")
            got = 0
            while got < cut:
                piece = await within(connection.reader.read(min(BLOCK, cut - got)))
                expect(piece == self.big[got:got + len(piece)] and piece, f"wrong bytes at {got}")
                got += len(piece)
            await self.leave(connection, wait=False)

    async def open_with_part_of_head(self):
        head = b"GET /files/big HTTP/1.1\r\nHost: soak\r\nX-Some: thing\r\n\r\n"
        connection = await Connection.open(self.random.choice((self.filedrop, self.chat)))
        await connection.send(head[:self.random.randrange(len(head) - 1)])
        return connection

    async def abort_head(self):
        async with await self.open_with_part_of_head() as connection:
            await connection.reset()

    async def end_in_head(self):
        """FIN instead of RST: when it comes together with the bytes before it, the daemon does
        not notice, and keeps the connection until its timeout of 360 s. So these are rare, and
        none come when there is no time to wait for that."""
        async with await self.open_with_part_of_head() as connection:
            connection.finish_sending()

    # Slow clients

    def slow_steps(self, number):
        return self.pace.slow_seconds / number * self.random.uniform(0.5, 1.0)

    async def slow_head(self):
        name, body = self.random.choice(list(self.small.items()))
        head = f"GET /files/{name} HTTP/1.1\r\nHost: soak\r\n\r\n".encode()
        async with await Http.open(self.filedrop) as connection:
            step = self.slow_steps(len(head))
            for position in range(len(head)):
                await connection.send(head[position:position + 1])
                await self.pause(step)
            response = await connection.receive_body(await connection.receive_head())
            expect(response.status == 200 and response.body == body, f"slow head: {response.status}")

    async def slow_body(self):
        target = self.fresh_name()
        body = self.random.randbytes(50 * KIB)
        async with await Http.open(self.filedrop) as connection:
            step = self.slow_steps(50)
            await connection.send_head("PUT", target, [f"Content-Length: {len(body)}"])
            for start in range(0, len(body), KIB):
                await connection.send(body[start:start + KIB])
                await self.pause(step)
            response = await connection.receive_body(await connection.receive_head())
            expect(response.status == 201, f"slow body: {response.status}")
            response = await connection.request("GET", target)
            expect(response.body == body, "a slow body came back changed")
            await self.delete(connection, target)

    async def slow_reader(self):
        async with await Http.open(self.filedrop, receive_buffer=16 * KIB) as connection:
            step = self.slow_steps(50)
            await connection.send_head("GET", "/files/big")
            response = await connection.receive_head()
            expect(response.status == 200, f"slow reader: {response.status}")
            got = 0
            for _ in range(50):
                piece = await within(connection.reader.read(8 * KIB))
                expect(piece == self.big[got:got + len(piece)] and piece, f"wrong bytes at {got}")
                got += len(piece)
                await self.pause(step)
            while got < BIG_FILE_BYTES:
                piece = await within(connection.reader.read(BLOCK))
                expect(piece == self.big[got:got + len(piece)] and piece, f"wrong bytes at {got}")
                got += len(piece)

    # WebSockets

    async def leave_live(self, socket):
        """In one of the ways to end an upgraded connection."""
        way = self.random.choice(("close_frame", "half_close", "reset", "cut_frame", "close"))
        self.done[f"leave_{way}"] += 1
        if way == "close_frame":
            await socket.send(CLOSE_FRAME)
            await socket.wait_end()
        elif way == "half_close":
            socket.finish_sending()
            await socket.wait_end()
        elif way == "reset":
            await socket.reset()
        elif way == "cut_frame":
            await socket.send(frame("x" * 100)[:self.random.randrange(1, 100)])

    async def live(self):
        async with await WebSocket.upgrade(self.filedrop) as stream:
            loop = asyncio.get_running_loop()
            end = loop.time() + self.random.uniform(*self.pace.stay_seconds)
            text = await stream.receive()
            while not self.stopping.is_set():
                expect(isinstance(text, str) and "small-1" in
                       {file["name"] for file in json.loads(text)["files"]}, "a wrong list")
                self.done["list_pushed"] += 1
                left = end - loop.time()
                if left <= 0:
                    break
                wait = asyncio.ensure_future(stream.receive())
                await asyncio.wait([wait, self.stop_wait], timeout=left,
                                   return_when=asyncio.FIRST_COMPLETED)
                if not wait.done():
                    await cancel(wait)
                    break
                text = wait.result()
            way = self.random.choice(("half_close", "reset", "close"))
            self.done[f"leave_stream_{way}"] += 1
            if way == "half_close":
                stream.finish_sending()
            elif way == "reset":
                await stream.reset()

    async def talk(self):
        number = next(self.numbers)
        async with await WebSocket.upgrade(self.chat) as socket:
            person = Person(socket, f"room {number % ROOMS}", self.person_name(number))
            await person.join()
            listening = asyncio.ensure_future(person.listen())
            try:
                await self.say_things(person, listening)
            finally:
                await cancel(listening)
            await self.leave_live(socket)
        self.done["message_heard"] += person.heard

    async def say_things(self, person, listening):
        loop = asyncio.get_running_loop()
        end = loop.time() + self.random.uniform(*self.pace.stay_seconds)
        going = True
        while going and loop.time() < end:
            if self.random.random() < 0.06:
                await person.show(PNG + self.random.randbytes(self.random.randrange(96 * KIB)))
                self.done["picture_shown"] += 1
            else:
                await person.say("x" * self.random.randrange(1, 500) + str(next(self.numbers)))
                self.done["line_said"] += 1
            echoed = asyncio.ensure_future(person.wait_echo())
            await asyncio.wait([echoed, listening], return_when=asyncio.FIRST_COMPLETED)
            if not echoed.done():
                await cancel(echoed)
                listening.result()  # has the reason
            echoed.result()
            going = await self.pause(self.random.uniform(0.2, 1.5))

    async def silent(self):
        """Joins a chat room, and reads nothing."""
        number = next(self.numbers)
        async with await WebSocket.upgrade(self.chat, receive_buffer=16 * KIB) as socket:
            await socket.send(frame(json.dumps({
                "type": "join", "room": f"room {number % ROOMS}",
                "nickname": self.person_name(number)})))
            await self.pause(self.pace.slow_seconds)
            await self.leave_live(socket)

    # The whole

    OPERATIONS = {
        "small": small_requests, "chat_page": chat_requests,
        "upload_and_download": upload_and_download, "abort_upload": abort_upload,
        "abort_download": abort_download, "abort_head": abort_head,
        "end_in_head": end_in_head, "slow_head": slow_head,
        "slow_body": slow_body, "slow_reader": slow_reader, "live": live, "talk": talk,
        "silent": silent,
    }

    async def perform(self, name):
        try:
            await self.OPERATIONS[name](self)
            self.done[name] += 1
        except Exception as error:  # all of them count, and none ends the load
            self.failed[name] += 1
            if len(self.failures) < MAX_FAILURES_SHOWN:
                where = traceback.extract_tb(error.__traceback__)[-1]
                plain = isinstance(error, Wrong)
                self.failures.append(
                    f"{name}: {error}" if plain else
                    f"{name}: {error!r} at {os.path.basename(where.filename)}:{where.lineno}")

    async def act(self, name, pause):
        while await self.pause(self.random.uniform(0, 2 * pause)):
            await self.perform(name)

    def report(self):
        usage = resource.getrusage(resource.RUSAGE_SELF)
        print(json.dumps({"done": self.done, "failed": self.failed, "failures": self.failures,
                          "bytes": self.bytes, "cpu": usage.ru_utime + usage.ru_stime}), flush=True)

    async def report_always(self):
        while True:
            self.report()
            await asyncio.sleep(1)

    async def prime(self):
        await self.prepare()
        self.stop_wait = asyncio.ensure_future(self.stopping.wait())
        await asyncio.gather(*(self.perform(name) for name in self.pace.actors
                               if self.pace.actors[name][0] > 0))
        self.report()

    async def run(self):
        loop = asyncio.get_running_loop()
        for number in (signal.SIGTERM, signal.SIGINT):
            loop.add_signal_handler(number, self.stopping.set)
        self.stop_wait = asyncio.ensure_future(self.stopping.wait())
        reporting = asyncio.ensure_future(self.report_always())
        await asyncio.gather(*(self.act(name, pause)
                               for name, (count, pause) in self.pace.actors.items()
                               for _ in range(count)))
        reporting.cancel()
        self.report()


class Person:
    """A participant of a chat room, who receives all lines, its own included."""

    def __init__(self, socket, room, name):
        self.socket = socket
        self.room = room
        self.name = name
        self.heard = 0
        self.expected = collections.deque()
        self.echo = asyncio.Event()

    async def join(self):
        await self.socket.send(frame(json.dumps(
            {"type": "join", "room": self.room, "nickname": self.name})))
        joined = await self.socket.receive()
        expect(isinstance(joined, str) and json.loads(joined) ==
               {"type": "joined", "room": self.room, "nickname": self.name}, f"join: {joined!r}")

    async def say(self, text):
        self.expected.append(text)
        self.echo.clear()
        await self.socket.send(frame(json.dumps({"type": "say", "text": text})))

    async def show(self, picture):
        self.expected.append(picture)
        self.echo.clear()
        await self.socket.send(frame(picture))

    async def wait_echo(self):
        await within(self.echo.wait())

    async def listen(self):
        while True:
            message = await self.socket.receive(seconds=600)
            expect(isinstance(message, str), f"{type(message)} where a text message is due")
            message = json.loads(message)
            content = message.get("text")
            expect(message["type"] in ("line", "picture", "people"), f"unexpected: {message}")
            if message["type"] == "picture" and message["bytesFollow"]:
                content = await self.socket.receive()
                expect(isinstance(content, bytes) and content.startswith(PNG), "not the picture")
            self.heard += 1
            if message.get("from") == self.name:
                expect(self.expected and content == self.expected.popleft(),
                       f"not what was said before: {str(content)[-60:]}")
                self.echo.set()


def main():
    pace = sys.argv[3]
    seed = int(sys.argv[4]) if len(sys.argv) > 4 else 1

    async def all_of_it():
        load = Load(int(sys.argv[1]), int(sys.argv[2]), Pace(pace), seed)
        await (load.prime() if pace == "prime" else load.run())

    asyncio.run(all_of_it())


if __name__ == "__main__":
    main()

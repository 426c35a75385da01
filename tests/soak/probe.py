#!/usr/bin/env python3
"""A well-behaved client that measures: a line for each probe, until SIGTERM.

    python3 probe.py FILEDROP_PORT CHAT_PORT PROBES_A_SECOND

writes "get SECONDS" (connect, GET of a small file, all of the response), "chat SECONDS" (from one
person's send to the other's receive), and "failed TEXT". A process of its own, so that the load's
client does not measure itself.
"""

import asyncio
import json
import signal
import sys
import time

from client import Http, WebSocket, expect, frame

SIZE = 100


async def probe_get(port):
    started = time.perf_counter()
    async with await Http.open(port) as connection:
        response = await connection.request("GET", f"/files/small-{SIZE}")
        expect(response.status == 200 and len(response.body) == SIZE, f"GET: {response.status}")
        return time.perf_counter() - started


class Pair:
    """Two people in their own chat room."""

    @classmethod
    async def meet(cls, port):
        self = cls()
        self.people = []
        for name in ("speaker", "listener"):
            person = await WebSocket.upgrade(port)
            self.people.append(person)
            await person.send(frame(json.dumps(
                {"type": "join", "room": "probe", "nickname": name})))
            joined = json.loads(await person.receive())
            expect(joined["type"] == "joined", f"join: {joined}")
        return self

    async def hear(self, person, text):
        """Everything up to the line."""
        while True:
            message = await person.receive()
            expect(message is not None, "the connection to the chat has ended")
            if json.loads(message).get("text") == text:
                return

    async def probe(self, number):
        text = f"probe {number}"
        speaker, listener = self.people
        started = time.perf_counter()
        await speaker.send(frame(json.dumps({"type": "say", "text": text})))
        await self.hear(listener, text)
        taken = time.perf_counter() - started
        await self.hear(speaker, text)
        return taken

    def part(self):
        for person in self.people:
            person.writer.transport.abort()


async def repeat(name, probe, period, stopping):
    number = 0
    while not stopping.is_set():
        number += 1
        try:
            print(f"{name} {await probe(number):.6f}", flush=True)
        except Exception as error:
            print(f"failed probe {name}: {error!r}", flush=True)
        try:
            await asyncio.wait_for(stopping.wait(), period)
        except asyncio.TimeoutError:
            pass


async def run(filedrop, chat, per_second):
    stopping = asyncio.Event()
    for number in (signal.SIGTERM, signal.SIGINT):
        asyncio.get_running_loop().add_signal_handler(number, stopping.set)
    pair = await Pair.meet(chat)
    try:
        await asyncio.gather(
            repeat("get", lambda _: probe_get(filedrop), 1 / per_second, stopping),
            repeat("chat", pair.probe, 1 / per_second, stopping))
    finally:
        pair.part()


if __name__ == "__main__":
    asyncio.run(run(int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3])))

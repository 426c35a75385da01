"""The clients of python3-websockets and python3-aiohttp against the echo of the kit's sessions, both
with compression.

    python3 async_client.py (websockets|aiohttp) messages PORT COUNT SEED
    python3 async_client.py (websockets|aiohttp) connections PORT COUNT SEED

Output and end as of python_client.py.
"""

import asyncio
import sys
import time

from python_client import ABNF, CONNECTION_SIZES, LIMIT_SECONDS, Contents, report

DEFLATE_WINDOW_BITS = 15


def typed(message):
    """Text as str, as the packages want it."""
    opcode, data = message
    return data.decode() if opcode == ABNF.OPCODE_TEXT else bytes(data)


class Websockets:
    """A connection of the websockets package."""

    def __init__(self, connection):
        self.connection = connection
        if not connection.extensions:
            raise AssertionError("nothing is compressed")

    @staticmethod
    async def open(port):
        import websockets
        return Websockets(await websockets.connect(f"ws://127.0.0.1:{port}/", max_size=None))

    async def send(self, message, pieces):
        data = typed(message)
        if not pieces or isinstance(data, str):
            await self.connection.send(data)
            return
        ends = [sum(pieces[:i]) for i in range(len(pieces) + 1)] + [len(data)]
        await self.connection.send([data[begin:end] for begin, end in zip(ends, ends[1:])])

    async def receive(self):
        return await self.connection.recv()

    async def ping(self):
        await (await self.connection.ping(b"are you there"))

    async def close(self):
        await self.connection.close(1000, "done")
        if self.connection.close_code != 1000:
            raise AssertionError(f"closed with {self.connection.close_code}")


class Aiohttp:
    """A connection of the aiohttp package."""

    def __init__(self, session, connection):
        self.session = session
        self.connection = connection
        if not connection.compress:
            raise AssertionError("nothing is compressed")

    @staticmethod
    async def open(port):
        import aiohttp
        session = aiohttp.ClientSession()
        return Aiohttp(session, await session.ws_connect(
            f"http://127.0.0.1:{port}/", max_msg_size=0, compress=DEFLATE_WINDOW_BITS,
            origin=f"http://127.0.0.1:{port}"))

    async def send(self, message, _):
        data = typed(message)
        await (self.connection.send_str if isinstance(data, str) else self.connection.send_bytes)(data)

    async def receive(self):
        return (await self.connection.receive()).data

    async def ping(self):
        await self.connection.ping(b"are you there")

    async def close(self):
        await self.connection.close(code=1000, message=b"done")
        await self.session.close()
        if self.connection.close_code != 1000:
            raise AssertionError(f"closed with {self.connection.close_code}")


async def receive(client, message):
    received = await client.receive()
    if received != typed(message):
        raise AssertionError(f"{len(message[1])} bytes came back as {len(received)}")
    return len(message[1])


async def run_messages(kind, port, count, seed):
    contents = Contents(seed)
    sizes = contents.sizes(count)
    client = await kind.open(port)
    begin = time.monotonic()
    at = 0
    total = 0
    while at < count:
        turn = contents.turn(sizes, at)
        for message, pieces in turn:
            await client.send(message, pieces)
        for message, _ in turn:
            total += await receive(client, message)
        at += len(turn)
        if at % 100 == 0:
            await client.ping()
    report(count, total, 1, begin)
    await client.close()


async def run_connections(kind, port, count, seed):
    contents = Contents(seed)
    clients = [await kind.open(port) for _ in range(count)]
    print("open", flush=True)
    sys.stdin.readline()
    begin = time.monotonic()
    total = 0
    for size in CONNECTION_SIZES:
        messages = [contents.message(size) for _ in clients]
        for client, message in zip(clients, messages):
            await client.send(message, contents.pieces(size))
        for client, message in zip(clients, messages):
            total += await receive(client, message)
    report(count * len(CONNECTION_SIZES), total, count, begin)
    for client in clients:
        await client.close()


def main():
    library, mode, port, count, seed = sys.argv[1:]
    kind = {"websockets": Websockets, "aiohttp": Aiohttp}[library]
    run = {"messages": run_messages, "connections": run_connections}[mode]
    asyncio.run(asyncio.wait_for(run(kind, int(port), int(count), int(seed)), LIMIT_SECONDS))


if __name__ == "__main__":
    main()

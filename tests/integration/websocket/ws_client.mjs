// The client of Node.js's ws package against the echo server.
//
//     node ws_client.mjs messages PORT COUNT SEED
//     node ws_client.mjs connections PORT COUNT SEED
//
// "connections" prints "open" when all are open and goes on when it is sent a line. Both end
// with a line of counts and status 0, or with an error and status 1.

import assert from 'node:assert/strict'
import { once } from 'node:events'
import WebSocket from 'ws'

const kMiB = 1024 * 1024
const kServerBlockBytes = 1024
const kBoundaries = [0, 125, 126, 127, 65535, 65536, 131000, 131001, 262000, 262001]
const kLarge = [kMiB, 2 * kMiB, 3 * kMiB, 4 * kMiB]
const kLimitMs = Number(process.env.WENDREL_WEBSOCKET_LIMIT_SECONDS ?? 60) * 1000

// xorshift32; the seed must not be 0.
class Random {
    constructor(seed) {
        this.state = seed
    }

    next() {
        let x = this.state
        x ^= x << 13
        x ^= x >>> 17
        x ^= x << 5
        this.state = x >>> 0
        return this.state
    }

    // 0 to `bound` - 1.
    below(bound) {
        return this.next() % bound
    }
}

// Where payloads are cut from: bytes, and text whose characters are 1 to 4 bytes long.
class Contents {
    constructor(random) {
        this.random = random
        this.bytes = Buffer.alloc(5 * kMiB)
        for (let at = 0; at < this.bytes.length; at += 4)
            this.bytes.writeUInt32LE(random.next(), at)
        const alphabet = ['a', 'Z', ' ', '\n', '\0', 'ä', 'ß', '€', '한', '😀']
        const characters = []
        for (let size = 0; size < 65536;) {
            characters.push(alphabet[random.below(alphabet.length)])
            size += Buffer.byteLength(characters[characters.length - 1])
        }
        const part = Buffer.from(characters.join(''))
        this.text = Buffer.concat(Array(Math.ceil(5 * kMiB / part.length)).fill(part))
    }

    binary(size) {
        const at = this.random.below(kMiB)
        return this.bytes.subarray(at, at + size)
    }

    // A character that the cut divides is replaced, so that all of it is valid.
    textOf(size) {
        const at = this.random.below(kMiB)
        const cut = Buffer.from(this.text.subarray(at, at + size))
        const isInside = (byte) => (byte & 0xc0) === 0x80
        for (let i = 0; i < size && isInside(cut[i]); ++i)
            cut[i] = 0x78
        let last = size
        while (last > 0 && isInside(cut[last - 1]))
            --last
        if (isInside(this.text[at + size]) && last > 0)
            cut.fill(0x78, last - 1)
        return cut
    }

    message(size) {
        const isBinary = this.random.below(2) === 1
        return { isBinary, data: isBinary ? this.binary(size) : this.textOf(size) }
    }
}

// Mostly short, each boundary 40 times and each large size 10 times in 10000.
function sizesOf(count, random) {
    const sizes = []
    const repeat = (values, times) => {
        for (let i = 0; i < times; ++i)
            sizes.push(...values)
    }
    repeat(kBoundaries, Math.ceil(count / 250))
    repeat(kLarge, Math.ceil(count / 1000))
    while (sizes.length < count) {
        const kind = random.below(100)
        sizes.push(random.below(kind < 80 ? 300 : kind < 99 ? 4096 : 65536))
    }
    for (let i = sizes.length - 1; i > 0; --i) {
        const other = random.below(i + 1)
        const size = sizes[i]
        sizes[i] = sizes[other]
        sizes[other] = size
    }
    return sizes
}

async function connect(port) {
    const socket = new WebSocket(`ws://127.0.0.1:${port}/`, {
        perMessageDeflate: false,
        finishRequest(request) {
            request.setHeader('Upgrade', 'WebSocket')
            request.end()
        },
    })
    await once(socket, 'open')
    return socket
}

// The bytes sent before waiting for the replies: two messages of one frame each, or one message
// in pieces, or one whole. The server handles one frame each time it receives and one more
// when nothing is left to receive; further frames that came along would wait for the next
// byte from here. So there are two frames at most, or longer ones of which at most two end in
// the 1024 bytes that it receives at a time.
function nextTurn(contents, sizes, at) {
    const { random } = contents
    const kind = random.below(4)
    const first = contents.message(sizes[at])
    if (kind === 0 && at + 1 < sizes.length)
        return [first, contents.message(sizes[at + 1])]
    if (kind === 1)
        first.pieces = piecesOf(first.data.length, random)
    return [first]
}

// The lengths of all pieces but the last. The first is never empty: the server would refuse it.
function piecesOf(size, random) {
    if (size < 2)
        return []
    if (size < 4 * kServerBlockBytes)
        return [1 + random.below(size - 1)]
    const pieces = []
    const longest = Math.floor(size / 4)
    for (let i = 1 + random.below(4); i > 0; --i)
        pieces.push(kServerBlockBytes + random.below(longest - kServerBlockBytes + 1))
    return pieces
}

function send(socket, { data, isBinary, pieces = [] }) {
    let at = 0
    for (const size of pieces) {
        socket.send(data.subarray(at, at + size), { binary: isBinary, fin: false })
        at += size
    }
    socket.send(data.subarray(at), { binary: isBinary, fin: true })
}

// Sends all messages one by one and compares the replies. Returns the number of bytes.
function exchange(socket, contents, sizes) {
    return new Promise((resolve, reject) => {
        let awaited = []
        let begun = 0
        let bytes = 0
        const beginTurn = () => {
            awaited = nextTurn(contents, sizes, begun)
            begun += awaited.length
            for (const message of awaited)
                send(socket, message)
        }
        socket.on('message', (data, isBinary) => {
            const expected = awaited.shift()
            if (!expected || expected.isBinary !== isBinary || !expected.data.equals(data)) {
                reject(new Error(`message ${begun - awaited.length} came back changed`))
                return
            }
            bytes += data.length
            if (awaited.length > 0)
                return
            if (begun < sizes.length)
                beginTurn()
            else
                resolve(bytes)
        })
        socket.on('close', () => reject(new Error('the connection was closed')))
        socket.on('error', reject)
        beginTurn()
    })
}

// A server of polling mode drops the connection without a close frame in reply: 1006 says so.
async function close(socket) {
    socket.removeAllListeners()
    const closed = once(socket, 'close')
    socket.close(1000)
    const [code] = await closed
    assert.equal(code, process.env.WENDREL_WEBSOCKET_CLEAN_CLOSE ? 1000 : 1006)
}

function report(messages, bytes, connections, begin) {
    const seconds = ((performance.now() - begin) / 1000).toFixed(2)
    console.log(`${messages} messages, ${bytes} bytes each way, ${connections} connections, ${seconds} s`)
}

async function runMessages(port, count, seed) {
    const contents = new Contents(new Random(seed))
    const sizes = sizesOf(count, contents.random)
    const socket = await connect(port)
    const begin = performance.now()
    const bytes = await exchange(socket, contents, sizes)
    report(count, bytes, 1, begin)
    await close(socket)
}

async function runConnections(port, count, seed) {
    const contents = new Contents(new Random(seed))
    const sockets = await Promise.all(Array.from({ length: count }, () => connect(port)))
    console.log('open')
    await once(process.stdin, 'data')
    process.stdin.destroy()
    const begin = performance.now()
    const sizes = [0, 1, 125, 126, 3000, 131001, 40000, 500, 0, 65536]
    const bytes = await Promise.all(sockets.map((socket) => exchange(socket, contents, sizes)))
    report(count * sizes.length, bytes.reduce((sum, each) => sum + each, 0), count, begin)
    await Promise.all(sockets.map(close))
}

const [mode, port, count, seed] = process.argv.slice(2)
const run = { messages: runMessages, connections: runConnections }[mode]
const limit = setTimeout(() => {
    console.error(`not ready after ${kLimitMs / 1000} s`)
    process.exit(1)
}, kLimitMs)
await run(Number(port), Number(count), Number(seed))
clearTimeout(limit)

// Frames and messages of upgraded connections.

#include "Support.h"

#include "websocket/Unmask.h"

#include <support/WebSocketAccess.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace qv::bench
{
namespace
{

using Bytes = std::vector<uint8_t>;

constexpr size_t kBlockBytes = 1024;
constexpr std::array<uint8_t, 4> kMaskKey = {0x12, 0xa5, 0x7e, 0xc3};

Bytes clientFrame(size_t payloadBytes)
{
    Bytes frame{0x82};
    if (payloadBytes <= 125) {
        frame.push_back(static_cast<uint8_t>(0x80 | payloadBytes));
    } else {
        const bool isShort = payloadBytes <= 65535;
        frame.push_back(isShort ? 0xfe : 0xff);
        for (int shift = isShort ? 8 : 56; shift >= 0; shift -= 8)
            frame.push_back(static_cast<uint8_t>(payloadBytes >> shift));
    }
    for (const uint8_t byte : kMaskKey)
        frame.push_back(byte);
    for (size_t i = 0; i < payloadBytes; ++i)
        frame.push_back('w' ^ kMaskKey[i % kMaskKey.size()]);
    return frame;
}

// The header of a frame that is there whole.
void parseHeader(benchmark::State& state)
{
    Bytes frame = clientFrame(static_cast<size_t>(state.range(0)));
    frame.resize(frame.size() + 14);
    const size_t available = frame.size();
    bool good = true;
    for (auto _ : state) {
        uint8_t maskKey[4];
        size_t payloadLength = 0;
        size_t headerSize = 0;
        bool error = false;
        bool isBinary = false;
        bool fin = false;
        const uint8_t* data = frame.data();
        benchmark::DoNotOptimize(data);
        good = http::WebSocket::GetLength(data, available, true, maskKey, payloadLength, headerSize,
                                          error, isBinary, fin) &&
               good;
        benchmark::DoNotOptimize(maskKey);
        benchmark::DoNotOptimize(payloadLength);
        benchmark::DoNotOptimize(headerSize);
    }
    if (!good)
        state.SkipWithError("the frame was refused");
    SetItems(state);
}
BENCHMARK(parseHeader)->Name("WebSocket/GetLength")->Arg(64)->Arg(1024)->Arg(65536);

void writeHeader(benchmark::State& state)
{
    auto length = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        uint8_t header[10];
        size_t headerSize = 0;
        benchmark::DoNotOptimize(length);
        http::WebSocket::WriteHeader(header, length, true, true, true, headerSize);
        benchmark::DoNotOptimize(header);
        benchmark::DoNotOptimize(headerSize);
    }
    SetItems(state);
}
BENCHMARK(writeHeader)->Name("WebSocket/WriteHeader")->Arg(64)->Arg(1024)->Arg(65536);

// From the same blocks to the same blocks, 64 of them in turn: 64 KiB on each side.
template <typename Move> void blocks(benchmark::State& state, Move move)
{
    constexpr size_t kBlocks = 64;
    const Bytes source(kBlocks * kBlockBytes, 'w');
    Bytes target(kBlocks * kBlockBytes);
    while (state.KeepRunningBatch(kBlocks)) {
        for (size_t at = 0; at < source.size(); at += kBlockBytes) {
            move(target.data() + at, source.data() + at);
            benchmark::ClobberMemory();
        }
        benchmark::DoNotOptimize(target.data());
    }
    SetBytes(state, kBlockBytes);
}

void unmask(benchmark::State& state, size_t keyIndex)
{
    blocks(state, [keyIndex](uint8_t* to, const uint8_t* from) {
        benchmark::DoNotOptimize(impl::Unmask(to, from, kBlockBytes, kMaskKey.data(), keyIndex));
    });
}
BENCHMARK_CAPTURE(unmask, aligned, 0)->Name("WebSocket/Unmask/1024");
BENCHMARK_CAPTURE(unmask, inTheMiddle, 3)->Name("WebSocket/Unmask/1024/keyInTheMiddle");

void copy(benchmark::State& state)
{
    blocks(state, [](uint8_t* to, const uint8_t* from) {
        size_t size = kBlockBytes;
        benchmark::DoNotOptimize(size);  // a call, as for any size
        std::memcpy(to, from, size);
    });
}
BENCHMARK(copy)->Name("WebSocket/memcpy/1024");

// A connection whose client is this program.
class Pair
{
public:
    Pair()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, mEnds) != 0)
            throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    ~Pair()
    {
        close(mEnds[0]);
        close(mEnds[1]);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    int server() const { return mEnds[0]; }

    void write(const uint8_t* data, size_t size) const
    {
        if (::write(mEnds[1], data, size) != static_cast<ssize_t>(size))
            throw std::runtime_error("the socket takes no frame");
    }

private:
    int mEnds[2];
};

// Counts its input.
class Connection : public http::WebSocket
{
public:
    explicit Connection(int descriptor) : WebSocket(descriptor, nullptr) {}

    void onMessageReceived(Bytes& received, bool) override
    {
        mReceivedBytes += received.size();
        benchmark::DoNotOptimize(received.data());
    }

    uint64_t mReceivedBytes = 0;
};

// Into the queue, which is emptied as if the socket had taken all: no call of the system.
void writeMessage(benchmark::State& state)
{
    using Access = impl::WebSocketAccess;
    const auto size = static_cast<size_t>(state.range(0));
    const Bytes data(size, 'w');
    Connection connection(-1);
    bool good = true;
    for (auto _ : state) {
        connection.writeMessage(data.data(), size, true);
        good = connection.hasWritePending() && good;
        benchmark::ClobberMemory();
        while (connection.hasWritePending()) {
            const auto& queue = Access::writeQueue(connection);
            const size_t end = queue.size() == 1 ? Access::lastWriteFill(connection) : kBlockBytes;
            Access::removeWrittenBytes(connection, end - Access::writeOffset(connection));
        }
    }
    if (!good)
        state.SkipWithError("nothing was queued");
    SetItems(state);
    SetBytes(state, size);
}
BENCHMARK(writeMessage)->Name("WebSocket/writeMessage")->Arg(64)->Arg(1024)->Arg(65536);

void putIntoReadQueue(Connection& connection, const Bytes& bytes)
{
    auto& queue = impl::WebSocketAccess::readQueue(connection);
    size_t& fill = impl::WebSocketAccess::lastReadFill(connection);
    for (const uint8_t byte : bytes) {
        if (fill == kBlockBytes) {
            queue.emplace_back(kBlockBytes);
            fill = 0;
        }
        queue.back()[fill++] = byte;
    }
}

// The frames of one measurement: enough that the cost of reading the clock does not count.
size_t framesAtOnce(size_t payloadBytes)
{
    constexpr size_t kPayloadAtOnceBytes = 65536;
    return kPayloadAtOnceBytes / payloadBytes;
}

void checkReceived(benchmark::State& state, const Connection& connection)
{
    const auto size = static_cast<size_t>(state.range(0));
    if (connection.mReceivedBytes != size * state.iterations())
        state.SkipWithError("messages were lost");
    SetItems(state);
    SetBytes(state, size);
}

// From the socket to onMessageReceived: for a frame one call of recv, or as many as it has blocks
// of 1024 bytes. The client's write into the socket is not part of the time.
void receiveMessage(benchmark::State& state)
{
    const Bytes frame = clientFrame(static_cast<size_t>(state.range(0)));
    const size_t frames = framesAtOnce(static_cast<size_t>(state.range(0)));
    Bytes stream;
    for (size_t i = 0; i < frames; ++i)
        stream.insert(stream.end(), frame.begin(), frame.end());
    const Pair pair;
    Connection connection(pair.server());
    bool good = true;
    while (good && state.KeepRunningBatch(static_cast<int64_t>(frames))) {
        state.PauseTiming();
        pair.write(stream.data(), stream.size());
        state.ResumeTiming();
        for (size_t i = 0; i < frames; ++i) {
            connection.setReadEnabled(true);
            good = connection.readDataIfAvailable() && good;
        }
    }
    checkReceived(state, connection);
}
BENCHMARK(receiveMessage)->Name("WebSocket/receive")->Arg(64)->Arg(65536);

// The same without the socket: the frames are put where recv would have put them. The time of
// that is not part of it.
void takeMessage(benchmark::State& state)
{
    using Access = impl::WebSocketAccess;
    const Bytes frame = clientFrame(static_cast<size_t>(state.range(0)));
    const size_t frames = framesAtOnce(static_cast<size_t>(state.range(0)));
    Connection connection(-1);
    while (state.KeepRunningBatch(static_cast<int64_t>(frames))) {
        state.PauseTiming();
        for (size_t i = 0; i < frames; ++i)
            putIntoReadQueue(connection, frame);
        state.ResumeTiming();
        for (size_t i = 0; i < frames; ++i)
            Access::tryToReadFrame(connection);
    }
    checkReceived(state, connection);
}
BENCHMARK(takeMessage)->Name("WebSocket/complete")->Arg(64)->Arg(65536);

}  // namespace
}  // namespace qv::bench

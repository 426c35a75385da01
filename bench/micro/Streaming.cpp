// The devices of a request's bodies.

#include "Support.h"

#include "request/DispatchAccess.h"

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

namespace qv::bench
{
namespace
{

constexpr size_t kChunkBytes = 65536;
constexpr size_t kPieceBytes = 16384;
constexpr size_t kMebibyte = 1048576;

// Maximum buffer of the daemon for a chunked response.
constexpr size_t kReaderCapacityBytes = 262000;

// Whether the daemon's side has got so many bytes.
bool fetch(HttpResponseDevice& device, std::vector<char>& buffer, size_t bytes)
{
    bool ended = false;
    bool endedToo = false;
    while (bytes > 0) {
        const size_t got =
            device.sendChunksThreadSafe(buffer.data(), buffer.size(), ended, endedToo);
        if (got == 0 || got > bytes)
            return false;
        bytes -= got;
    }
    return true;
}

// Writes of one size, drained once they are 192 KiB together (a multiple of each size): below
// the limit at which the writer waits. The share of the daemon's side in the time of each byte is
// that of ResponseDevice/handOver.
void append(benchmark::State& state)
{
    constexpr size_t kDrainedBytes = 3 * kChunkBytes;
    const auto size = static_cast<size_t>(state.range(0));
    const std::vector<char> data(size, 'x');
    std::vector<char> buffer(kReaderCapacityBytes);
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    size_t written = 0;
    bool good = true;
    for (auto _ : state) {
        good = device.writeBytes(data.data(), size) == size && good;
        written += size;
        if (written == kDrainedBytes) {
            good = fetch(device, buffer, written) && good;
            written = 0;
        }
        benchmark::ClobberMemory();
    }
    if (!good)
        state.SkipWithError("bytes were refused");
    SetBytes(state, size);
}
BENCHMARK(append)->Name("ResponseDevice/append")->Arg(64)->Arg(1024)->Arg(65536);

// A whole chunk written and fetched: its bytes are copied twice.
void handOver(benchmark::State& state)
{
    const std::vector<char> data(kChunkBytes, 'x');
    std::vector<char> buffer(kChunkBytes);
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    bool good = true;
    for (auto _ : state) {
        good = device.writeBytes(data.data(), data.size()) == data.size() && good;
        good = fetch(device, buffer, kChunkBytes) && good;
        benchmark::ClobberMemory();
    }
    if (!good)
        state.SkipWithError("bytes were lost");
    SetBytes(state, kChunkBytes);
}
BENCHMARK(handOver)->Name("ResponseDevice/handOver/65536");

// As the dispatch does it; false when it is not of `size`.
bool takeWhole(HttpResponseDevice& device, size_t size)
{
    std::vector<char> body;
    {
        qvMutexLocker locker(&impl::DispatchAccess::mutex(device));
        device.getData(body);
    }
    benchmark::DoNotOptimize(body.data());
    benchmark::ClobberMemory();
    return body.size() == size;
}

// The response with a small completed body, including the construction of the request, see
// Request/makeAndDestroy.
void smallBody(benchmark::State& state)
{
    const auto size = static_cast<size_t>(state.range(0));
    const std::vector<char> data(size, 'x');
    bool good = true;
    for (auto _ : state) {
        WorkerRequest request;
        HttpResponseDevice& device = request.getResponseDevice();
        device.writeBytes(data.data(), size);
        device.endSending();
        device.setResponseReady();
        good = takeWhole(device, size) && good;
    }
    if (!good)
        state.SkipWithError("bytes were lost");
    SetItems(state);
    SetBytes(state, size);
}
BENCHMARK(smallBody)->Name("ResponseDevice/smallBody")->Arg(13)->Arg(1024);

// The same without the request's life: a small body written, handed over and taken whole.
void getData(benchmark::State& state)
{
    const auto size = static_cast<size_t>(state.range(0));
    const std::vector<char> data(size, 'x');
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    bool good = true;
    for (auto _ : state) {
        device.writeBytes(data.data(), size);
        device.flush();
        good = takeWhole(device, size) && good;
    }
    if (!good)
        state.SkipWithError("bytes were lost");
    SetItems(state);
    SetBytes(state, size);
}
BENCHMARK(getData)->Name("ResponseDevice/getData")->Arg(13)->Arg(1024);

void feed(HttpReceiveDevice& device, const std::vector<char>& data)
{
    qvMutexLocker locker(&impl::DispatchAccess::mutex(device));
    device.writeBytes(data.data(), data.size());
}

// While the feed goes on the newest chunk is kept back: two chunks ahead, nobody waits.
void receive(benchmark::State& state)
{
    const auto size = static_cast<size_t>(state.range(0));
    const std::vector<char> data(kPieceBytes, 'x');
    std::vector<char> buffer(size);
    WorkerRequest request;
    HttpReceiveDevice& device = request.getReceiveDevice();
    for (size_t ahead = 0; ahead < 2 * kChunkBytes; ahead += kPieceBytes)
        feed(device, data);
    bool good = true;
    for (auto _ : state) {
        for (size_t fed = 0; fed < kMebibyte; fed += kPieceBytes) {
            feed(device, data);
            for (size_t read = 0; read < kPieceBytes; read += size)
                good = device.readBytes(buffer.data(), size) == size && good;
        }
        benchmark::ClobberMemory();
    }
    if (!good)
        state.SkipWithError("bytes were lost");
    SetBytes(state, kMebibyte);
}
BENCHMARK(receive)->Name("ReceiveDevice/fed16KiB/read")->Arg(1024)->Arg(16384);

// A mebibyte fed, then read in blocks of 64 KiB, as an upload that came before its worker. A new
// request each time, see Request/makeAndDestroy.
void upload(benchmark::State& state)
{
    const std::vector<char> data(kPieceBytes, 'x');
    std::vector<char> buffer(kChunkBytes);
    bool good = true;
    for (auto _ : state) {
        WorkerRequest request;
        HttpReceiveDevice& device = request.getReceiveDevice();
        for (size_t fed = 0; fed < kMebibyte; fed += kPieceBytes)
            feed(device, data);
        {
            qvMutexLocker locker(&impl::DispatchAccess::mutex(device));
            device.endFeed();
        }
        while (!device.atEnd())
            device.readBytes(buffer.data(), buffer.size());
        good = device.getReceivedBytes() == kMebibyte && good;
        benchmark::ClobberMemory();
    }
    if (!good)
        state.SkipWithError("bytes were lost");
    SetBytes(state, kMebibyte);
}
BENCHMARK(upload)->Name("ReceiveDevice/upload1MiB");

}  // namespace
}  // namespace qv::bench

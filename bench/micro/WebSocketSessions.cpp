// Parts of the kit's WebSocket sessions: masks, UTF-8, frames, and compression beside that of
// Boost.Beast with the same parameters.

#include "websocket/Deflate.h"
#include "websocket/Frame.h"
#include "websocket/MessageParser.h"
#include "websocket/Utf8Check.h"

#include <benchmark/benchmark.h>

#include <boost/beast/zlib.hpp>

#include <cstring>
#include <string>
#include <vector>

namespace
{

using namespace qv::kit::websocket;

constexpr int kWindowBits = 15;
constexpr int kMemoryLevel = 8;
constexpr size_t kTextBytes = 10240;

std::string makeJson()
{
    std::string text = "[";
    for (unsigned i = 0; text.size() < kTextBytes; ++i) {
        text += "{\"id\":" + std::to_string(i * 7919) + ",\"name\":\"user" +
                std::to_string(i % 97) + "\",\"active\":" + (i % 3 == 0 ? "true" : "false") +
                ",\"score\":" + std::to_string(i * 2654435761U % 10007) + "},";
    }
    text.resize(kTextBytes - 1);
    return text + "]";
}

void unmaskMessage(benchmark::State& state)
{
    std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)) + 1, 'x');
    for (auto _ : state) {
        unmask(bytes.data() + 1, bytes.data() + 1, bytes.size() - 1, 0x12345678);
        benchmark::DoNotOptimize(bytes.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void checkText(benchmark::State& state)
{
    const std::string text(static_cast<size_t>(state.range(0)), 'a');
    for (auto _ : state)
        benchmark::DoNotOptimize(isUtf8(text));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void checkUmlauts(benchmark::State& state)
{
    std::string text;
    while (text.size() < static_cast<size_t>(state.range(0)))
        text += "\xc3\xa4\xe2\x82\xac";
    for (auto _ : state)
        benchmark::DoNotOptimize(isUtf8(text));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void parseSmallFrames(benchmark::State& state)
{
    std::string frames;
    constexpr int64_t kFrames = 100;
    for (int64_t i = 0; i < kFrames; ++i)
        frames += std::string("\x82\xc0\x01\x02\x03\x04", 6) + std::string(64, 'x');
    std::vector<uint8_t> bytes(frames.begin(), frames.end());
    MessageParser parser(1 << 20, true, nullptr);
    for (auto _ : state) {
        parser.feed(bytes.data(), bytes.size());
        while (parser.next() != MessageParser::Event::NeedsMore)
            benchmark::DoNotOptimize(parser.payload());
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}

void compressJson(benchmark::State& state)
{
    const std::string text = makeJson();
    Deflater deflater(kWindowBits, static_cast<int>(state.range(0)), kMemoryLevel);
    Buffer out;
    for (auto _ : state) {
        out.clear();
        deflater.reset();
        deflater.compress(BinaryView(std::string_view(text)), out);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}

void compressJsonWithBeast(benchmark::State& state)
{
    namespace zlib = boost::beast::zlib;
    const std::string text = makeJson();
    zlib::deflate_stream stream;
    stream.reset(static_cast<int>(state.range(0)), kWindowBits, kMemoryLevel,
                 zlib::Strategy::normal);
    std::vector<char> out(2 * kTextBytes);
    size_t size = 0;
    for (auto _ : state) {
        stream.clear();
        zlib::z_params parameters{};
        parameters.next_in = text.data();
        parameters.avail_in = text.size();
        parameters.next_out = out.data();
        parameters.avail_out = out.size();
        boost::beast::error_code error;
        stream.write(parameters, zlib::Flush::sync, error);
        size = out.size() - parameters.avail_out;
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(size);
}

void decompressJson(benchmark::State& state)
{
    const std::string text = makeJson();
    Deflater deflater(kWindowBits, 6, kMemoryLevel);
    Buffer compressed;
    deflater.compress(BinaryView(std::string_view(text)), compressed);
    Inflater inflater;
    Buffer out;
    for (auto _ : state) {
        out.clear();
        inflater.reset();
        inflater.decompress({compressed.data(), compressed.size()}, out, 1 << 20);
        benchmark::DoNotOptimize(out.data());
    }
}

BENCHMARK(unmaskMessage)->Arg(64)->Arg(1 << 20);
BENCHMARK(checkText)->Arg(64)->Arg(1 << 20);
BENCHMARK(checkUmlauts)->Arg(1 << 20);
BENCHMARK(parseSmallFrames);
BENCHMARK(compressJson)->Arg(6)->Arg(8);
BENCHMARK(compressJsonWithBeast)->Arg(6)->Arg(8);
BENCHMARK(decompressJson);

}  // namespace

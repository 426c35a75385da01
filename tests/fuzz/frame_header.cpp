// Headers of frames: reading against an independent decoder, and writing against a strict one.

#include "support/Check.h"
#include "support/ReferenceFrames.h"

#include <Wendrel/WebSocket.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <memory>

namespace
{

using fuzz::ClientHeader;
using qv::http::WebSocket;

constexpr size_t kReadableBytes = 14;
constexpr size_t kWritableBytes = 10;

struct Read
{
    bool result = false;
    bool error = true;
    bool isBinary = false;
    bool fin = false;
    size_t length = 0;
    size_t headerSize = 0;
    uint8_t key[4] = {};
};

// The header in memory of its own, so that a byte too far is seen.
Read GetLength(const uint8_t* bytes, uint64_t available, bool expectFirst, bool wasBinary)
{
    const auto exact = std::make_unique<uint8_t[]>(kReadableBytes);
    std::copy_n(bytes, kReadableBytes, exact.get());
    Read read;
    read.isBinary = wasBinary;
    read.result = WebSocket::GetLength(exact.get(), available, expectFirst, read.key, read.length,
                                       read.headerSize, read.error, read.isBinary, read.fin);
    return read;
}

void CheckRead(const Read& read, const ClientHeader& expected, bool wasBinary)
{
    using Verdict = ClientHeader::Verdict;
    FUZZ_CHECK(read.result == (expected.verdict != Verdict::NeedsMore));
    FUZZ_CHECK(read.error == (expected.verdict == Verdict::Refused));
    // A length near 2^64 counts as whole, required. Its key may lie behind the buffered bytes.
    if (expected.verdict != Verdict::Whole && expected.verdict != Verdict::Overflow)
        return;
    FUZZ_CHECK(read.fin == expected.fin);
    FUZZ_CHECK(read.length == expected.length);
    FUZZ_CHECK(read.headerSize == expected.size);
    FUZZ_CHECK(std::equal(expected.key.begin(), expected.key.end(), read.key));
    FUZZ_CHECK(read.isBinary == (expected.opcode == 0 ? wasBinary : expected.opcode == 2));
}

void TryReading(FuzzedDataProvider& input)
{
    const bool expectFirst = input.ConsumeBool();
    const bool wasBinary = input.ConsumeBool();
    const bool fewBuffered = input.ConsumeBool();
    const auto available = fewBuffered ? input.ConsumeIntegralInRange<uint64_t>(0, 200)
                                       : input.ConsumeIntegral<uint64_t>();
    std::vector<uint8_t> bytes = input.ConsumeBytes<uint8_t>(kReadableBytes);
    bytes.resize(kReadableBytes);
    const auto byteAt = [&bytes](unsigned i) -> unsigned { return bytes[i]; };
    const ClientHeader expected = fuzz::DecodeClientHeader(byteAt, available, !expectFirst);
    CheckRead(GetLength(bytes.data(), available, expectFirst, wasBinary), expected, wasBinary);

    // Bytes that have not arrived do not change the result.
    if (expected.verdict == ClientHeader::Verdict::Overflow)
        return;
    for (size_t i = std::min<uint64_t>(available, kReadableBytes); i < kReadableBytes; ++i)
        bytes[i] = static_cast<uint8_t>(~bytes[i]);
    CheckRead(GetLength(bytes.data(), available, expectFirst, wasBinary), expected, wasBinary);
}

void TryWriting(FuzzedDataProvider& input)
{
    const bool isBinary = input.ConsumeBool();
    const bool isFirst = input.ConsumeBool();
    const bool fin = input.ConsumeBool();
    const unsigned shift = input.ConsumeIntegralInRange<unsigned>(0, 63);
    const uint64_t length = input.ConsumeIntegral<uint64_t>() >> shift;

    const auto exact = std::make_unique<uint8_t[]>(kWritableBytes);
    size_t headerSize = 0;
    WebSocket::WriteHeader(exact.get(), length, isBinary, isFirst, fin, headerSize);
    FUZZ_CHECK(headerSize <= kWritableBytes);
    const auto header = fuzz::DecodeServerHeader(exact.get(), headerSize);
    FUZZ_CHECK(header.has_value());
    FUZZ_CHECK(header->size == headerSize);
    FUZZ_CHECK(header->length == length);
    FUZZ_CHECK(header->fin == fin);
    FUZZ_CHECK(header->opcode == (isFirst ? (isBinary ? 2u : 1u) : 0u));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool())
        TryReading(input);
    else
        TryWriting(input);
    return 0;
}

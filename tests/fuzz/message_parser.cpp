// Frames of a WebSocket client in any split, compressed ones too, against a slow decoder that sees
// all bytes at once; and compressed messages, against zlib's promise to restore them.

#include "support/Check.h"

#include "websocket/Deflate.h"
#include "websocket/MessageParser.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace
{

using namespace qv::kit::websocket;
using Events = std::vector<std::string>;

constexpr size_t kMaxWireBytes = 200000;
constexpr size_t kWindowBytes = 32768;
constexpr int kMaxFinalBlocks = 16;

// By the definition of UTF-8: decodes, and looks for the shortest form.
bool isWhole(const std::string& text)
{
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        size_t size = 1;
        if (lead >= 0x80)
            size = lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
        if (size == 0 || i + size > text.size())
            return false;
        uint32_t value = size == 1 ? lead : lead & (0xffU >> (size + 1));
        for (size_t k = 1; k < size; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if (next >> 6 != 2)
                return false;
            value = value << 6 | (next & 0x3fU);
        }
        const uint32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
        if (value < minimum[size] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff))
            return false;
        i += size;
    }
    return true;
}

// Some bytes can follow that make it whole.
bool canBecomeWhole(const std::string& text)
{
    if (isWhole(text))
        return true;
    for (int first = 0x80; first <= 0xbf; ++first) {
        std::string longer = text + static_cast<char>(first);
        for (int more = 0; more < 3; ++more, longer += '\x80') {
            if (isWhole(longer))
                return true;
        }
    }
    return false;
}

Bytef* bytesOf(std::string& text)
{
    return reinterpret_cast<Bytef*>(text.data());
}

// All that the bytes hold, at most one byte more than the limit. False when they are malformed.
bool inflateAll(std::string bytes, bool isEnd, size_t limit, std::string& text)
{
    z_stream stream{};
    FUZZ_CHECK(inflateInit2(&stream, -15) == Z_OK);
    text.resize(limit + 1);
    stream.next_out = bytesOf(text);
    stream.avail_out = static_cast<uInt>(text.size());
    stream.next_in = bytesOf(bytes);
    stream.avail_in = static_cast<uInt>(bytes.size());
    bool isValid = true;
    std::string tail("\0\0\xff\xff", 4);
    bool hasTail = !isEnd || bytes.empty();
    bool isWhole = true;
    for (int finalBlocks = 0;;) {
        if (stream.avail_in == 0 && !hasTail) {
            hasTail = true;
            stream.next_in = bytesOf(tail);
            stream.avail_in = 4;
        }
        if (stream.avail_in == 0)
            break;
        const int result = inflate(&stream, Z_SYNC_FLUSH);
        if (stream.avail_out == 0)
            break;
        if (result == Z_STREAM_END) {
            const size_t size = text.size() - stream.avail_out;
            const size_t window = std::min(size, kWindowBytes);
            isValid = ++finalBlocks <= kMaxFinalBlocks && inflateReset(&stream) == Z_OK &&
                      inflateSetDictionary(&stream, bytesOf(text) + size - window,
                                           static_cast<uInt>(window)) == Z_OK;
            isWhole = stream.avail_in == 0;
            if (isWhole)
                hasTail = true;
        } else {
            isValid = result == Z_OK || result == Z_BUF_ERROR;
            isWhole = (stream.data_type & 128) != 0;
        }
        if (!isValid)
            break;
    }
    text.resize(text.size() - stream.avail_out);
    inflateEnd(&stream);
    return isValid && (!isEnd || isWhole);
}

class Reference
{
public:
    Reference(const std::string& bytes, size_t limit, bool allowsCompression)
        : mBytes(bytes), mLimit(limit), mAllowsCompression(allowsCompression)
    {
        while (readFrame()) {
        }
    }

    Events events;

private:
    unsigned at(size_t i) const { return static_cast<unsigned char>(mBytes[mAt + i]); }

    bool fail(int code)
    {
        events.push_back("failed " + std::to_string(code));
        return false;
    }

    bool readFrame()
    {
        const size_t left = mBytes.size() - mAt;
        if (left < 2)
            return false;
        const bool fin = at(0) >= 128;
        const bool rsv1 = (at(0) / 64) % 2 == 1;
        const unsigned opcode = at(0) % 16;
        const bool isControl = opcode >= 8;
        if ((at(0) / 16) % 4 != 0 || at(1) < 128 || (opcode > 2 && opcode < 8) || opcode > 10)
            return fail(1002);
        if (rsv1 && (!mAllowsCompression || isControl || opcode == 0))
            return fail(1002);
        uint64_t length = at(1) - 128;
        if (isControl && (!fin || length > 125))
            return fail(1002);
        const size_t lengthBytes = length == 127 ? 8 : length == 126 ? 2 : 0;
        if (left < 2 + lengthBytes + 4)
            return false;
        if (lengthBytes > 0) {
            length = 0;
            for (size_t i = 0; i < lengthBytes; ++i)
                length = length * 256 + at(2 + i);
            if (length < (lengthBytes == 2 ? 126U : 65536U) || length >= uint64_t{1} << 63)
                return fail(1002);
        }
        const size_t head = 2 + lengthBytes + 4;
        std::string payload;
        for (size_t i = 0; i < left - head && i < length; ++i)
            payload += static_cast<char>(at(head + i) ^ at(head - 4 + i % 4));
        const bool isComplete = payload.size() == length;
        if (isControl) {
            if (!isComplete)
                return false;
            const char* const names[] = {"close ", "ping ", "pong "};
            events.push_back(names[opcode - 8] + payload);
            mAt += head + length;
            return true;
        }
        if ((opcode == 0) != mInMessage)
            return fail(1002);
        if (opcode != 0) {
            mMessage.clear();
            mOpcode = opcode;
            mIsCompressed = rsv1;
            mInMessage = true;
        }
        const size_t limit = mIsCompressed ? mLimit + mLimit / 1000 + 64 : mLimit;
        if (length > limit || mMessage.size() + length > limit)
            return fail(1009);
        mMessage += payload;
        std::string text = mMessage;
        const bool isInflated =
            !mIsCompressed || inflateAll(mMessage, isComplete && fin, mLimit, text);
        if (mOpcode == 1 && !canBecomeWhole(text))
            return fail(1007);
        if (text.size() > mLimit)
            return fail(1009);
        if (!isInflated)
            return fail(1007);
        if (!isComplete)
            return false;
        mAt += head + length;
        if (!fin)
            return true;
        mInMessage = false;
        if (mOpcode == 1 && !isWhole(text))
            return fail(1007);
        events.push_back((mIsCompressed ? "compressed " : "") +
                         std::string(mOpcode == 1 ? "text " : "binary ") + text);
        return true;
    }

    const std::string& mBytes;
    const size_t mLimit;
    const bool mAllowsCompression;
    size_t mAt = 0;
    std::string mMessage;
    unsigned mOpcode = 0;
    bool mIsCompressed = false;
    bool mInMessage = false;
};

// False after a failure.
bool takeEvents(MessageParser& parser, Events& events)
{
    using Event = MessageParser::Event;
    for (Event event = parser.next(); event != Event::NeedsMore; event = parser.next()) {
        if (event == Event::Paused) {
            if (!parser.endTurn()) {
                events.push_back("failed 1013");
                return false;
            }
            parser.beginTurn();
            continue;
        }
        if (event == Event::Failed) {
            events.push_back("failed " + std::to_string(parser.failureCode()));
            return false;
        }
        const char* const names[] = {"", "text ", "binary ", "ping ", "pong ", "close "};
        const bool isMessage = event == Event::Text || event == Event::Binary;
        events.push_back(
            (isMessage && parser.isCompressed() ? "compressed " : "") +
            std::string(names[static_cast<size_t>(event)]) +
            std::string(reinterpret_cast<const char*>(parser.payload()), parser.payloadBytes()));
    }
    parser.endTurn();  // gives the memory of the input back
    return true;
}

std::string compress(FuzzedDataProvider& input, const std::string& message)
{
    z_stream stream{};
    FUZZ_CHECK(deflateInit2(&stream, input.ConsumeIntegralInRange<int>(1, 9), Z_DEFLATED, -15, 8,
                            Z_DEFAULT_STRATEGY) == Z_OK);
    std::string in = message;
    std::string out(deflateBound(&stream, message.size()) + 20, '\0');
    stream.next_in = bytesOf(in);
    stream.avail_in = static_cast<uInt>(in.size());
    stream.next_out = bytesOf(out);
    stream.avail_out = static_cast<uInt>(out.size());
    const bool isFinal = input.ConsumeBool();
    deflate(&stream, isFinal ? Z_FINISH : Z_SYNC_FLUSH);
    out.resize(out.size() - stream.avail_out - (isFinal ? 0 : 4));
    deflateEnd(&stream);
    return out;
}

std::string makeWire(FuzzedDataProvider& input)
{
    std::string wire;
    while (input.remaining_bytes() > 0 && wire.size() < kMaxWireBytes) {
        if (input.ConsumeIntegralInRange<int>(0, 7) == 0) {
            wire += input.ConsumeRandomLengthString(40);
            continue;
        }
        const uint8_t opcodes[] = {0x81, 0x82, 0x01, 0x02, 0x00, 0x80, 0x89, 0x8a, 0xc1, 0x41};
        wire += static_cast<char>(opcodes[input.ConsumeIntegralInRange<size_t>(0, 9)]);
        std::string payload = input.ConsumeRandomLengthString(300);
        if (input.ConsumeIntegralInRange<int>(0, 15) == 0)
            payload.resize(input.ConsumeIntegralInRange<size_t>(0, 70000), 'x');
        if (static_cast<uint8_t>(wire.back()) % 128 >= 0x40 && input.ConsumeBool())
            payload = compress(input, payload);
        const size_t size = payload.size();
        const int lengthBytes = size > 65535 ? 8 : size > 125 ? 2 : 0;
        wire += static_cast<char>(0x80 | (lengthBytes == 8   ? 127
                                          : lengthBytes == 2 ? 126
                                                             : static_cast<int>(size)));
        for (int i = lengthBytes; i > 0; --i)
            wire += static_cast<char>(size >> (8 * (i - 1)));
        const uint32_t mask = input.ConsumeIntegral<uint32_t>();
        for (int i = 0; i < 4; ++i)
            wire += static_cast<char>(mask >> (8 * i));
        for (size_t i = 0; i < size; ++i)
            wire += static_cast<char>(payload[i] ^ static_cast<char>(mask >> (8 * (i % 4))));
    }
    return wire;
}

void tryParsing(FuzzedDataProvider& input)
{
    const size_t limit = input.ConsumeIntegralInRange<size_t>(0, 100000);
    const bool allowsCompression = input.ConsumeBool();
    uint32_t noise = input.ConsumeIntegral<uint32_t>();
    const unsigned shift = input.ConsumeIntegralInRange<unsigned>(15, 31);
    const std::string wire = makeWire(input);

    Budget budget(1 << 30);
    Events events;
    {
        InflaterPool inflaters;
        MessageParser parser(limit, allowsCompression, &budget, &inflaters);
        for (size_t at = 0; at < wire.size();) {
            noise = noise * 1664525 + 1013904223;
            size_t size = std::min<size_t>(wire.size() - at, (noise >> shift) + 1);
            size_t space = 0;
            uint8_t* const direct = (noise & 256) != 0 ? parser.directSpace(space) : nullptr;
            std::unique_ptr<uint8_t[]> exact;
            if (direct) {
                size = std::min(size, space);
                std::memcpy(direct, wire.data() + at, size);
                parser.receivedDirectly(size);
            } else {
                exact = std::make_unique<uint8_t[]>(size);
                std::memcpy(exact.get(), wire.data() + at, size);
                parser.feed(exact.get(), size);
            }
            at += size;
            if (!takeEvents(parser, events))
                break;
        }
        FUZZ_CHECK(budget.usedBytes() <= limit + limit / 1000 + 70000);
    }
    FUZZ_CHECK(budget.usedBytes() == 0);
    FUZZ_CHECK(events == Reference(wire, limit, allowsCompression).events);
}

void tryCompression(FuzzedDataProvider& input)
{
    const int bits = input.ConsumeIntegralInRange<int>(8, 15);
    const int level = input.ConsumeIntegralInRange<int>(1, 9);
    const bool keepsContext = input.ConsumeBool();
    Deflater deflater(bits, level, input.ConsumeIntegralInRange<int>(1, 9));
    Inflater inflater;
    while (input.remaining_bytes() > 0) {
        std::string message = input.ConsumeRandomLengthString(500);
        for (int i = input.ConsumeIntegralInRange<int>(0, 6); i > 0; --i)
            message += message;
        Buffer compressed;
        if (!deflater.compress(BinaryView(std::string_view(message)), compressed)) {
            deflater.reset();
            continue;
        }
        Buffer restored;
        const BinaryView view(compressed.data(), compressed.size());
        FUZZ_CHECK(inflater.decompress(view, restored, message.size()) == Inflater::Result::Ok);
        FUZZ_CHECK(BinaryView(restored.data(), restored.size()).asText() == message);
        if (!keepsContext) {
            deflater.reset();
            inflater.reset();
        }
    }
}

void tryDecompression(FuzzedDataProvider& input)
{
    const size_t limit = input.ConsumeIntegralInRange<size_t>(0, 100000);
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    Inflater inflater;
    Buffer restored;
    const auto result = inflater.decompress(BinaryView(std::string_view(bytes)), restored, limit);
    FUZZ_CHECK(result != Inflater::Result::NoMemory);
    FUZZ_CHECK(restored.size() <= limit + 1);
    FUZZ_CHECK(result == Inflater::Result::TooLong || restored.size() <= limit);
    inflater.reset();
    const std::string hello("\xf2\x48\xcd\xc9\xc9\x07\x00", 7);
    restored.clear();
    FUZZ_CHECK(inflater.decompress(BinaryView(std::string_view(hello)), restored, 5) ==
               Inflater::Result::Ok);
}

void tryOffers(FuzzedDataProvider& input)
{
    std::list<std::string> offers;
    while (input.remaining_bytes() > 0)
        offers.push_back(input.ConsumeRandomLengthString(200));
    std::string response;
    const auto agreed = negotiateDeflate(offers, {}, response);
    FUZZ_CHECK(!agreed || agreed->isEnabled == !response.empty());
    if (!agreed || !agreed->isEnabled)
        return;
    FUZZ_CHECK(agreed->serverMaxWindowBits >= 8 && agreed->serverMaxWindowBits <= 15);
    FUZZ_CHECK(agreed->clientMaxWindowBits >= 8 && agreed->clientMaxWindowBits <= 15);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    switch (input.ConsumeIntegralInRange<int>(0, 7)) {
    case 0:
        tryCompression(input);
        break;
    case 1:
        tryDecompression(input);
        break;
    case 2:
        tryOffers(input);
        break;
    default:
        tryParsing(input);
        break;
    }
    return 0;
}

// Frames by RFC 6455, taken apart and put together without the library's help. Where the library
// is required to deviate from the RFC, so does this, and says it.
#ifndef WENDREL_TESTS_FUZZ_REFERENCEFRAMES_H
#define WENDREL_TESTS_FUZZ_REFERENCEFRAMES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace fuzz
{

using Bytes = std::vector<uint8_t>;

struct ClientHeader
{
    enum class Verdict {
        NeedsMore,
        Refused,
        Whole,
        Overflow  // whole by a sum that has wrapped around: nobody can hold such a payload
    };

    Verdict verdict = Verdict::NeedsMore;
    bool fin = false;
    unsigned opcode = 0;  // of its two lower bits only, required
    uint64_t length = 0;
    size_t size = 0;
    std::array<uint8_t, 4> key{};
};

// `byteAt` gives the byte at a position below 14; `buffered` is the number of bytes of the frame
// and behind it. The mask bit is not checked, required: every frame has a key.
template <typename ByteAt>
ClientHeader DecodeClientHeader(ByteAt byteAt, uint64_t buffered, bool messageBegun)
{
    ClientHeader header;
    if (buffered < 6)
        return header;
    const unsigned first = byteAt(0);
    header.fin = first >= 128;
    header.opcode = first % 4;
    const bool continues = header.opcode == 0;
    if (header.opcode == 3 || (continues && !messageBegun)) {
        header.verdict = ClientHeader::Verdict::Refused;
        return header;
    }
    const unsigned code = byteAt(1) % 128;
    const unsigned lengthBytes = code == 127 ? 8 : code == 126 ? 2 : 0;
    if (buffered < 2 + lengthBytes)
        return header;
    header.length = lengthBytes == 0 ? code : 0;
    for (unsigned i = 0; i < lengthBytes; ++i)
        header.length = header.length * 256 + byteAt(2 + i);
    header.size = 2 + lengthBytes + 4;

    uint64_t frame = 0;
    const bool wraps = __builtin_add_overflow(header.length, uint64_t{header.size}, &frame);
    if (buffered < frame)
        return header;
    for (unsigned i = 0; i < 4; ++i)
        header.key[i] = byteAt(static_cast<unsigned>(header.size) - 4 + i);
    header.verdict = wraps ? ClientHeader::Verdict::Overflow : ClientHeader::Verdict::Whole;
    return header;
}

struct ServerHeader
{
    bool fin = false;
    unsigned opcode = 0;
    uint64_t length = 0;
    size_t size = 0;
};

// As a strict client reads it: nothing for reserved bits or opcodes, a mask, or a length that is
// not in its shortest form.
inline std::optional<ServerHeader> DecodeServerHeader(const uint8_t* data, size_t size)
{
    if (size < 2)
        return std::nullopt;
    ServerHeader header;
    header.fin = data[0] >> 7;
    header.opcode = data[0] & 0x0f;
    const bool reserved = (data[0] >> 4 & 7) != 0;
    const bool masked = data[1] >> 7;
    if (reserved || masked || header.opcode > 2)
        return std::nullopt;
    const unsigned code = data[1];
    const unsigned lengthBytes = code == 127 ? 8 : code == 126 ? 2 : 0;
    header.size = 2 + lengthBytes;
    if (size < header.size)
        return std::nullopt;
    header.length = lengthBytes == 0 ? code : 0;
    for (unsigned i = 0; i < lengthBytes; ++i)
        header.length = header.length << 8 | data[2 + i];
    if ((lengthBytes == 2 && header.length < 126) || (lengthBytes == 8 && header.length < 65536))
        return std::nullopt;
    return header;
}

// The messages of a client's bytes, decoded frame by frame from the complete input.
class ReferenceReader
{
public:
    struct Message
    {
        Bytes payload;
        bool isBinary = false;
    };

    explicit ReferenceReader(const Bytes& wire) : mWire(wire) {}

    // The next frame when the first `received` bytes of the wire have come; applied when whole.
    ClientHeader::Verdict step(size_t received)
    {
        const auto byteAt = [&](unsigned i) -> unsigned {
            return mAt + i < received ? mWire[mAt + i] : 0;
        };
        // Required: a message without a byte yet has not begun.
        const ClientHeader header =
            DecodeClientHeader(byteAt, received - mAt, !mPartial.payload.empty());
        if (header.verdict == ClientHeader::Verdict::Whole)
            apply(header);
        return header.verdict;
    }

    size_t at() const { return mAt; }
    const Message& partial() const { return mPartial; }
    const std::vector<Message>& messages() const { return mMessages; }

private:
    void apply(const ClientHeader& header)
    {
        // Required: the first fragment tells the type; later ones may carry any data opcode.
        if (mPartial.payload.empty())
            mPartial.isBinary = header.opcode == 2;
        const size_t payload = mAt + header.size;
        for (size_t i = 0; i < header.length; ++i)
            mPartial.payload.push_back(mWire[payload + i] ^ header.key[i % 4]);
        mAt = payload + header.length;
        if (!header.fin)
            return;
        mMessages.push_back(std::move(mPartial));
        mPartial = {};
    }

    const Bytes& mWire;
    size_t mAt = 0;
    Message mPartial;
    std::vector<Message> mMessages;
};

}  // namespace fuzz

#endif

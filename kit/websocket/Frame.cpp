// Frames of RFC 6455: headers, masks and close payloads, as pure functions.

#include "websocket/Frame.h"

#include "src/Text.h"
#include "websocket/Utf8Check.h"

#include <bit>
#include <cstring>

namespace qv::kit::websocket
{
namespace
{

constexpr uint8_t kFinBit = 0x80;
constexpr uint8_t kRsv1Bit = 0x40;
constexpr uint8_t kReservedBits = 0x30;
constexpr uint8_t kOpcodeBits = 0x0f;
constexpr uint8_t kControlBit = 0x08;
constexpr uint8_t kMaskBit = 0x80;
constexpr uint8_t kLengthBits = 0x7f;
constexpr uint8_t kTwoByteLength = 126;
constexpr uint8_t kEightByteLength = 127;
constexpr uint64_t kMaxTwoByteLength = 65535;
constexpr int kBitsOfByte = 8;
constexpr size_t kCodeBytes = 2;

uint64_t readBigEndian(const uint8_t* bytes, size_t count)
{
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value = value << kBitsOfByte | bytes[i];
    return value;
}

size_t lengthBytes(uint8_t length)
{
    return length == kEightByteLength ? 8 : length == kTwoByteLength ? 2 : 0;
}

// Sixteen bytes; the compiler uses the vector registers of the processor.
using Lane = uint32_t __attribute__((vector_size(16)));
constexpr size_t kLanes = 4;

// All lanes are loaded before one is stored: `out` may be `in`.
void unmaskBlock(uint8_t* out, const uint8_t* in, Lane mask)
{
    Lane lanes[kLanes];
    std::memcpy(lanes, in, sizeof lanes);
    for (Lane& lane : lanes)
        lane ^= mask;
    std::memcpy(out, lanes, sizeof lanes);
}

}  // namespace

const char* checkFrameStart(const uint8_t* bytes, bool allowsRsv1)
{
    const uint8_t opcode = bytes[0] & kOpcodeBits;
    if ((bytes[0] & kReservedBits) != 0)
        return "reserved bit is set";
    if ((opcode & 0x07) > 2)
        return "unknown opcode";
    if ((bytes[0] & kRsv1Bit) != 0 && (!allowsRsv1 || opcode == 0 || (opcode & kControlBit) != 0))
        return "reserved bit is set";
    if ((bytes[1] & kMaskBit) == 0)
        return "frame is not masked";
    if ((opcode & kControlBit) == 0)
        return nullptr;
    if ((bytes[0] & kFinBit) == 0)
        return "control frame is fragmented";
    if ((bytes[1] & kLengthBits) > kMaxControlBytes)
        return "control frame is too long";
    return nullptr;
}

size_t headerBytes(const uint8_t* bytes)
{
    return 2 + lengthBytes(bytes[1] & kLengthBits) + kMaskBytes;
}

const char* readFrameHeader(const uint8_t* bytes, FrameHeader& header)
{
    header.fin = (bytes[0] & kFinBit) != 0;
    header.rsv1 = (bytes[0] & kRsv1Bit) != 0;
    header.opcode = static_cast<Opcode>(bytes[0] & kOpcodeBits);
    const uint8_t length = bytes[1] & kLengthBits;
    const size_t extended = lengthBytes(length);
    header.length = extended == 0 ? length : readBigEndian(bytes + 2, extended);
    std::memcpy(&header.mask, bytes + 2 + extended, sizeof header.mask);
    if (header.length >> 63 != 0)
        return "length is above 2^63";
    const bool isMinimal = extended == 0 || (extended == 2 && header.length >= kTwoByteLength) ||
                           header.length > kMaxTwoByteLength;
    return isMinimal ? nullptr : "length is not in its shortest form";
}

size_t writeFrameHeader(uint8_t* out, Opcode opcode, bool rsv1, uint64_t length)
{
    out[0] = static_cast<uint8_t>(kFinBit | (rsv1 ? kRsv1Bit : 0) | static_cast<uint8_t>(opcode));
    const size_t extended = length > kMaxTwoByteLength ? 8 : length >= kTwoByteLength ? 2 : 0;
    out[1] = extended == 8   ? kEightByteLength
             : extended == 2 ? kTwoByteLength
                             : static_cast<uint8_t>(length);
    for (size_t i = extended; i > 0; --i, length >>= kBitsOfByte)
        out[1 + i] = static_cast<uint8_t>(length);
    return 2 + extended;
}

uint32_t unmask(uint8_t* out, const uint8_t* in, size_t size, uint32_t mask)
{
    const Lane lane{mask, mask, mask, mask};
    size_t done = 0;
    for (; size - done >= kLanes * sizeof lane; done += kLanes * sizeof lane)
        unmaskBlock(out + done, in + done, lane);
    for (; size - done >= sizeof mask; done += sizeof mask) {
        uint32_t word;
        std::memcpy(&word, in + done, sizeof word);
        word ^= mask;
        std::memcpy(out + done, &word, sizeof word);
    }
    uint8_t bytes[kMaskBytes];
    std::memcpy(bytes, &mask, sizeof bytes);
    const size_t rest = size - done;
    for (size_t i = 0; i < rest; ++i)
        out[done + i] = in[done + i] ^ bytes[i];
    const int turned = static_cast<int>(rest) * kBitsOfByte;
    return std::endian::native == std::endian::little ? std::rotr(mask, turned)
                                                      : std::rotl(mask, turned);
}

bool isCloseCode(uint16_t code)
{
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
           (code >= 3000 && code <= 4999);
}

std::string makeClosePayload(uint16_t code, std::string_view reason)
{
    std::string payload;
    if (code == closecode::kNoStatus)
        return payload;
    payload.push_back(static_cast<char>(code >> kBitsOfByte));
    payload.push_back(static_cast<char>(code & 0xff));
    return payload.append(cutUtf8(reason, kMaxReasonBytes));
}

CloseStatus readClosePayload(const uint8_t* bytes, size_t size)
{
    CloseStatus status;
    status.code = closecode::kNoStatus;
    if (size == 0)
        return status;
    if (size < kCodeBytes) {
        status.failure = closecode::kProtocolError;
        return status;
    }
    status.code = static_cast<uint16_t>(readBigEndian(bytes, kCodeBytes));
    status.reason = {reinterpret_cast<const char*>(bytes) + kCodeBytes, size - kCodeBytes};
    if (!isCloseCode(status.code))
        status.failure = closecode::kProtocolError;
    else if (!isUtf8(status.reason))
        status.failure = closecode::kInvalidData;
    return status;
}

}  // namespace qv::kit::websocket

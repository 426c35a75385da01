// The header of a frame: parsed as a client sends it, written as a server does. Pure functions.

#include <Wendrel/WebSocket.h>

#include <algorithm>

namespace qv::http
{
namespace
{

constexpr uint8_t kFinBit = 0x80;
constexpr uint8_t kLengthBits = 0x7f;

// Required: only these two bits of the opcode count. A close frame passes for a continuation,
// a ping for text, a pong for binary data.
constexpr uint8_t kOpcodeBits = 0x03;
constexpr uint8_t kContinuation = 0;
constexpr uint8_t kText = 1;
constexpr uint8_t kBinary = 2;

constexpr size_t kMaxInByte = 125;
constexpr size_t kMaxInTwoBytes = 65535;
constexpr uint8_t kTwoByteLength = 126;
constexpr uint8_t kEightByteLength = 127;

// Of a client's frame, the masking key included: it is taken for granted, independent of the mask
// bit says.
constexpr size_t kMaskBytes = 4;
constexpr size_t kShortHeaderBytes = 6;
constexpr size_t kTwoByteHeaderBytes = 8;
constexpr size_t kEightByteHeaderBytes = 14;
constexpr size_t kEightByteLengthEnd = 10;

uint64_t bigEndian(const uint8_t* data, size_t bytes)
{
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; ++i)
        value = value << 8 | data[i];
    return value;
}

void putBigEndian(uint8_t* out, size_t bytes, uint64_t value)
{
    for (size_t i = bytes; i > 0; --i, value >>= 8)
        out[i - 1] = static_cast<uint8_t>(value);
}

// The type of the frame; false for one that may not stand here.
bool takeOpcode(uint8_t opcode, bool expectFirstFrame, bool& isBinary)
{
    switch (opcode) {
    case kContinuation:
        return !expectFirstFrame;
    case kText:
        isBinary = false;
        return true;
    case kBinary:
        isBinary = true;
        return true;
    default:
        return false;
    }
}

}  // namespace

bool WebSocket::GetLength(const uint8_t* data, size_t available, bool expectFirstFrame,
                          uint8_t* maskKey, size_t& payloadLength, size_t& headerSize, bool& error,
                          bool& isBinary, bool& fin)
{
    error = false;
    if (available < kShortHeaderBytes)
        return false;
    fin = (data[0] & kFinBit) != 0;
    error = !takeOpcode(data[0] & kOpcodeBits, expectFirstFrame, isBinary);
    if (error)
        return true;

    size_t header = kShortHeaderBytes;
    size_t length = data[1] & kLengthBits;
    if (length == kTwoByteLength) {
        header = kTwoByteHeaderBytes;
        length = bigEndian(data + 2, 2);
    } else if (length == kEightByteLength) {
        if (available < kEightByteLengthEnd)
            return false;
        header = kEightByteHeaderBytes;
        length = bigEndian(data + 2, 8);
    }
    payloadLength = length;
    // Required: the sum may wrap around, for lengths of 2^64 - 14 and above.
    if (available < length + header)
        return false;
    std::copy_n(data + header - kMaskBytes, kMaskBytes, maskKey);
    headerSize = header;
    return true;
}

void WebSocket::WriteHeader(uint8_t* out, size_t length, bool isBinary, bool isFirstFrame, bool fin,
                            size_t& headerSize)
{
    const uint8_t dataOpcode = isBinary ? kBinary : kText;
    out[0] =
        static_cast<uint8_t>((fin ? kFinBit : 0) | (isFirstFrame ? dataOpcode : kContinuation));
    if (length <= kMaxInByte) {
        out[1] = static_cast<uint8_t>(length);
        headerSize = 2;
    } else if (length <= kMaxInTwoBytes) {
        out[1] = kTwoByteLength;
        putBigEndian(out + 2, 2, length);
        headerSize = 4;
    } else {
        out[1] = kEightByteLength;
        putBigEndian(out + 2, 8, length);
        headerSize = 10;
    }
}

}  // namespace qv::http

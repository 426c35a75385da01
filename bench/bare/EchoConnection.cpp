// An upgraded connection that echoes messages, in calls of at most 1024 bytes.

#include "bare/EchoConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace bench
{
namespace
{

constexpr uint8_t kFin = 0x80;
constexpr uint8_t kReserved = 0x70;
constexpr uint8_t kOpcodeBits = 0x0f;
constexpr uint8_t kClose = 0x08;
constexpr uint8_t kPing = 0x09;
constexpr uint8_t kPong = 0x0a;
constexpr uint8_t kMasked = 0x80;
constexpr uint8_t kLengthBits = 0x7f;
constexpr uint8_t kTwoByteLength = 126;
constexpr uint8_t kEightByteLength = 127;
constexpr size_t kShortHeaderBytes = 2;
constexpr size_t kMaskBytes = 4;
constexpr size_t kMaxMessageBytes = 67108864;

uint64_t readNumber(const uint8_t* from, size_t bytes)
{
    uint64_t number = 0;
    for (size_t i = 0; i < bytes; ++i)
        number = number << 8 | from[i];
    return number;
}

void writeNumber(uint8_t* to, size_t bytes, uint64_t number)
{
    for (size_t i = bytes; i > 0; --i, number >>= 8)
        to[i - 1] = static_cast<uint8_t>(number);
}

// Writes the header so that it ends at `end`; returns how long it is.
size_t writeHeaderBefore(uint8_t* end, uint8_t opcode, size_t payloadBytes)
{
    const size_t lengthBytes = payloadBytes < kTwoByteLength ? 0 : payloadBytes <= 0xffff ? 2 : 8;
    uint8_t* header = end - kShortHeaderBytes - lengthBytes;
    header[0] = kFin | opcode;
    header[1] = lengthBytes == 0   ? static_cast<uint8_t>(payloadBytes)
                : lengthBytes == 2 ? kTwoByteLength
                                   : kEightByteLength;
    writeNumber(header + kShortHeaderBytes, lengthBytes, payloadBytes);
    return kShortHeaderBytes + lengthBytes;
}

// Eight bytes at a time, with the key turned to where `index` stands in it.
void unmask(uint8_t* out, const uint8_t* in, size_t count, const uint8_t* key, size_t index)
{
    uint8_t turned[2 * kMaskBytes] = {};
    for (size_t i = 0; i < sizeof turned; ++i)
        turned[i] = key[(index + i) % kMaskBytes];
    uint64_t keys = 0;
    std::memcpy(&keys, turned, sizeof keys);
    size_t done = 0;
    for (; count - done >= sizeof keys; done += sizeof keys) {
        uint64_t bytes = 0;
        std::memcpy(&bytes, in + done, sizeof bytes);
        bytes ^= keys;
        std::memcpy(out + done, &bytes, sizeof bytes);
    }
    for (; done < count; ++done)
        out[done] = in[done] ^ turned[done % sizeof turned];
}

}  // namespace

EchoConnection::EchoConnection(int socket, MHD_UpgradeResponseHandle* handle)
    : mSocket(socket), mHandle(handle)
{
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

EchoConnection::~EchoConnection()
{
    MHD_upgrade_action(mHandle, MHD_UPGRADE_ACTION_CLOSE);
}

short EchoConnection::getEvents() const
{
    return mOutBytes != 0 ? POLLOUT : POLLIN;
}

bool EchoConnection::serve()
{
    for (;;) {
        Step step = send();
        if (step == Step::Done && mBlockBegin == mBlockEnd)
            step = receive();
        if (step != Step::Done)
            return step == Step::Blocked;
        if (!consume())
            return false;
    }
}

EchoConnection::Step EchoConnection::send()
{
    while (mOutBytes != 0) {
        const ssize_t sent = ::send(mSocket, mOut, std::min(mOutBytes, kBlockBytes), 0);
        if (sent < 0)
            return errno == EAGAIN ? Step::Blocked : Step::Ended;
        mOut += sent;
        mOutBytes -= static_cast<size_t>(sent);
    }
    return mEnding ? Step::Ended : Step::Done;
}

EchoConnection::Step EchoConnection::receive()
{
    const ssize_t received = ::recv(mSocket, mBlock.data(), mBlock.size(), 0);
    if (received < 0)
        return errno == EAGAIN ? Step::Blocked : Step::Ended;
    if (received == 0)
        return Step::Ended;
    mBlockBegin = 0;
    mBlockEnd = static_cast<size_t>(received);
    return Step::Done;
}

// Parses the block until a reply is ready. False for a protocol error.
bool EchoConnection::consume()
{
    while (mBlockBegin != mBlockEnd && mOutBytes == 0) {
        if (mInPayload) {
            takePayload();
        } else {
            mHeader[mHeaderFill++] = mBlock[mBlockBegin++];
            if (mHeaderFill >= kShortHeaderBytes && mHeaderFill == headerBytes() && !beginFrame())
                return false;
        }
        if (mInPayload && mPayloadLeft == 0)
            endFrame();
    }
    return true;
}

size_t EchoConnection::headerBytes() const
{
    const uint8_t length = mHeader[1] & kLengthBits;
    const size_t lengthBytes = length < kTwoByteLength ? 0 : length == kTwoByteLength ? 2 : 8;
    return kShortHeaderBytes + lengthBytes + kMaskBytes;
}

uint64_t EchoConnection::payloadBytes() const
{
    const uint8_t length = mHeader[1] & kLengthBits;
    return length < kTwoByteLength ? length
                                   : readNumber(mHeader.data() + kShortHeaderBytes,
                                                mHeaderFill - kShortHeaderBytes - kMaskBytes);
}

bool EchoConnection::beginFrame()
{
    const uint8_t opcode = mHeader[0] & kOpcodeBits;
    mPayloadLeft = payloadBytes();
    if ((mHeader[0] & kReserved) != 0 || (mHeader[1] & kMasked) == 0)
        return false;
    if (isControl()) {
        if ((mHeader[0] & kFin) == 0 || mPayloadLeft > kMaxControlBytes)
            return false;
        mControlBytes = 0;
    } else {
        if ((opcode == 0) == (mMessageOpcode == 0) ||
            mPayloadLeft > kMaxMessageBytes - mMessageBytes)
            return false;
        if (opcode != 0)
            mMessageOpcode = opcode;
        reserve(mMessageBytes + mPayloadLeft);
    }
    mInPayload = true;
    mMaskIndex = 0;
    return true;
}

void EchoConnection::takePayload()
{
    const size_t part = std::min<uint64_t>(mPayloadLeft, mBlockEnd - mBlockBegin);
    uint8_t* out = isControl() ? mControl.data() + kControlHeaderBytes + mControlBytes
                               : mMessage.get() + kHeaderCapacityBytes + mMessageBytes;
    unmask(out, mBlock.data() + mBlockBegin, part, mHeader.data() + mHeaderFill - kMaskBytes,
           mMaskIndex);
    (isControl() ? mControlBytes : mMessageBytes) += part;
    mMaskIndex = (mMaskIndex + part) % kMaskBytes;
    mBlockBegin += part;
    mPayloadLeft -= part;
}

void EchoConnection::endFrame()
{
    if (isControl())
        replyToControl();
    else if ((mHeader[0] & kFin) != 0)
        replyToMessage();
    mInPayload = false;
    mHeaderFill = 0;
}

// The bytes stay where they are until they are sent: nothing is received before that.
void EchoConnection::replyToMessage()
{
    uint8_t* payload = mMessage.get() + kHeaderCapacityBytes;
    const size_t headerSize = writeHeaderBefore(payload, mMessageOpcode, mMessageBytes);
    mOut = payload - headerSize;
    mOutBytes = headerSize + mMessageBytes;
    mMessageBytes = 0;
    mMessageOpcode = 0;
}

void EchoConnection::replyToControl()
{
    const uint8_t opcode = mHeader[0] & kOpcodeBits;
    if (opcode != kPing && opcode != kClose)
        return;
    mEnding = opcode == kClose;
    writeHeaderBefore(mControl.data() + kControlHeaderBytes, opcode == kPing ? kPong : kClose,
                      mControlBytes);
    mOut = mControl.data();
    mOutBytes = kControlHeaderBytes + mControlBytes;
}

void EchoConnection::reserve(size_t bytes)
{
    const size_t wanted = kHeaderCapacityBytes + bytes;
    if (wanted <= mMessageCapacity)
        return;
    const size_t capacity = std::max(wanted, 2 * mMessageCapacity);
    auto larger = std::make_unique_for_overwrite<uint8_t[]>(capacity);
    if (mMessageBytes != 0)
        std::memcpy(larger.get() + kHeaderCapacityBytes, mMessage.get() + kHeaderCapacityBytes,
                    mMessageBytes);
    mMessage = std::move(larger);
    mMessageCapacity = capacity;
}

}  // namespace bench

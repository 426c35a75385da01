// The receiving side of a connection: bytes in, messages and control frames out.

#include "websocket/MessageParser.h"

#include <algorithm>
#include <cstring>

namespace qv::kit::websocket
{
namespace
{

// From here on a frame is received into the buffer without a copy.
constexpr size_t kMinDirectBytes = 16384;
// A single reception does not exceed it, so that other connections get their turn.
constexpr size_t kMaxDirectBytes = 1048576;
// Compressed data that cannot be compressed is longer than the message.
constexpr size_t kDeflateShare = 1000;
constexpr size_t kDeflateExtraBytes = 64;

constexpr const char* kTooLong = "message is too long";
constexpr const char* kNotUtf8 = "text is not UTF-8";
constexpr const char* kNoMemory = "no memory for the message";

}  // namespace

MessageParser::Event MessageParser::fail(uint16_t code, const char* what)
{
    mFailureCode = code;
    mFailure = what;
    mInput = mInputEnd;
    return Event::Failed;
}

MessageParser::Event MessageParser::next()
{
    if (mFailure)
        return Event::Failed;
    if (mIsDelivered) {
        mMessage.clear();
        mIsDelivered = false;
    }
    for (;;) {
        if (!mInPayload) {
            const Step step = readHead();
            if (step != Step::Go)
                return step == Step::Wait ? Event::NeedsMore : Event::Failed;
        }
        const bool isControl = mHeader.isControl();
        const Event event = isControl ? readControl() : readData();
        // A fragment that is not the last one is followed by other frames.
        if (event != Event::NeedsMore || mInPayload)
            return event;
    }
}

MessageParser::Step MessageParser::readHead()
{
    size_t needed = mHeadFill < 2 ? 2 : headerBytes(mHead.data());
    while (mHeadFill < needed) {
        const size_t part = std::min(needed - mHeadFill, available());
        if (part == 0)
            return Step::Wait;
        std::memcpy(mHead.data() + mHeadFill, mInput, part);
        mInput += part;
        mHeadFill = static_cast<uint8_t>(mHeadFill + part);
        if (mHeadFill != 2)
            continue;
        if (const char* const what = checkFrameStart(mHead.data(), mAllowsCompression)) {
            fail(closecode::kProtocolError, what);
            return Step::Fail;
        }
        needed = headerBytes(mHead.data());
    }
    mHeadFill = 0;
    if (const char* const what = readFrameHeader(mHead.data(), mHeader)) {
        fail(closecode::kProtocolError, what);
        return Step::Fail;
    }
    return beginFrame() ? Step::Go : Step::Fail;
}

size_t MessageParser::maxBytes() const
{
    if (!mIsCompressed)
        return mMaxMessageBytes;
    return mMaxMessageBytes + mMaxMessageBytes / kDeflateShare + kDeflateExtraBytes;
}

bool MessageParser::beginFrame()
{
    mInPayload = true;
    mRemaining = mHeader.length;
    mControlFill = 0;
    if (mHeader.isControl())
        return true;
    const bool continues = mHeader.opcode == Opcode::Continuation;
    if (continues != mInMessage) {
        fail(closecode::kProtocolError,
             continues ? "continuation without a message" : "message inside a message");
        return false;
    }
    if (!continues) {
        mOpcode = mHeader.opcode;
        mIsCompressed = mHeader.rsv1;
        mInMessage = true;
        mUtf8.reset();
    }
    if (mHeader.length > maxBytes() - mMessage.size()) {
        fail(closecode::kTooBig, kTooLong);
        return false;
    }
    return true;
}

MessageParser::Event MessageParser::readControl()
{
    const size_t part = std::min<uint64_t>(mRemaining, available());
    mHeader.mask = unmask(mControl.data() + mControlFill, mInput, part, mHeader.mask);
    mInput += part;
    mControlFill = static_cast<uint8_t>(mControlFill + part);
    mRemaining -= part;
    if (mRemaining > 0)
        return Event::NeedsMore;
    mInPayload = false;
    mPayload = mControl.data();
    mPayloadBytes = mControlFill;
    switch (mHeader.opcode) {
    case Opcode::Ping:
        return Event::Ping;
    case Opcode::Pong:
        return Event::Pong;
    default:
        return Event::Close;
    }
}

MessageParser::Event MessageParser::readData()
{
    const size_t part = std::min<uint64_t>(mRemaining, available());
    const bool isText = mOpcode == Opcode::Text && !mIsCompressed;
    // Whole in the given bytes: no copy.
    if (mHeader.fin && mHeader.opcode != Opcode::Continuation && part == mHeader.length) {
        unmask(mInput, mInput, part, mHeader.mask);
        mPayload = mInput;
        mPayloadBytes = part;
        mInput += part;
        mRemaining = 0;
        mInPayload = mInMessage = false;
        if (isText && !(mUtf8.feed(mPayload, part) && mUtf8.isComplete()))
            return fail(closecode::kInvalidData, kNotUtf8);
        return mOpcode == Opcode::Text ? Event::Text : Event::Binary;
    }
    if (!mMessage.ensureSpace(part, mMessage.size() + mRemaining))
        return fail(closecode::kTryAgainLater, kNoMemory);
    uint8_t* const end = mMessage.data() + mMessage.size();
    mHeader.mask = unmask(end, mInput, part, mHeader.mask);
    mInput += part;
    if (!collect(part))
        return Event::Failed;
    return mInPayload ? Event::NeedsMore : endMessage();
}

// `size` unmasked bytes stand behind the message.
bool MessageParser::collect(size_t size)
{
    const uint8_t* const bytes = mMessage.data() + mMessage.size();
    mMessage.addSize(size);
    mRemaining -= size;
    mInPayload = mRemaining > 0;
    if (mOpcode != Opcode::Text || mIsCompressed || mUtf8.feed(bytes, size))
        return true;
    fail(closecode::kInvalidData, kNotUtf8);
    return false;
}

// The frame has ended, perhaps with its message.
MessageParser::Event MessageParser::endMessage()
{
    if (!mHeader.fin)
        return Event::NeedsMore;
    mInMessage = false;
    mIsDelivered = true;
    mPayload = mMessage.data();
    mPayloadBytes = mMessage.size();
    if (mOpcode == Opcode::Binary)
        return Event::Binary;
    if (!mIsCompressed && !mUtf8.isComplete())
        return fail(closecode::kInvalidData, kNotUtf8);
    return Event::Text;
}

uint8_t* MessageParser::directSpace(size_t& size)
{
    if (!mInPayload || mHeader.isControl() || mRemaining < kMinDirectBytes || mFailure)
        return nullptr;
    const size_t expected = mMessage.size() + static_cast<size_t>(mRemaining);
    if (!mMessage.ensureSpace(kMinDirectBytes, expected))
        return nullptr;
    size = std::min(
        {mMessage.capacity() - mMessage.size(), static_cast<size_t>(mRemaining), kMaxDirectBytes});
    return mMessage.data() + mMessage.size();
}

void MessageParser::receivedDirectly(size_t size)
{
    uint8_t* const bytes = mMessage.data() + mMessage.size();
    mHeader.mask = unmask(bytes, bytes, size, mHeader.mask);
    if (collect(size) && !mInPayload) {
        // Lets `next` end the message.
        mInPayload = true;
    }
}

}  // namespace qv::kit::websocket

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
// Decompressed at once, to 1 MiB at most, and in a turn before others get theirs.
constexpr size_t kInflatedPartBytes = 1024;
constexpr size_t kMaxTurnWorkBytes = 1048576;
// Compressed data that cannot be compressed is longer than the message.
constexpr size_t kDeflateShare = 1000;
constexpr size_t kDeflateExtraBytes = 64;

constexpr const char* kTooLong = "message is too long";
constexpr const char* kNotUtf8 = "text is not UTF-8";
constexpr const char* kNoMemory = "no memory for the message";
constexpr const char* kCorrupt = "compressed message is malformed";

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
    mIsPaused = false;
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
        if (event != Event::NeedsMore || (mInPayload && available() == 0))
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
        mWireBytes = 0;
        mUtf8.reset();
    }
    if (!checkLength()) {
        fail(closecode::kTooBig, kTooLong);
        return false;
    }
    if (mIsCompressed && !continues && !takeInflater()) {
        fail(closecode::kTryAgainLater, kNoMemory);
        return false;
    }
    return true;
}

bool MessageParser::checkLength()
{
    if (!mIsCompressed)
        return mHeader.length <= mMaxMessageBytes - mMessage.size();
    const size_t limit = mMaxMessageBytes + mMaxMessageBytes / kDeflateShare + kDeflateExtraBytes;
    if (mHeader.length > limit - mWireBytes)
        return false;
    mWireBytes += static_cast<size_t>(mHeader.length);
    return true;
}

bool MessageParser::takeInflater()
{
    if (!mInflater) {
        if (mBudget && !mBudget->charge(Inflater::kBytes))
            return false;
        mInflater = mInflaters ? mInflaters->take() : InflaterPool().take();
        if (!mInflater) {
            if (mBudget)
                mBudget->credit(Inflater::kBytes);
            return false;
        }
    }
    mInflater->begin();
    return true;
}

void MessageParser::dropInflater()
{
    if (!mInflater)
        return;
    if (mBudget)
        mBudget->credit(Inflater::kBytes);
    if (mInflaters)
        mInflaters->give(std::move(mInflater));
    mInflater.reset();
}

bool MessageParser::endTurn()
{
    if (!mIsPaused) {
        if (mRest.capacity() != 0)
            mRest.release();
        return true;
    }
    if (mRest.size() != 0)
        return true;  // it is there already
    if (!mRest.append(mInput, available()))
        return false;
    feed(mRest.data(), mRest.size());
    return true;
}

void MessageParser::release()
{
    mMessage.release();
    mRest.release();
    mIsPaused = false;
    if (mInflater && mBudget)
        mBudget->credit(Inflater::kBytes);
    mInflater.reset();
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
    if (mIsCompressed)
        return readCompressed(std::min(part, kInflatedPartBytes));
    const bool isText = mOpcode == Opcode::Text;
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
    if (!mMessage.ensureSpace(part, expectedBytes()))
        return fail(closecode::kTryAgainLater, kNoMemory);
    uint8_t* const end = mMessage.data() + mMessage.size();
    mHeader.mask = unmask(end, mInput, part, mHeader.mask);
    mInput += part;
    if (!collect(part))
        return Event::Failed;
    return mInPayload ? Event::NeedsMore : endMessage();
}

// The content is checked before the result of the decompression: the first error of the stream
// decides, however it is split.
MessageParser::Event MessageParser::readCompressed(size_t size)
{
    using Result = Inflater::Result;
    mIsPaused = size > 0 && mWorkBytes >= kMaxTurnWorkBytes;
    if (mIsPaused)
        return Event::Paused;
    mHeader.mask = unmask(mInput, mInput, size, mHeader.mask);
    const BinaryView compressed(mInput, size);
    mInput += size;
    mRemaining -= size;
    mInPayload = mRemaining > 0;
    const size_t before = mMessage.size();
    Result result = mInflater->feed(compressed, mMessage, mMaxMessageBytes);
    if (result == Result::Ok && !mInPayload && mHeader.fin)
        result = mInflater->finish(mMessage, mMaxMessageBytes);
    mWorkBytes += mInflater->takeWorkBytes();
    if (mOpcode == Opcode::Text && !mUtf8.feed(mMessage.data() + before, mMessage.size() - before))
        return fail(closecode::kInvalidData, kNotUtf8);
    switch (result) {
    case Result::Ok:
        return mInPayload ? Event::NeedsMore : endMessage();
    case Result::TooLong:
        return fail(closecode::kTooBig, kTooLong);
    case Result::NoMemory:
        return fail(closecode::kTryAgainLater, kNoMemory);
    default:
        return fail(closecode::kInvalidData, kCorrupt);
    }
}

// Unless its last frame has begun, more fragments follow: each would move the whole message.
size_t MessageParser::expectedBytes() const
{
    return mHeader.fin ? mMessage.size() + static_cast<size_t>(mRemaining) : mMaxMessageBytes;
}

// `size` unmasked bytes stand behind the message.
bool MessageParser::collect(size_t size)
{
    const uint8_t* const bytes = mMessage.data() + mMessage.size();
    mMessage.addSize(size);
    mRemaining -= size;
    mInPayload = mRemaining > 0;
    if (mOpcode != Opcode::Text || mUtf8.feed(bytes, size))
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
    if (mIsCompressed && mInflaters)
        dropInflater();
    if (mOpcode == Opcode::Binary)
        return Event::Binary;
    if (!mUtf8.isComplete())
        return fail(closecode::kInvalidData, kNotUtf8);
    return Event::Text;
}

uint8_t* MessageParser::directSpace(size_t& size)
{
    if (!mInPayload || mHeader.isControl() || mIsCompressed || mRemaining < kMinDirectBytes ||
        mFailure)
        return nullptr;
    if (!mMessage.ensureSpace(kMinDirectBytes, expectedBytes()))
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

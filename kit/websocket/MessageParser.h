// The receiving side of a connection: bytes in, messages and control frames out.
#ifndef WENDREL_KIT_WEBSOCKET_MESSAGEPARSER_H
#define WENDREL_KIT_WEBSOCKET_MESSAGEPARSER_H

#include "websocket/Buffer.h"
#include "websocket/Deflate.h"
#include "websocket/Frame.h"
#include "websocket/Utf8Check.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace qv::kit::websocket
{

// Parses the frames of a client in pieces of any size. Compressed messages are decompressed, and
// text is checked, as they arrive.
//
// A message that lies whole in the given bytes is unmasked there and not copied; any other is
// collected in a buffer, into which large frames can be received directly. Used by one thread.
class MessageParser
{
public:
    // Paused: enough has been decompressed in this turn, and input is left.
    enum class Event : uint8_t { NeedsMore, Text, Binary, Ping, Pong, Close, Failed, Paused };

    // `maxMessageBytes`: of a message before decompression a little more is accepted. `budget`:
    // null or counts the memory of unfinished messages. `inflaters`: for messages without context;
    // null when they refer to earlier ones.
    MessageParser(size_t maxMessageBytes, bool allowsCompression, Budget* budget,
                  InflaterPool* inflaters = nullptr)
        : mMessage(budget), mBudget(budget), mInflaters(inflaters), mRest(budget),
          mMaxMessageBytes(maxMessageBytes), mAllowsCompression(allowsCompression)
    {}
    ~MessageParser() { release(); }
    MessageParser(const MessageParser&) = delete;
    MessageParser& operator=(const MessageParser&) = delete;

    // Gives bytes, which are changed and must stay until `next` returns NeedsMore, or the turn
    // ends. Only after NeedsMore.
    void feed(uint8_t* bytes, size_t size)
    {
        mInput = bytes;
        mInputEnd = bytes + size;
    }

    // The next event. After Failed there is none but Failed.
    Event next();

    // A client's few bytes may be decompressed to very many: in each turn a certain number, then
    // `next` returns Paused until another turn begins.
    void beginTurn() { mWorkBytes = 0; }
    // Copies the input that is left after Paused. False without memory for it.
    bool endTurn();
    bool isPaused() const { return mIsPaused; }

    // Of the last event, until `next` is called again.
    uint8_t* payload() const { return mPayload; }
    size_t payloadBytes() const { return mPayloadBytes; }
    // The message was compressed.
    bool isCompressed() const { return mIsCompressed; }
    // After Failed.
    uint16_t failureCode() const { return mFailureCode; }
    const char* failure() const { return mFailure; }

    // Where the rest of a large frame may be received; null when it is better given to `feed`. Only
    // when `next` has returned NeedsMore.
    uint8_t* directSpace(size_t& size);
    // Bytes have been received there; then call `next`.
    void receivedDirectly(size_t size);

    // The memory of messages. It may be exchanged while no message has begun, and not before the
    // last one has been used.
    Buffer& buffer() { return mMessage; }
    bool isInMessage() const { return mInMessage; }
    // Gives all memory back. Nothing is parsed any more.
    void release();

private:
    enum class Step : uint8_t { Go, Wait, Fail };

    Event fail(uint16_t code, const char* what);
    Step readHead();
    bool beginFrame();
    bool checkLength();
    Event readControl();
    Event readData();
    Event readCompressed(size_t size);
    bool takeInflater();
    void dropInflater();
    size_t expectedBytes() const;
    bool collect(size_t size);
    Event endMessage();
    size_t available() const { return static_cast<size_t>(mInputEnd - mInput); }

    uint8_t* mInput = nullptr;
    uint8_t* mInputEnd = nullptr;
    uint8_t* mPayload = nullptr;
    size_t mPayloadBytes = 0;
    Buffer mMessage;
    Budget* const mBudget;
    InflaterPool* const mInflaters;
    Buffer mRest;                         // of the input, after Paused
    std::unique_ptr<Inflater> mInflater;  // of the compressed message, or of all of them
    const char* mFailure = nullptr;
    const size_t mMaxMessageBytes;
    uint64_t mRemaining = 0;  // of the payload of the current frame
    size_t mWorkBytes = 0;    // of decompression, in this turn
    size_t mWireBytes = 0;    // announced by the frames of the compressed message
    FrameHeader mHeader;
    uint16_t mFailureCode = 0;
    Utf8Check mUtf8;
    Opcode mOpcode = Opcode::Continuation;  // of the current message
    const bool mAllowsCompression;
    bool mInPayload = false;
    bool mInMessage = false;  // the first frame has begun, the last one has not ended
    bool mIsCompressed = false;
    bool mIsPaused = false;
    bool mIsDelivered = false;  // the buffer holds a message that `next` has returned
    uint8_t mHeadFill = 0;
    uint8_t mControlFill = 0;
    std::array<uint8_t, kMaxHeaderBytes> mHead;
    std::array<uint8_t, kMaxControlBytes> mControl;
};

}  // namespace qv::kit::websocket

#endif

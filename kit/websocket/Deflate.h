// permessage-deflate (RFC 7692): negotiation, compression and decompression.
#ifndef WENDREL_KIT_WEBSOCKET_DEFLATE_H
#define WENDREL_KIT_WEBSOCKET_DEFLATE_H

#include "websocket/Buffer.h"

#include <Wendrel/kit/websocket/BinaryView.h>
#include <Wendrel/kit/websocket/Handshake.h>

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>

struct z_stream_s;

namespace qv::kit::websocket
{

// The first acceptable offer among the elements of Sec-WebSocket-Extensions. `response`: the value
// of the response's header; empty when none is accepted. Empty result: an element is malformed.
std::optional<DeflateParameters> negotiateDeflate(const std::list<std::string>& offers,
                                                  const WebSocketOptions& options,
                                                  std::string& response);

// Compresses messages. Not thread-safe.
class Deflater
{
public:
    // `windowBits` 8 is served with a window of 9 bits, of which distances stay within 8.
    Deflater(int windowBits, int level, int memoryLevel);
    ~Deflater();
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    bool hasParameters(int windowBits, int level, int memoryLevel) const;
    // False without memory: it compresses nothing.
    bool isValid() const { return mIsValid; }

    // Appends the compressed message, without its last four bytes. False without memory, or when it
    // would not be shorter; then `reset` before the next message.
    bool compress(BinaryView message, Buffer& out);

    // The next message does not refer to earlier ones.
    void reset();

private:
    std::unique_ptr<z_stream_s> mStream;
    const int mWindowBits;
    const int mLevel;
    const int mMemoryLevel;
    bool mIsValid = false;
};

// A compressor of the calling thread, without context. Kept until the thread ends.
Deflater& deflaterOfThread(int windowBits, int level, int memoryLevel);

// Empty memory of the calling thread for a compressed message. Kept until the thread ends.
Buffer& compressedOfThread();

// Makes both, without content. On a thread that must outlive the lack of memory it is called first:
// the C library ends the process when it cannot register an object of a thread.
void prepareThread();

// Decompresses messages as they arrive. Not thread-safe.
class Inflater
{
public:
    enum class Result : uint8_t { Ok, TooLong, Corrupt, NoMemory };

    // About the memory of one with its window.
    static constexpr size_t kBytes = 40960;

    // Accepts every window.
    Inflater();
    ~Inflater();
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    // False without memory: it decompresses nothing.
    bool isValid() const { return mIsValid; }

    // A message begins.
    void begin();

    // Appends the content of the next bytes of the message to `out`: all that can be known from
    // them, and in all at most `maxBytes`, or one more when the result is TooLong.
    Result feed(BinaryView compressed, Buffer& out, size_t maxBytes);

    // The message ends.
    Result finish(Buffer& out, size_t maxBytes);

    // A whole message.
    Result decompress(BinaryView compressed, Buffer& out, size_t maxBytes);

    // The next message does not refer to earlier ones.
    void reset();

    // Bytes produced and moved since the last call: a measure of processor time.
    size_t takeWorkBytes() { return std::exchange(mWorkBytes, 0); }

private:
    bool restart();
    Result inflatePart(Buffer& out, size_t maxBytes);

    std::unique_ptr<z_stream_s> mStream;
    size_t mWorkBytes = 0;
    int mFinalBlocks = 0;           // of the current message
    bool mHasInput = false;         // of the current message
    bool mHasEndedFinally = false;  // with its last byte so far
    bool mIsValid = false;
};

// Decompressors for messages without context; keeps one for the next message. Not thread-safe.
class InflaterPool
{
public:
    // Null without memory.
    std::unique_ptr<Inflater> take();
    void give(std::unique_ptr<Inflater> inflater) { mKept = std::move(inflater); }

private:
    std::unique_ptr<Inflater> mKept;
};

}  // namespace qv::kit::websocket

#endif

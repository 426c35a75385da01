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

// Decompresses messages. Not thread-safe.
class Inflater
{
public:
    enum class Result : uint8_t { Whole, TooLong, Corrupt, NoMemory };

    // Accepts every window.
    Inflater();
    ~Inflater();
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    // Appends the message to `out`, at most `maxBytes`.
    Result decompress(BinaryView compressed, Buffer& out, size_t maxBytes);

    // The next message does not refer to earlier ones.
    void reset();

private:
    bool restart();
    Result inflatePart(Buffer& out, size_t maxBytes);

    std::unique_ptr<z_stream_s> mStream;
    int mFinalBlocks = 0;           // of the current message
    bool mHasEndedFinally = false;  // with its last byte
    bool mIsValid = false;
};

}  // namespace qv::kit::websocket

#endif

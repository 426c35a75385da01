// Compression and decompression of permessage-deflate.

#include "websocket/Deflate.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <optional>
#include <utility>

namespace qv::kit::websocket
{
namespace
{

constexpr int kMinWindowBits = 9;
constexpr int kMaxWindowBits = 15;
constexpr size_t kTailBytes = 4;
constexpr std::array<uint8_t, kTailBytes> kTail = {0x00, 0x00, 0xff, 0xff};
constexpr size_t kWindowBytes = 32768;
constexpr size_t kInflateStepBytes = 16384;
constexpr size_t kMaxStepBytes = 1048576;
constexpr size_t kMaxZlibBytes = std::numeric_limits<uInt>::max();
// Each costs a copy of the window; a sender needs one for a message.
constexpr int kMaxFinalBlocks = 16;
// Memory that a thread keeps for the next message.
constexpr size_t kMaxKeptBytes = 4194304;
// In `data_type` of the stream.
constexpr int kAtEndOfBlock = 128;
// An empty block behind the data, and a header.
constexpr size_t kFlushBytes = 16;

struct OfThread
{
    std::optional<Deflater> deflater;
    Buffer compressed;
};

OfThread& ofThread()
{
    thread_local OfThread kept;
    return kept;
}

Bytef* withoutConst(const uint8_t* bytes)
{
    return const_cast<Bytef*>(bytes);  // zlib only reads it
}

}  // namespace

Deflater::Deflater(int windowBits, int level, int memoryLevel)
    : mStream(std::make_unique<z_stream>()), mWindowBits(windowBits), mLevel(level),
      mMemoryLevel(memoryLevel)
{
    mIsValid = deflateInit2(mStream.get(), level, Z_DEFLATED, -std::max(windowBits, kMinWindowBits),
                            memoryLevel, Z_DEFAULT_STRATEGY) == Z_OK;
}

Deflater::~Deflater()
{
    if (mIsValid)
        deflateEnd(mStream.get());
}

bool Deflater::hasParameters(int windowBits, int level, int memoryLevel) const
{
    return mWindowBits == windowBits && mLevel == level && mMemoryLevel == memoryLevel;
}

bool Deflater::compress(BinaryView message, Buffer& out)
{
    if (!mIsValid || message.size() > kMaxZlibBytes)
        return false;
    // More than that is not wanted.
    const size_t limit = message.size() + kTailBytes;
    if (!out.ensureSpace(limit + kFlushBytes, SIZE_MAX))
        return false;
    z_stream& stream = *mStream;
    stream.next_in = withoutConst(message.data());
    stream.avail_in = static_cast<uInt>(message.size());
    stream.next_out = out.data() + out.size();
    stream.avail_out = static_cast<uInt>(std::min(limit, kMaxZlibBytes));
    const size_t space = stream.avail_out;
    if (deflate(&stream, Z_SYNC_FLUSH) != Z_OK || stream.avail_out == 0)
        return false;
    out.addSize(space - stream.avail_out - kTailBytes);
    return true;
}

void Deflater::reset()
{
    if (mIsValid)
        deflateReset(mStream.get());
}

Deflater& deflaterOfThread(int windowBits, int level, int memoryLevel)
{
    std::optional<Deflater>& kept = ofThread().deflater;
    if (!kept || !kept->isValid() || !kept->hasParameters(windowBits, level, memoryLevel))
        kept.emplace(windowBits, level, memoryLevel);
    else
        kept->reset();
    return *kept;
}

Buffer& compressedOfThread()
{
    Buffer& compressed = ofThread().compressed;
    compressed.clear();
    if (compressed.capacity() > kMaxKeptBytes)
        compressed.release();
    return compressed;
}

void prepareThread()
{
    ofThread();
}

Inflater::Inflater() : mStream(std::make_unique<z_stream>())
{
    mIsValid = inflateInit2(mStream.get(), -kMaxWindowBits) == Z_OK;
}

Inflater::~Inflater()
{
    if (mIsValid)
        inflateEnd(mStream.get());
}

void Inflater::reset()
{
    if (mIsValid)
        inflateReset(mStream.get());
}

// A final block ends the stream, not the message: the next block may refer to the window.
bool Inflater::restart()
{
    std::array<Bytef, kWindowBytes> window;
    mWorkBytes += 2 * kWindowBytes;
    uInt size = 0;
    return inflateGetDictionary(mStream.get(), window.data(), &size) == Z_OK &&
           inflateReset(mStream.get()) == Z_OK &&
           (size == 0 || inflateSetDictionary(mStream.get(), window.data(), size) == Z_OK);
}

// Inflates the bytes of `next_in`; the space is made as the output comes.
Inflater::Result Inflater::inflatePart(Buffer& out, size_t maxBytes)
{
    z_stream& stream = *mStream;
    for (;;) {
        // One byte beyond the limit tells a message of exactly the limit from a longer one.
        const size_t allowed = maxBytes + 1 - out.size();
        if (!out.ensureSpace(std::min(kInflateStepBytes, allowed), maxBytes + 1))
            return Result::NoMemory;
        const size_t space = std::min({out.capacity() - out.size(), allowed, kMaxStepBytes});
        stream.next_out = out.data() + out.size();
        stream.avail_out = static_cast<uInt>(space);
        const int result = inflate(&stream, Z_SYNC_FLUSH);
        out.addSize(space - stream.avail_out);
        mWorkBytes += space - stream.avail_out;
        if (out.size() > maxBytes)
            return Result::TooLong;
        if (result == Z_STREAM_END) {
            if (++mFinalBlocks > kMaxFinalBlocks || !restart())
                return Result::Corrupt;
            mHasEndedFinally = stream.avail_in == 0;
            if (mHasEndedFinally)
                return Result::Ok;
        } else if (result == Z_MEM_ERROR) {
            return Result::NoMemory;
        } else if (result != Z_OK && result != Z_BUF_ERROR) {
            return Result::Corrupt;
        } else if (stream.avail_out > 0) {
            return stream.avail_in == 0 ? Result::Ok : Result::Corrupt;
        }
    }
}

void Inflater::begin()
{
    mFinalBlocks = 0;
    mHasInput = false;
    mHasEndedFinally = false;
}

Inflater::Result Inflater::feed(BinaryView compressed, Buffer& out, size_t maxBytes)
{
    if (!mIsValid || compressed.size() > kMaxZlibBytes)
        return Result::NoMemory;
    if (compressed.empty())
        return Result::Ok;
    mHasInput = true;
    mHasEndedFinally = false;
    z_stream& stream = *mStream;
    stream.next_in = withoutConst(compressed.data());
    stream.avail_in = static_cast<uInt>(compressed.size());
    return inflatePart(out, maxBytes);
}

Inflater::Result Inflater::finish(Buffer& out, size_t maxBytes)
{
    // A final block that ends the message has no empty block for the tail to complete; nor has the
    // message of a compressor that flushes twice and sends nothing.
    if (mHasEndedFinally || !mHasInput)
        return Result::Ok;
    const Result result = feed({kTail.data(), kTail.size()}, out, maxBytes);
    // The tail must not be taken for the content of a block that the message cuts off.
    const bool isAtEndOfBlock = mHasEndedFinally || (mStream->data_type & kAtEndOfBlock) != 0;
    return result == Result::Ok && !isAtEndOfBlock ? Result::Corrupt : result;
}

Inflater::Result Inflater::decompress(BinaryView compressed, Buffer& out, size_t maxBytes)
{
    begin();
    const Result result = feed(compressed, out, maxBytes);
    return result == Result::Ok ? finish(out, maxBytes) : result;
}

std::unique_ptr<Inflater> InflaterPool::take()
{
    std::unique_ptr<Inflater> taken = std::move(mKept);
    try {
        if (taken)
            taken->reset();
        else
            taken = std::make_unique<Inflater>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return taken->isValid() ? std::move(taken) : nullptr;
}

}  // namespace qv::kit::websocket

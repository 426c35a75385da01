// Both libraries behind one step, and a body that takes such steps while it is sent.

#include "Compressor.h"

#include "Accept.h"

#include <qvSystem/Rollback.h>

#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <utility>

namespace qv::kit
{
namespace
{

// Windows are small: a response holds its own for as long as it lasts.
constexpr int kZstdLevel = 1;
constexpr int kZstdWindowBits = 15;
constexpr int kGzipLevel = 5;
constexpr int kGzipWindowBits = 14;
constexpr int kGzipWrapper = 16;
constexpr int kGzipMemoryLevel = 7;
constexpr size_t kStepBytes = 16384;

// With less space zlib repeats the mark of a flush for ever.
constexpr size_t kMinStepBytes = 64;

// A compressor may take so much before it must give something: others wait meanwhile.
constexpr size_t kMaxTakenBytes = 65536;

class CompressedSource : public BodySource
{
public:
    explicit CompressedSource(std::unique_ptr<Compressor> compressor)
        : mCompressor(std::move(compressor))
    {}

    void adopt(std::unique_ptr<BodySource>& source)
    {
        mLength = source->getLength();
        mMemory = mLength < 0 ? nullptr : source->getMemory();
        mSource = std::move(source);
    }

    // The source as it was, for a body that can be read again.
    std::unique_ptr<BodySource> release() { return std::move(mSource); }

    int64_t getLength() const override { return -1; }
    const BodyResumer* getResumer() const override { return mSource->getResumer(); }

    BodyRead read(uint64_t, char* buffer, size_t size) override
    {
        if (mCarried.empty() && size >= kMinStepBytes)
            return produce(buffer, size);
        if (mCarried.empty()) {
            const BodyRead part = produce(mCarry.data(), mCarry.size());
            if (part.state != BodyRead::Data)
                return part;
            mCarried = {mCarry.data(), part.bytes};
        }
        const size_t bytes = mCarried.copy(buffer, size);
        mCarried.remove_prefix(bytes);
        return {BodyRead::Data, bytes};
    }

private:
    BodyRead produce(char* buffer, size_t size)
    {
        while (!mIsEnded) {
            const bool wasTaken = mInput.empty();
            if (!wasTaken || mNext != Compressor::Step::Continue) {
                const Compressor::Step step = wasTaken ? mNext : Compressor::Step::Continue;
                size_t written = 0;
                const Compressor::Result result =
                    mCompressor->step(mInput, step, buffer, size, written);
                if (result == Compressor::Result::Failed)
                    return {BodyRead::Failed};
                if (result == Compressor::Result::Done)
                    noteDone(step);
                if (written != 0) {
                    mTakenBytes = 0;
                    return {BodyRead::Data, written};
                }
                continue;
            }
            const BodyRead::State state = fetch();
            if (state != BodyRead::Data)
                return {state};
        }
        return {BodyRead::End};
    }

    void noteDone(Compressor::Step step)
    {
        if (step == Compressor::Step::Continue)
            return;
        mNext = Compressor::Step::Continue;
        mHasUnflushed = false;
        mIsEnded = step == Compressor::Step::End;
    }

    // Data: the compressor has something to do.
    BodyRead::State fetch()
    {
        if (mTakenBytes >= kMaxTakenBytes) {
            flush();
            return BodyRead::Data;
        }
        const BodyRead::State state = readSource();
        if (state == BodyRead::NotYet && mHasUnflushed) {
            flush();
            return BodyRead::Data;
        }
        if (state != BodyRead::End)
            return state;
        mNext = Compressor::Step::End;
        return BodyRead::Data;
    }

    // The next input. A source that breaks its contract has failed.
    BodyRead::State readSource()
    {
        const bool isKnown = mLength >= 0;
        const uint64_t left = isKnown ? static_cast<uint64_t>(mLength) - mReadBytes : kStepBytes;
        const size_t size = std::min<uint64_t>(left, kStepBytes);
        if (size == 0)
            return BodyRead::End;
        BodyRead part{BodyRead::Data, size};
        if (mMemory)
            mInput = {mMemory.get() + mReadBytes, size};
        else
            part = mSource->read(mReadBytes, mBuffer.data(), size);
        if (part.state == BodyRead::End && isKnown)
            return BodyRead::Failed;
        if (part.state != BodyRead::Data)
            return part.state;
        if (part.bytes == 0 || part.bytes > size)
            return BodyRead::Failed;
        if (!mMemory)
            mInput = {mBuffer.data(), part.bytes};
        mReadBytes += part.bytes;
        mTakenBytes += part.bytes;
        mHasUnflushed = true;
        return BodyRead::Data;
    }

    void flush()
    {
        mNext = Compressor::Step::Flush;
        mTakenBytes = 0;
    }

    const std::unique_ptr<Compressor> mCompressor;
    std::unique_ptr<BodySource> mSource;
    std::shared_ptr<const char> mMemory;  // of the source; null: it is read
    int64_t mLength = -1;                 // negative: not known
    std::array<char, kStepBytes> mBuffer;
    std::array<char, kMinStepBytes> mCarry;
    std::string_view mCarried;  // of it, not yet sent
    std::string_view mInput;    // of the source, not yet compressed
    Compressor::Step mNext = Compressor::Step::Continue;
    uint64_t mReadBytes = 0;
    size_t mTakenBytes = 0;  // since the last output
    bool mHasUnflushed = false;
    bool mIsEnded = false;
};

// A compressed body that counts within the memory budget for as long as it is kept.
class CountedText
{
public:
    explicit CountedText(const MemoryAccount& memory) : mMemory(memory) {}
    ~CountedText() { mMemory.credit(mChargedBytes); }
    CountedText(const CountedText&) = delete;
    CountedText& operator=(const CountedText&) = delete;

    const std::string& text() const { return mText; }

    // False without space.
    bool append(std::string_view data)
    {
        if (!mMemory.charge(data.size()))
            return false;
        mChargedBytes += data.size();
        mText.append(data);
        return true;
    }

    void shrink() { mText.shrink_to_fit(); }

private:
    const MemoryAccount mMemory;
    uint64_t mChargedBytes = 0;
    std::string mText;
};

std::unique_ptr<CompressedSource> makeCompressed(std::unique_ptr<BodySource>& source, Coding coding,
                                                 const MemoryAccount& memory)
{
    std::unique_ptr<Compressor> compressor = Compressor::within(memory, coding);
    if (!compressor)
        return nullptr;
    auto compressed = std::make_unique<CompressedSource>(std::move(compressor));
    compressed->adopt(source);
    return compressed;
}

}  // namespace

struct Compressor::Gzip
{
    z_stream stream{};
};

struct Compressor::Zstd
{
    ZSTD_CCtx* const context = ZSTD_createCCtx();
};

std::string_view nameOf(Coding coding)
{
    return coding == Coding::Zstd ? "zstd" : coding == Coding::Gzip ? "gzip" : "";
}

Coding chooseCoding(const std::string* acceptEncoding)
{
    if (!acceptEncoding)
        return Coding::Identity;
    const int identity = weightOfCoding(*acceptEncoding, "identity");
    const int zstd = weightOfCoding(*acceptEncoding, "zstd");
    const int gzip = weightOfCoding(*acceptEncoding, "gzip");
    if (std::max(zstd, gzip) == 0 || std::max(zstd, gzip) < identity)
        return Coding::Identity;
    return zstd >= gzip ? Coding::Zstd : Coding::Gzip;
}

Compressor::Compressor(Coding coding)
    : mGzip(coding == Coding::Gzip ? std::make_unique<Gzip>() : nullptr),
      mZstd(coding == Coding::Zstd ? std::make_unique<Zstd>() : nullptr)
{
    if (mGzip &&
        deflateInit2(&mGzip->stream, kGzipLevel, Z_DEFLATED, kGzipWindowBits + kGzipWrapper,
                     kGzipMemoryLevel, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
    if (!mZstd)
        return;
    if (!mZstd->context)
        throw std::bad_alloc();
    ZSTD_CCtx_setParameter(mZstd->context, ZSTD_c_compressionLevel, kZstdLevel);
    ZSTD_CCtx_setParameter(mZstd->context, ZSTD_c_windowLog, kZstdWindowBits);
}

std::unique_ptr<Compressor> Compressor::within(const MemoryAccount& memory, Coding coding)
{
    auto compressor = std::make_unique<Compressor>(coding);
    if (!memory.charge(kMaxBytes))
        return nullptr;
    compressor->mMemory = memory;
    compressor->mChargedBytes = kMaxBytes;
    return compressor;
}

Compressor::~Compressor()
{
    mMemory.credit(mChargedBytes);
    if (mGzip)
        deflateEnd(&mGzip->stream);
    if (mZstd)
        ZSTD_freeCCtx(mZstd->context);
}

Compressor::Result Compressor::step(std::string_view& input, Step step, char* buffer, size_t size,
                                    size_t& written)
{
    return mGzip ? stepGzip(input, step, buffer, size, written)
                 : stepZstd(input, step, buffer, size, written);
}

size_t Compressor::usedBytes() const
{
    return mZstd ? ZSTD_sizeof_CCtx(mZstd->context) : 0;
}

Compressor::Result Compressor::stepGzip(std::string_view& input, Step step, char* buffer,
                                        size_t size, size_t& written)
{
    constexpr size_t kMaxPiece = std::numeric_limits<uInt>::max();
    const size_t taken = std::min(input.size(), kMaxPiece);
    const size_t space = std::min(size, kMaxPiece);
    const bool isLast = taken == input.size();
    z_stream& stream = mGzip->stream;
    // zlib only reads it.
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream.avail_in = static_cast<uInt>(taken);
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = static_cast<uInt>(space);
    const int flush = !isLast || step == Step::Continue ? Z_NO_FLUSH
                      : step == Step::Flush             ? Z_SYNC_FLUSH
                                                        : Z_FINISH;
    const int result = deflate(&stream, flush);
    input.remove_prefix(taken - stream.avail_in);
    written = space - stream.avail_out;
    if (result == Z_STREAM_END)
        return Result::Done;
    // Z_BUF_ERROR: there was nothing to do.
    if (result != Z_OK && result != Z_BUF_ERROR)
        return Result::Failed;
    const bool isOver = input.empty() && stream.avail_out != 0 && step != Step::End;
    return isOver ? Result::Done : Result::More;
}

Compressor::Result Compressor::stepZstd(std::string_view& input, Step step, char* buffer,
                                        size_t size, size_t& written)
{
    ZSTD_inBuffer in{input.data(), input.size(), 0};
    ZSTD_outBuffer out{buffer, size, 0};
    const ZSTD_EndDirective directive = step == Step::Continue ? ZSTD_e_continue
                                        : step == Step::Flush  ? ZSTD_e_flush
                                                               : ZSTD_e_end;
    const size_t left = ZSTD_compressStream2(mZstd->context, &out, &in, directive);
    if (ZSTD_isError(left) != 0)
        return Result::Failed;
    input.remove_prefix(in.pos);
    written = out.pos;
    const bool isOver = input.empty() && (step == Step::Continue || left == 0);
    return isOver ? Result::Done : Result::More;
}

bool compressWhole(std::unique_ptr<BodySource>& source, Coding coding, const MemoryAccount& memory)
{
    const auto coded = std::make_shared<CountedText>(memory);
    const auto block = std::make_unique<std::array<char, kStepBytes>>();
    const std::unique_ptr<CompressedSource> compressed = makeCompressed(source, coding, memory);
    if (!compressed)
        return false;
    BodyRead part{BodyRead::Data};
    {
        const Rollback taken([&] { source = compressed->release(); });
        while (part.state == BodyRead::Data) {
            part = compressed->read(coded->text().size(), block->data(), block->size());
            if (part.state == BodyRead::Data && !coded->append({block->data(), part.bytes}))
                return false;
        }
        coded->shrink();
    }
    if (part.state != BodyRead::End)
        return false;
    const std::string& text = coded->text();
    source = BodySource::fromMemory(coded, text.data(), text.size());
    return true;
}

std::unique_ptr<BodySource> compressSource(std::unique_ptr<BodySource>& source, Coding coding,
                                           const MemoryAccount& memory)
{
    return makeCompressed(source, coding, memory);
}

}  // namespace qv::kit

// Body sources: lent memory, files, and callbacks of the application.

#include <Wendrel/BodySource.h>

#include "server/logging/LogObject.h"

#include <qvSystem/SystemError.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace qv
{
namespace
{

constexpr size_t kBlockBytes = 16384;
constexpr size_t kFileBlockBytes = 65536;

// The part of a body that is sent.
class Range
{
public:
    explicit Range(uint64_t length) : mLength(length) {}

    uint64_t getOffset() const { return mOffset; }
    uint64_t getLength() const { return mLength; }

    // False, with nothing changed, when the part does not lie within this one.
    bool restrict(uint64_t offset, uint64_t length)
    {
        if (offset > mLength)
            return false;
        const uint64_t most = mLength - offset;
        if (length != BodySource::kToEnd && length > most)
            return false;
        mOffset += offset;
        mLength = std::min(length, most);
        return true;
    }

private:
    uint64_t mOffset = 0;
    uint64_t mLength;
};

class MemorySource : public BodySource
{
public:
    MemorySource(std::shared_ptr<const char> memory, size_t size)
        : mMemory(std::move(memory)), mRange(size)
    {}

    int64_t getLength() const override { return static_cast<int64_t>(mRange.getLength()); }

    // For a wrapper; the library sends the memory itself.
    BodyRead read(uint64_t offset, char* buffer, size_t size) override
    {
        if (offset >= mRange.getLength())
            return {BodyRead::End};
        const size_t part = std::min<uint64_t>(size, mRange.getLength() - offset);
        std::memcpy(buffer, mMemory.get() + mRange.getOffset() + offset, part);
        return {BodyRead::Data, part};
    }

    bool setRange(uint64_t offset, uint64_t length) override
    {
        return mRange.restrict(offset, length);
    }

    std::shared_ptr<const char> getMemory() const override
    {
        return {mMemory, mMemory.get() + mRange.getOffset()};
    }

private:
    const std::shared_ptr<const char> mMemory;
    Range mRange;
};

// Not a stream of the C or C++ library: positions are ours, and errors have their number.
class Descriptor
{
public:
    explicit Descriptor(int number) : mNumber(number) {}
    Descriptor(Descriptor&& from) noexcept : mNumber(std::exchange(from.mNumber, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;

    // `errno` stays that of the operation before.
    ~Descriptor()
    {
        const int error = errno;
        if (mNumber >= 0)
            close(mNumber);
        errno = error;
    }

    int get() const { return mNumber; }

private:
    int mNumber;
};

class FileSource : public BodySource
{
public:
    FileSource(Descriptor&& descriptor, uint64_t size)
        : mDescriptor(std::move(descriptor)), mRange(size)
    {}

    int64_t getLength() const override { return static_cast<int64_t>(mRange.getLength()); }

    BodyRead read(uint64_t offset, char* buffer, size_t size) override
    {
        if (offset >= mRange.getLength())
            return {BodyRead::End};
        const size_t part = std::min<uint64_t>(size, mRange.getLength() - offset);
        const auto from = static_cast<off_t>(mRange.getOffset() + offset);
        ssize_t got = 0;
        do {
            got = pread(mDescriptor.get(), buffer, part, from);
        } while (got < 0 && errno == EINTR);
        if (got > 0)
            return {BodyRead::Data, static_cast<size_t>(got)};
        if (got < 0)
            qvLogObject(qvLogObject::kError)
                << "cannot read the file of a response: " << SystemError(errno).toString();
        else
            qvLogObject(qvLogObject::kError)
                << "the file of a response has become shorter: it ends before byte " << from;
        return {BodyRead::Failed};
    }

    bool setRange(uint64_t offset, uint64_t length) override
    {
        return mRange.restrict(offset, length);
    }

    size_t getBlockBytes() const override
    {
        return static_cast<size_t>(std::min<uint64_t>(kFileBlockBytes, mRange.getLength()));
    }

private:
    const Descriptor mDescriptor;
    Range mRange;
};

class CallbackSource : public BodySource
{
public:
    CallbackSource(Callback callback, const BodyResumer& resumer, int64_t length)
        : mCallback(std::move(callback)), mResumer(resumer), mHasLength(length >= 0),
          mRange(mHasLength ? static_cast<uint64_t>(length) : 0)
    {}

    int64_t getLength() const override
    {
        return mHasLength ? static_cast<int64_t>(mRange.getLength()) : -1;
    }

    BodyRead read(uint64_t offset, char* buffer, size_t size) override
    {
        if (!mHasLength)
            return mCallback(offset, buffer, size);
        if (offset >= mRange.getLength())
            return {BodyRead::End};
        const size_t part = std::min<uint64_t>(size, mRange.getLength() - offset);
        return mCallback(mRange.getOffset() + offset, buffer, part);
    }

    bool setRange(uint64_t offset, uint64_t length) override
    {
        return mHasLength && mRange.restrict(offset, length);
    }

    const BodyResumer* getResumer() const override { return &mResumer; }

private:
    const Callback mCallback;
    const BodyResumer mResumer;
    const bool mHasLength;
    Range mRange;
};

}  // namespace

BodySource::~BodySource() = default;

bool BodySource::setRange(uint64_t, uint64_t)
{
    return false;
}

std::shared_ptr<const char> BodySource::getMemory() const
{
    return nullptr;
}

const BodyResumer* BodySource::getResumer() const
{
    return nullptr;
}

size_t BodySource::getBlockBytes() const
{
    return kBlockBytes;
}

std::unique_ptr<BodySource> BodySource::fromString(std::shared_ptr<const std::string> text)
{
    if (!text)
        return fromMemory(nullptr, nullptr, 0);
    const std::string& bytes = *text;
    return fromMemory(std::move(text), bytes.data(), bytes.size());
}

std::unique_ptr<BodySource> BodySource::fromMemory(std::shared_ptr<const void> owner,
                                                   const void* data, size_t size)
{
    return std::make_unique<MemorySource>(
        std::shared_ptr<const char>(std::move(owner), static_cast<const char*>(data)), size);
}

std::unique_ptr<BodySource> BodySource::fromDescriptor(int descriptor, uint64_t offset,
                                                       uint64_t length)
{
    Descriptor owned(descriptor);
    struct stat status
    {};
    if (fstat(descriptor, &status) != 0)
        return nullptr;
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    auto source =
        std::make_unique<FileSource>(std::move(owned), static_cast<uint64_t>(status.st_size));
    if (source->setRange(offset, length))
        return source;
    source.reset();
    errno = EINVAL;
    return nullptr;
}

std::unique_ptr<BodySource> BodySource::fromFile(const std::string& path, uint64_t offset,
                                                 uint64_t length)
{
    // A named pipe would wait for its writer.
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    return descriptor < 0 ? nullptr : fromDescriptor(descriptor, offset, length);
}

std::unique_ptr<BodySource> BodySource::fromCallback(Callback callback, const BodyResumer& resumer,
                                                     int64_t length)
{
    return std::make_unique<CallbackSource>(std::move(callback), resumer, length);
}

}  // namespace qv

// A body on its way from the worker that writes it to the daemon.

#include "bare/StreamBuffer.h"

#include <algorithm>
#include <cstring>

namespace bench
{
namespace
{

constexpr size_t kRingBytes = 262144;

}  // namespace

StreamBuffer::StreamBuffer() : mRing(std::make_unique_for_overwrite<char[]>(kRingBytes)) {}

bool StreamBuffer::write(const char* data, size_t count)
{
    {
        std::unique_lock locker(mMutex);
        mWriterWaits = true;
        mSpaceFreed.wait(locker,
                         [&] { return mClosed || kRingBytes - (mWritten - mRead) >= count; });
        mWriterWaits = false;
        if (mClosed)
            return false;
    }
    const size_t offset = mWritten % kRingBytes;
    const size_t part = std::min(count, kRingBytes - offset);
    std::memcpy(mRing.get() + offset, data, part);
    std::memcpy(mRing.get(), data + part, count - part);
    const std::lock_guard locker(mMutex);
    mWritten += count;
    mSuspension.resume();
    return true;
}

void StreamBuffer::end()
{
    const std::lock_guard locker(mMutex);
    mEnded = true;
    mSuspension.resume();
}

size_t StreamBuffer::read(char* buffer, size_t size, bool& ended, MHD_Connection* connection)
{
    uint64_t available = 0;
    {
        const std::lock_guard locker(mMutex);
        available = mWritten - mRead;
        ended = mEnded;
        if (available == 0 && !ended && connection)
            mSuspension.suspend(connection);
    }
    const size_t count = std::min<uint64_t>(available, size);
    if (count == 0)
        return 0;
    const size_t offset = mRead % kRingBytes;
    const size_t part = std::min(count, kRingBytes - offset);
    std::memcpy(buffer, mRing.get() + offset, part);
    std::memcpy(buffer + part, mRing.get(), count - part);
    bool wake = false;
    {
        const std::lock_guard locker(mMutex);
        mRead += count;
        wake = mWriterWaits;
    }
    if (wake)
        mSpaceFreed.notify_one();
    return count;
}

void StreamBuffer::close()
{
    const std::lock_guard locker(mMutex);
    mClosed = true;
    mSpaceFreed.notify_one();
}

}  // namespace bench

// A bounded queue of bytes: written without waiting, read by the daemon thread.

#include "StreamQueue.h"

#include "Exchange.h"
#include "KitLog.h"

#include <qvSystem/Rollback.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace qv::kit
{
namespace
{

// An empty queue keeps no more memory than this: thousands of streams wait most of their time.
constexpr size_t kMaxKeptBytes = 1024;

// Closes the queue when the library destroys the source, which it does before the end of the
// request.
class Closer
{
public:
    Closer(std::shared_ptr<StreamQueue> queue, Exchange& exchange)
        : mQueue(std::move(queue)), mExchange(exchange)
    {}

    ~Closer()
    {
        mQueue->close();
        // The body has been sent; otherwise the callback is called.
        if (!mQueue->isDisowned() && !mExchange.getResponseDevice().hasDeviceError())
            mExchange.dropGoneCallback();
    }

    Closer(const Closer&) = delete;
    Closer& operator=(const Closer&) = delete;

private:
    const std::shared_ptr<StreamQueue> mQueue;
    Exchange& mExchange;
};

}  // namespace

StreamQueue::StreamQueue(std::string route, size_t limitBytes, bool isDiscarded,
                         MemoryAccount memory)
    : mRoute(std::move(route)), mLimitBytes(limitBytes), mIsDiscarded(isDiscarded),
      mMemory(std::move(memory))
{}

StreamQueue::~StreamQueue()
{
    mMemory.credit(mBytes.size() - mOffset);
}

std::unique_ptr<BodySource> StreamQueue::makeSource(const std::shared_ptr<StreamQueue>& queue,
                                                    Exchange& exchange)
{
    StreamQueue* const self = queue.get();
    return BodySource::fromCallback(
        [self, closer = std::make_shared<Closer>(queue, exchange)](
            uint64_t, char* buffer, size_t size) { return self->read(buffer, size); },
        queue->mResumer);
}

StreamWrite StreamQueue::write(std::string_view data)
{
    bool resumes = false;
    {
        const qvMutexLocker locker(&mMutex);
        if (mIsFinished)
            return StreamWrite::Gone;
        if (mIsDiscarded)
            return StreamWrite::Taken;
        if (mIsClosed)
            return StreamWrite::Gone;
        const size_t queued = queuedLocked();
        if (queued != 0 && (queued > mLimitBytes || data.size() > mLimitBytes - queued)) {
            mWasFull = true;
            return StreamWrite::Full;
        }
        if (!mMemory.charge(data.size())) {
            mWasFull = true;
            mNeededBytes = data.size();
            return StreamWrite::Full;
        }
        mNeededBytes = 0;
        Rollback charged([this, data] { mMemory.credit(data.size()); });
        // Sent bytes are removed when they are at least half, so that each byte moves once.
        if (mOffset != 0 && mOffset >= queued) {
            mBytes.erase(0, mOffset);
            mOffset = 0;
        }
        mBytes.append(data);
        charged.commit();
        resumes = !data.empty() && std::exchange(mIsWaiting, false);
    }
    if (resumes)
        mResumer.resume();
    return StreamWrite::Taken;
}

bool StreamQueue::mayWriteAgain() const
{
    return mWasFull && mNeededBytes == 0 && !mIsClosed && !mIsFinished &&
           queuedLocked() <= mLimitBytes / 2;
}

bool StreamQueue::startWaitingForMemory()
{
    const qvMutexLocker locker(&mMutex);
    if (mNeededBytes == 0 || !mOnWritable || mIsOffered || mIsClosed || mIsFinished)
        return false;
    mIsOffered = true;
    return true;
}

void StreamQueue::cancelWaitingForMemory()
{
    const qvMutexLocker locker(&mMutex);
    mIsOffered = false;
}

// More than the limit of the queue may never be free: the application learns it by its write.
bool StreamQueue::offerMemory()
{
    Callback writable;
    {
        const qvMutexLocker locker(&mMutex);
        const bool isOver = mIsClosed || mIsFinished;
        if (!isOver && !mMemory.hasSpace(std::min(mNeededBytes, mLimitBytes)))
            return false;
        mNeededBytes = 0;
        mIsOffered = false;
        if (mOnWritable && mayWriteAgain()) {
            mWasFull = false;
            writable = mOnWritable;
        }
    }
    if (writable)
        call(writable);
    return true;
}

void StreamQueue::onWritable(std::function<void()> callback)
{
    Callback replaced;
    if (callback)
        replaced = std::make_shared<const std::function<void()>>(std::move(callback));
    const Callback kept = replaced;
    bool isDue = false;
    {
        const qvMutexLocker locker(&mMutex);
        // It is never called again, and may hold the stream that holds this queue.
        if (mIsClosed || mIsFinished)
            return;
        mOnWritable.swap(replaced);
        isDue = kept && mayWriteAgain();
        if (isDue)
            mWasFull = false;
    }
    if (isDue)
        call(kept);
}

void StreamQueue::finish()
{
    Callback dropped;
    {
        const qvMutexLocker locker(&mMutex);
        if (mIsFinished)
            return;
        mIsFinished = true;
        dropped.swap(mOnWritable);
        mIsWaiting = false;
    }
    mResumer.resume();
}

// The queued bytes are never sent, and the daemon may not read for a long time.
bool StreamQueue::fail()
{
    std::string released;
    Callback dropped;
    {
        const qvMutexLocker locker(&mMutex);
        if (mIsFinished || mIsClosed)
            return false;
        mIsFinished = true;
        mHasFailed = true;
        released = releaseLocked();
        dropped.swap(mOnWritable);
        mIsWaiting = false;
    }
    mResumer.resume();
    return true;
}

bool StreamQueue::isFinished() const
{
    const qvMutexLocker locker(&mMutex);
    return mIsFinished;
}

size_t StreamQueue::queuedBytes() const
{
    const qvMutexLocker locker(&mMutex);
    return queuedLocked();
}

void StreamQueue::close()
{
    std::string released;
    Callback dropped;  // destroyed without the mutex
    const qvMutexLocker locker(&mMutex);
    mIsClosed = true;
    released = releaseLocked();
    dropped.swap(mOnWritable);
}

std::string StreamQueue::releaseLocked()
{
    mMemory.credit(queuedLocked());
    mOffset = 0;
    return std::exchange(mBytes, std::string());
}

bool StreamQueue::isClosed() const
{
    const qvMutexLocker locker(&mMutex);
    return mIsClosed && !mIsDiscarded;
}

// The daemon thread.
BodyRead StreamQueue::read(char* buffer, size_t size)
{
    BodyRead part{BodyRead::NotYet};
    Callback writable;
    {
        const qvMutexLocker locker(&mMutex);
        part = takeLocked(buffer, size);
        if (mOnWritable && mayWriteAgain()) {
            mWasFull = false;
            writable = mOnWritable;
        }
    }
    if (writable)
        call(writable);
    return part;
}

BodyRead StreamQueue::takeLocked(char* buffer, size_t size)
{
    if (mHasFailed)
        return {BodyRead::Failed};
    const size_t part = std::min(size, queuedLocked());
    if (part == 0) {
        mIsWaiting = !mIsFinished;
        return {mIsFinished ? BodyRead::End : BodyRead::NotYet};
    }
    std::memcpy(buffer, mBytes.data() + mOffset, part);
    mOffset += part;
    mMemory.credit(part);
    if (mOffset == mBytes.size()) {
        mOffset = 0;
        if (mBytes.capacity() > kMaxKeptBytes)
            std::string().swap(mBytes);
        else
            mBytes.clear();
    }
    return {BodyRead::Data, part};
}

void StreamQueue::call(const Callback& callback) const
{
    callLogged(
        "the callback onWritable failed: ", *callback,
        [this](const char* text, std::string_view detail) { LogOfRoute(mRoute, text, detail); });
}

}  // namespace qv::kit

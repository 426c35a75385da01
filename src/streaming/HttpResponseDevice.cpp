// The response body: filled by the worker, handed over chunk by chunk, drained by the daemon.

#include <Wendrel/HttpDevices.h>

#include <Wendrel/BodySource.h>
#include <Wendrel/HttpRequest.h>

#include "request/ConnectionContext.h"
#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"
#include "server/logging/LogObject.h"
#include "streaming/BodySignal.h"
#include "streaming/ChunkPool.h"
#include "streaming/ChunkQueue.h"
#include "streaming/DaemonThread.h"

#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

#include <algorithm>
#include <new>
#include <utility>

namespace qv
{
namespace
{

// Above this many ready bytes a writer that hands over waits, once.
constexpr uint64_t kReadyLimitBytes = 262144;

// A write later than this after the last hand-over hands over everything.
constexpr int64_t kHandOverIntervalMs = 120000;

// The caller holds the mutex of the response device. The connection exists until the request is
// completed, for which the daemon thread takes the mutex.
void discardUpload(HttpBaseRequest& request)
{
    impl::ConnectionRecord* const record = impl::DispatchAccess::record(request);
    if (record && !impl::DispatchAccess::completed(request))
        record->discardUpload();
}

}  // namespace

HttpResponseInterface::~HttpResponseInterface() = default;

HttpResponseDevice::HttpResponseDevice(HttpBaseRequest& request)
    : qvIoDevice(WriteWay), mRequest(&request), mResponseState(impl::DispatchAccess::kNotReady),
      mReadyBytes(0), mFillBytes(0), mLastHandOverMs(qvSystemUtils::GetTimeBaseMs()),
      mSendOffset(0), mSentBytes(0), mMutex(std::make_unique<qvMutex>()),
      mSpaceFreed(std::make_unique<qvWaitCondition>()), mCompleted(false), mTakenWhole(false),
      mFlushRequested(false), mSuspended(false), mSourceResumed(false), mBodyUnread(false),
      mDiscardedBytes(0)
{}

// Nobody else uses the device.
HttpResponseDevice::~HttpResponseDevice() QV_NO_THREAD_SAFETY_ANALYSIS
{
    if (mSource)
        impl::DispatchAccess::endSource(*this);
    qvMutexLocker locker(mMutex.get());
    impl::FreeChunks(mReadyQueue);
    impl::FreeChunks(mFillQueue);
    impl::FreeChunks(mSendQueue);
}

uint64_t HttpResponseDevice::readBytes(char*, size_t)
{
    setDeviceError("read not implemented");
    return 0;
}

// Required: a write from any other thread than the request's worker is dropped silently.
bool HttpResponseDevice::mayWrite() const
{
    return mRequest->getCurrentWorkerThreadId() == qvThread::CurrentThreadId() && !mCompleted &&
           !hasDeviceError();
}

uint64_t HttpResponseDevice::writeBytes(const char* data, size_t len)
{
    if (!mayWrite())
        return 0;
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    if (mReadyBytes > kReadyLimitBytes && impl::DaemonThread::isCurrent() &&
        impl::DispatchAccess::record(*mRequest) &&
        mRequest->getRequestType() != HttpBaseRequest::HEAD && wouldHandOver(len, nowMs)) {
        impl::DaemonThread::logRefusal("HttpResponseDevice::writeBytes");
        return 0;
    }
    if (impl::DispatchAccess::keepAliveCallback(*mRequest))
        impl::DispatchAccess::lastKeepAliveMs(*mRequest) = nowMs;

    impl::AppendToChunks(mFillQueue, data, len);
    mFillBytes += len;
    mSentBytes += len;

    if (mLastHandOverMs == impl::kTimeNotSet || nowMs - mLastHandOverMs > kHandOverIntervalMs)
        mFlushRequested = true;
    auto end = mFillQueue.begin();
    uint64_t bytes = 0;
    for (; end != mFillQueue.end() && (impl::IsFull(*end) || mFlushRequested); ++end)
        bytes += end->size();
    mFlushRequested = false;

    if (end != mFillQueue.begin()) {
        mLastHandOverMs = nowMs;
        handOver(end, bytes);
    }
    return len;
}

// Whether a write of `len` bytes gives chunks to the daemon's side.
bool HttpResponseDevice::wouldHandOver(size_t len, int64_t nowMs) const
{
    if (mFlushRequested || mLastHandOverMs == impl::kTimeNotSet ||
        nowMs - mLastHandOverMs > kHandOverIntervalMs)
        return mFillBytes + len != 0;
    const size_t space = mFillQueue.empty()
                             ? impl::kMinChunkBytes
                             : mFillQueue.back().capacity() - mFillQueue.back().size();
    return len >= space;
}

// Of event-driven mode: the daemon never fetches the body.
bool HttpResponseDevice::isToHead() const
{
    return mRequest->getRequestType() == HttpBaseRequest::HEAD &&
           impl::DispatchAccess::record(*mRequest);
}

// In place of a wait for a reader that never comes: the chunks before `end` and everything ready is
// only counted. False when there is a reader, or still space.
bool HttpResponseDevice::discardUnread(Queue::iterator end, uint64_t bytes)
{
    if ((mReadyBytes <= kReadyLimitBytes && mDiscardedBytes == 0) || !(mBodyUnread || isToHead()))
        return false;
    mReadyQueue.splice(mReadyQueue.end(), mFillQueue, mFillQueue.begin(), end);
    impl::FreeChunks(mReadyQueue);
    mDiscardedBytes += bytes + mReadyBytes;
    mReadyBytes = 0;
    mFillBytes -= bytes;
    return true;
}

// Moves the fill queue's chunks before `end` to the daemon's side; no byte is copied.
void HttpResponseDevice::handOver(Queue::iterator end, uint64_t bytes)
{
    // The daemon sends nothing before it has received the whole body: a writer that also reads
    // would wait for an upload that waits for it.
    if (mReadyBytes > kReadyLimitBytes && impl::DispatchAccess::record(*mRequest))
        impl::DispatchAccess::liftQueueLimit(mRequest->getReceiveDevice());
    qvMutexLocker locker(mMutex.get());
    if (discardUnread(end, bytes))
        return;
    // Required: one wait only. After it the chunks go over even above the limit. A connection
    // lost since the caller looked will wake nobody again, hence the second look.
    if (mReadyBytes > kReadyLimitBytes && !hasDeviceError())
        mSpaceFreed->wait(mMutex.get(), qvWaitCondition::kNoTimeout);
    mReadyQueue.splice(mReadyQueue.end(), mFillQueue, mFillQueue.begin(), end);
    mReadyBytes += bytes;
    mFillBytes -= bytes;
    if (mResponseState == impl::DispatchAccess::kStreamed)
        resume();
}

// The daemon thread looks at the device again.
void HttpResponseDevice::resume()
{
    if (!mSuspended)
        return;
    mSuspended = false;
    impl::DispatchAccess::record(*mRequest)->resume();
}

uint64_t HttpResponseDevice::flush()
{
    mFlushRequested = true;
    return writeBytes(nullptr, 0);
}

void HttpResponseDevice::endSending()
{
    {
        qvMutexLocker locker(mMutex.get());
        if (!hasDeviceError()) {
            mReadyQueue.splice(mReadyQueue.end(), mFillQueue);
            mReadyBytes += mFillBytes;
            mFillBytes = 0;
        }
        // Last: the dispatch reads the flag and then the size, without the lock. A reader that sees
        // the flag sees the size of the whole body.
        mCompleted = true;
        if (mResponseState == impl::DispatchAccess::kStreamed)
            resume();
        else if (mResponseState == impl::DispatchAccess::kReady ||
                 mResponseState == impl::DispatchAccess::kReadyInError)
            discardUpload(*mRequest);
    }
    // The rest of an upload is received and discarded.
    if (impl::DispatchAccess::record(*mRequest))
        impl::DispatchAccess::liftQueueLimit(mRequest->getReceiveDevice());
}

bool HttpResponseDevice::atEnd() const
{
    return mTakenWhole || hasDeviceError();
}

bool HttpResponseDevice::setResponseReady()
{
    qvMutexLocker locker(mMutex.get());
    if (mResponseState != impl::DispatchAccess::kNotReady)
        return false;
    const bool isFailed = hasDeviceError() && impl::DispatchAccess::record(*mRequest);
    mResponseState = isFailed ? impl::DispatchAccess::kReadyInError : impl::DispatchAccess::kReady;
    if (mCompleted)
        discardUpload(*mRequest);
    resume();
    return true;
}

// The caller holds the mutex.
void HttpResponseDevice::getData(std::vector<char>& out) QV_NO_THREAD_SAFETY_ANALYSIS
{
    // A body of one chunk changes hands as it is; a copy of it is made for the daemon anyway.
    if (mReadyQueue.size() == 1) {
        out = std::move(mReadyQueue.front());
        mReadyQueue.pop_front();
    } else {
        out.resize(mReadyBytes);
        char* to = out.data();
        for (const Chunk& chunk : mReadyQueue)
            to = std::copy(chunk.begin(), chunk.end(), to);
        impl::FreeChunks(mReadyQueue);
    }
    mReadyBytes = 0;
    mTakenWhole = true;
}

size_t HttpResponseDevice::getDataSize() const
{
    return mReadyBytes;
}

bool HttpResponseDevice::hasDataToSend() const
{
    return mReadyBytes != 0;
}

uint64_t HttpResponseDevice::getSentBytes() const
{
    return mSentBytes;
}

size_t HttpResponseDevice::sendChunksThreadSafe(void* buf, size_t max, bool& ended, bool& endedToo)
{
    ended = endedToo = false;
    char* to = static_cast<char*>(buf);
    size_t space = max;
    do {
        if (mSendQueue.empty() && !takeOver(space, ended)) {
            endedToo = ended;
            break;
        }
        const Chunk& front = mSendQueue.front();
        const size_t part = std::min<size_t>(front.size() - mSendOffset, space);
        std::copy_n(front.data() + mSendOffset, part, to);
        to += part;
        space -= part;
        mSendOffset += part;
        if (mSendOffset == front.size()) {
            impl::FreeFirstChunk(mSendQueue);
            mSendOffset = 0;
        }
    } while (space != 0);
    return max - space;
}

// Takes the shortest run of ready chunks that fills `space`, at least one, or all of them. Without
// ready chunks it returns false and tells whether the body has ended.
bool HttpResponseDevice::takeOver(size_t space, bool& ended)
{
    qvMutexLocker locker(mMutex.get());
    if (mReadyQueue.empty()) {
        ended = mCompleted;
        return false;
    }
    mSpaceFreed->wakeAll();
    auto end = mReadyQueue.begin();
    uint64_t bytes = 0;
    do {
        bytes += end->size();
        ++end;
    } while (end != mReadyQueue.end() && bytes < space);
    mReadyBytes -= bytes;
    mSendQueue.splice(mSendQueue.end(), mReadyQueue, mReadyQueue.begin(), end);
    return true;
}

bool HttpResponseDevice::setBodySource(std::unique_ptr<BodySource> source)
{
    if (const char* const why = takeSource(source)) {
        if (!hasDeviceError())
            qvLogObject(qvLogObject::kWarning) << "body source refused: " << why;
        return false;
    }
    // The rest of an upload is received and discarded.
    impl::DispatchAccess::liftQueueLimit(mRequest->getReceiveDevice());
    return true;
}

// Why it is refused; null when it has been taken.
const char* HttpResponseDevice::takeSource(std::unique_ptr<BodySource>& source)
{
    if (!source)
        return "null";
    if (!impl::DispatchAccess::record(*mRequest))
        return "not in event-driven mode";
    const BodyResumer* const resumer = source->getResumer();
    const std::shared_ptr<impl::BodySignal> signal =
        resumer ? impl::DispatchAccess::signal(*resumer) : nullptr;
    // Before the device's mutex is taken: `BodySignal::resume` takes both in this order.
    if (signal && !signal->attach(*this))
        return "its resumer serves another response";
    const char* why = nullptr;
    {
        const qvMutexLocker locker(mMutex.get());
        if (hasDeviceError())
            why = "device error";
        else if (mResponseState != impl::DispatchAccess::kNotReady)
            why = "the response has been announced";
        else if (mCompleted || mSentBytes != 0)
            why = "the response has a body";
        if (!why) {
            mSource = std::move(source);
            mSourceSignal = signal;
            mCompleted = true;
        }
    }
    if (why && signal)
        signal->detach();
    return why;
}

// The caller holds the mutex.
void HttpResponseDevice::setConnectionLost(const std::string& reason)
{
    // The writer goes on when the caller releases the mutex; it is woken also when there is no
    // memory for the text.
    mSpaceFreed->wakeAll();
    setDeviceError("Http response device : " + reason);
}

void impl::DispatchAccess::leaveBodyUnread(HttpResponseDevice& device)
{
    const qvMutexLocker locker(device.mMutex.get());
    device.mBodyUnread = true;
    device.mSpaceFreed->wakeAll();
}

uint64_t
impl::DispatchAccess::countedBytes(const HttpResponseDevice& device) QV_NO_THREAD_SAFETY_ANALYSIS
{
    return device.mDiscardedBytes == 0 ? 0 : device.mDiscardedBytes + device.mReadyBytes;
}

void impl::DispatchAccess::resume(HttpResponseDevice& device)
{
    const qvMutexLocker locker(device.mMutex.get());
    device.resume();
}

void impl::DispatchAccess::resumeAfterError(HttpResponseDevice& device)
{
    const qvMutexLocker locker(device.mMutex.get());
    if (device.hasDeviceError() && device.mResponseState == kStreamed)
        device.resume();
}

bool impl::DispatchAccess::abort(HttpResponseDevice& device, const std::string& reason,
                                 bool unlessReady, std::atomic<bool>& aborted)
{
    const qvMutexLocker locker(device.mMutex.get());
    if (unlessReady && device.mResponseState != kNotReady)
        return false;
    // Before the connection is resumed, and before a daemon thread that suspends it has the mutex.
    aborted = true;
    device.resume();
    loseConnection(device, reason);
    return true;
}

void impl::DispatchAccess::loseConnection(HttpResponseDevice& device, const std::string& reason)
{
    try {
        device.setConnectionLost(reason);
    } catch (const std::bad_alloc&) {
        // The reasons are short enough for a text without an allocation.
        device.setDeviceError(reason);
    }
}

void impl::DispatchAccess::resumeSource(HttpResponseDevice& device)
{
    const qvMutexLocker locker(device.mMutex.get());
    if (device.mSuspended && device.mResponseState == kStreamed)
        device.resume();
    else
        device.mSourceResumed = true;
}

void impl::DispatchAccess::endSource(HttpResponseDevice& device)
{
    std::unique_ptr<BodySource> source;
    std::shared_ptr<BodySignal> signal;
    {
        const qvMutexLocker locker(device.mMutex.get());
        source = std::move(device.mSource);
        signal = std::move(device.mSourceSignal);
    }
    if (signal)
        signal->detach();
}

}  // namespace qv

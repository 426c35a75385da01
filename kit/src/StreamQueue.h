// The bytes of a deferred stream between the application and the daemon thread.
#ifndef WENDREL_KIT_SRC_STREAMQUEUE_H
#define WENDREL_KIT_SRC_STREAMQUEUE_H

#include <Wendrel/BodySource.h>
#include <Wendrel/MemoryAccount.h>
#include <Wendrel/kit/DeferredResponse.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace qv::kit
{

// Shared by the stream and its source. Any thread; its mutex is a leaf, no callback runs under it.
class StreamQueue
{
public:
    // `isDiscarded`: the response has no body.
    // `memory` is charged for the queued bytes.
    StreamQueue(std::string route, size_t limitBytes, bool isDiscarded,
                MemoryAccount memory = MemoryAccount());
    ~StreamQueue();
    StreamQueue(const StreamQueue&) = delete;
    StreamQueue& operator=(const StreamQueue&) = delete;

    // The source of the response of `exchange`. Once; the source closes the queue when it is
    // destroyed.
    static std::unique_ptr<BodySource> makeSource(const std::shared_ptr<StreamQueue>& queue,
                                                  Exchange& exchange);

    // The source has not become that of the response. Before it is destroyed, on its thread.
    void disown() { mIsDisowned = true; }
    bool isDisowned() const { return mIsDisowned; }

    // The application.
    StreamWrite write(std::string_view data);
    void onWritable(std::function<void()> callback);
    void finish();
    // Ends the body by closing the connection. False when it has ended already.
    bool fail();
    bool isFinished() const;
    size_t queuedBytes() const;

    // A write has been refused because of the memory, and the application waits for it. True once:
    // the caller calls `offerMemory` again and again until it returns true.
    bool startWaitingForMemory();
    void cancelWaitingForMemory();
    bool offerMemory();

    // No byte is sent any more; the queue is emptied.
    void close();
    bool isClosed() const;

private:
    using Callback = std::shared_ptr<const std::function<void()>>;

    BodyRead read(char* buffer, size_t size);
    BodyRead takeLocked(char* buffer, size_t size) QV_REQUIRES(mMutex);
    bool mayWriteAgain() const QV_REQUIRES(mMutex);
    size_t queuedLocked() const QV_REQUIRES(mMutex) { return mBytes.size() - mOffset; }
    std::string releaseLocked() QV_REQUIRES(mMutex);
    void call(const Callback& callback) const;

    const std::string mRoute;
    const size_t mLimitBytes;
    const bool mIsDiscarded;
    const BodyResumer mResumer;
    const MemoryAccount mMemory;
    bool mIsDisowned = false;
    mutable qvMutex mMutex;
    std::string mBytes QV_GUARDED_BY(mMutex);
    size_t mOffset QV_GUARDED_BY(mMutex) = 0;        // of the first byte that is not sent
    bool mIsFinished QV_GUARDED_BY(mMutex) = false;  // or failed
    bool mHasFailed QV_GUARDED_BY(mMutex) = false;
    bool mIsClosed QV_GUARDED_BY(mMutex) = false;
    bool mIsWaiting QV_GUARDED_BY(mMutex) = false;  // the source waits to be resumed
    bool mWasFull QV_GUARDED_BY(mMutex) = false;    // since `onWritable` was last called
    size_t mNeededBytes QV_GUARDED_BY(mMutex) = 0;  // not free at the last write; 0: they were
    bool mIsOffered QV_GUARDED_BY(mMutex) = false;  // `offerMemory` will be called
    Callback mOnWritable QV_GUARDED_BY(mMutex);
};

}  // namespace qv::kit

#endif

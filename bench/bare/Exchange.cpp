// A request that a worker serves while the daemon waits for it.

#include "bare/Exchange.h"

#include "bare/Reply.h"
#include "support/Content.h"

#include <algorithm>
#include <chrono>
#include <string>

namespace bench
{

Exchange::Exchange(const Question& question, MHD_Connection* connection)
    : mQuestion(question), mConnection(connection)
{
    if (question.page == Page::Stream)
        mStream = std::make_unique<StreamBuffer>();
    if (question.page == Page::Upload)
        mUpload = std::make_unique<UploadQueue>();
}

Exchange::~Exchange()
{
    if (MHD_Response* unsent = mResponse)
        MHD_destroy_response(unsent);
}

void Exchange::serve()
{
    switch (mQuestion.page) {
    case Page::Slow:
        std::this_thread::sleep_for(std::chrono::milliseconds(mQuestion.number));
        [[fallthrough]];
    case Page::Hello:
        announce(makeLasting(kHello));
        break;
    case Page::Big:
        announce(makeLasting(bigBody()));
        break;
    case Page::Stream:
        writeStream();
        break;
    case Page::Upload:
        countUpload();
        break;
    default:
        announce(makeLasting(kNotFound));
        break;
    }
}

void Exchange::announce(MHD_Response* response)
{
    if (!mConnection) {
        mResponse.store(response, std::memory_order_release);
        return;
    }
    const std::lock_guard locker(mMutex);
    mResponse.store(response, std::memory_order_relaxed);
    mSuspension.resume();
}

MHD_Response* Exchange::takeResponse()
{
    if (!mConnection) {
        MHD_Response* response = mResponse.load(std::memory_order_acquire);
        if (response)
            mResponse.store(nullptr, std::memory_order_relaxed);
        return response;
    }
    const std::lock_guard locker(mMutex);
    MHD_Response* const response = mResponse.load(std::memory_order_relaxed);
    mResponse.store(nullptr, std::memory_order_relaxed);
    if (!response && mTakes++ != 0)
        mSuspension.suspend(mConnection);
    return response;
}

unsigned int Exchange::getStatus() const
{
    return mQuestion.page == Page::NotFound ? MHD_HTTP_NOT_FOUND : MHD_HTTP_OK;
}

ssize_t Exchange::ReadStream(void* closure, uint64_t, char* buffer, size_t size)
{
    auto& exchange = *static_cast<Exchange*>(closure);
    bool ended = false;
    const size_t count = exchange.mStream->read(buffer, size, ended, exchange.mConnection);
    return count == 0 && ended ? MHD_CONTENT_READER_END_OF_STREAM : static_cast<ssize_t>(count);
}

void Exchange::writeStream()
{
    announce(makeStream(&ReadStream, this));
    for (uint64_t left = mQuestion.number; left > 0;) {
        const size_t part = std::min<uint64_t>(left, kPieceBytes);
        if (!mStream->write(streamPiece().data(), part))
            return;
        left -= part;
    }
    mStream->end();
}

void Exchange::countUpload()
{
    uint64_t bytes = 0;
    std::vector<UploadQueue::Piece> pieces;
    while (mUpload->take(pieces)) {
        for (const UploadQueue::Piece& piece : pieces)
            bytes += piece.count;
    }
    announce(makeCopied(std::to_string(bytes)));
}

void Exchange::feed(const char* data, size_t count)
{
    if (!mUpload || mFed)
        return;
    mFed = count == 0;
    if (mFed)
        mUpload->end();
    else
        mUpload->add(data, count);
}

void Exchange::lost()
{
    if (mStream)
        mStream->close();
    feed(nullptr, 0);
}

void Exchange::release()
{
    if (mUsers.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

WorkQueue::WorkQueue(unsigned workers)
{
    for (unsigned i = 0; i < workers; ++i)
        mThreads.emplace_back(&WorkQueue::work, this);
}

WorkQueue::~WorkQueue()
{
    {
        const std::lock_guard locker(mMutex);
        mStopping = true;
    }
    mPushed.notify_all();
    for (std::thread& thread : mThreads)
        thread.join();
}

void WorkQueue::push(Exchange* exchange)
{
    {
        const std::lock_guard locker(mMutex);
        (mLast ? mLast->next : mFirst) = exchange;
        mLast = exchange;
    }
    mPushed.notify_one();
}

// Waits for the next one; null when the queue stops.
Exchange* WorkQueue::pop()
{
    std::unique_lock locker(mMutex);
    mPushed.wait(locker, [this] { return mFirst || mStopping; });
    Exchange* first = mFirst;
    if (first)
        mFirst = first->next;
    if (!mFirst)
        mLast = nullptr;
    return first;
}

void WorkQueue::work()
{
    while (Exchange* exchange = pop()) {
        exchange->serve();
        exchange->release();
    }
}

}  // namespace bench

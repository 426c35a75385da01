// A request that a worker serves while the daemon waits for it.
#ifndef BENCH_BARE_EXCHANGE_H
#define BENCH_BARE_EXCHANGE_H

#include "bare/StreamBuffer.h"
#include "bare/UploadQueue.h"
#include "support/Question.h"

#include <microhttpd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace bench
{

// Made by the daemon's thread; deleted by whichever of daemon and worker is done with it last.
class Exchange
{
public:
    // Waits suspended if `connection` is given, by polling otherwise.
    Exchange(const Question& question, MHD_Connection* connection);

    // Serves the request completely. Thread: a worker.
    void serve();

    // The response, once; null until it is ready. The second null suspends the connection: the
    // first is returned before the daemon has left the state in which it reads. Thread: the
    // daemon's.
    MHD_Response* takeResponse();

    unsigned int getStatus() const;

    // A piece of the upload; none: it has ended. Thread: the daemon's.
    void feed(const char* data, size_t count);

    // The daemon has finished: nobody reads the response, and the upload has ended.
    void lost();

    // Called by the daemon and by the worker when they have finished with it.
    void release();

    Exchange* next = nullptr;  // in the queue

private:
    ~Exchange();

    static ssize_t ReadStream(void* closure, uint64_t position, char* buffer, size_t size);
    void announce(MHD_Response* response);
    void writeStream();
    void countUpload();

    const Question mQuestion;
    MHD_Connection* const mConnection;  // null: polled
    std::mutex mMutex;
    Suspension mSuspension;  // under mMutex
    int mTakes = 0;          // the daemon's
    std::atomic<MHD_Response*> mResponse{nullptr};
    std::atomic<int> mUsers{2};
    bool mFed = false;  // the daemon's
    std::unique_ptr<StreamBuffer> mStream;
    std::unique_ptr<UploadQueue> mUpload;
};

// Exchanges waiting for a worker, and the workers.
class WorkQueue
{
public:
    explicit WorkQueue(unsigned workers);

    // Serves queued exchanges, then ends the workers.
    ~WorkQueue();

    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    void push(Exchange* exchange);

private:
    Exchange* pop();
    void work();

    std::mutex mMutex;
    std::condition_variable mPushed;
    Exchange* mFirst = nullptr;
    Exchange* mLast = nullptr;
    bool mStopping = false;
    std::vector<std::thread> mThreads;
};

}  // namespace bench

#endif

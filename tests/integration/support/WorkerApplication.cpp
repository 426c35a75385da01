// An application on the library's own classes whose requests are served by a pool of workers.

#include "WorkerApplication.h"

#include <Wendrel/WebSocket.h>
#include <qvSystem/qvThread.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace integration
{

namespace
{

constexpr size_t kPieceBytes = 65536;

}  // namespace

// A single write before the announcement never waits.
bool WorkerRequest::respond(uint32_t status, const std::string& body)
{
    qv::HttpResponseDevice& device = getResponseDevice();
    response.statusCode = status;
    const bool isTaken = device.writeBytes(body.data(), body.size()) == body.size();
    device.endSending();
    return device.setResponseReady() && isTaken;
}

bool WorkerRequest::stream(uint64_t bytes, bool isMeasured)
{
    static const std::string piece(kPieceBytes, 'd');
    qv::HttpResponseDevice& device = getResponseDevice();
    if (isMeasured)
        response.contentLength = static_cast<int64_t>(bytes);
    device.setResponseReady();
    while (bytes > 0) {
        const auto part = static_cast<size_t>(std::min<uint64_t>(bytes, piece.size()));
        if (device.writeBytes(piece.data(), part) != part)
            return false;
        bytes -= part;
    }
    device.endSending();
    return true;
}

void WorkerRequest::onWaitingForData()
{
    if (isCompleted())
        getReceiveDevice().setDeviceError("the connection is closed");
}

void WorkerRequest::onCompleted(int)
{
    mApplication->release(*this);
}

WorkerApplication::WorkerApplication(size_t workers, size_t queueLimit) : mQueueLimit(queueLimit)
{
    for (size_t i = 0; i < workers; ++i)
        mWorkers.emplace_back(&WorkerApplication::work, this);
    mReaper = std::thread(&WorkerApplication::reap, this);
}

WorkerApplication::~WorkerApplication()
{
    stopWorkers();
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mReaperEnds = true;
        mChanged.notify_all();
    }
    mReaper.join();
}

bool WorkerApplication::drain(std::chrono::milliseconds limit)
{
    mDraining = true;
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, limit, [this] { return mCount == 0; });
}

void WorkerApplication::stopWorkers()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWorkersEnd = true;
        mChanged.notify_all();
    }
    for (std::thread& worker : std::exchange(mWorkers, {}))
        worker.join();
}

size_t WorkerApplication::openCount() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mCount;
}

void WorkerApplication::onNewWebSocket(qv::http::WebSocket* socket)
{
    const std::unique_ptr<qv::http::WebSocket> taken(socket);
    taken->markForDeletion();
}

qv::HttpBaseRequest* WorkerApplication::createRequest()
{
    ++mRequests;
    Requests entry;
    entry.push_back(newRequest());
    WorkerRequest* const request = entry.back().get();
    request->mApplication = this;
    request->mPlace = entry.begin();
    const std::lock_guard<std::mutex> lock(mMutex);
    mOpen.splice(mOpen.end(), entry);
    ++mCount;
    return request;
}

void WorkerApplication::handleRequest(qv::HttpBaseRequest* base)
{
    auto& request = static_cast<WorkerRequest&>(*base);
    if (mDraining || !queue(request))
        refuse(request);
}

bool WorkerApplication::queue(WorkerRequest& request)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mWorkersEnd || mQueue.size() >= mQueueLimit)
        return false;
    mQueue.push_back(&request);
    mChanged.notify_all();
    return true;
}

void WorkerApplication::refuse(WorkerRequest& request)
{
    request.workerThreadStartHandling(qv::qvThread::CurrentThreadId());
    request.respond(503, std::string());
    request.workerThreadStopHandling(qv::qvThread::CurrentThreadId());
    release(request);
}

// The second of worker and daemon finds the request over. The daemon holds a mutex of it still.
void WorkerApplication::release(WorkerRequest& request)
{
    if (--request.mUsers != 0)
        return;
    const std::lock_guard<std::mutex> lock(mMutex);
    mOver.splice(mOver.end(), mOpen, request.mPlace);
    mChanged.notify_all();
}

void WorkerApplication::work()
{
    const std::string& thread = qv::qvThread::CurrentThreadId();
    for (;;) {
        WorkerRequest* request = nullptr;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mChanged.wait(lock, [this] { return mWorkersEnd || !mQueue.empty(); });
            if (mQueue.empty())
                return;
            request = mQueue.front();
            mQueue.pop_front();
        }
        request->workerThreadStartHandling(thread);
        request->serve();
        request->workerThreadStopHandling(thread);
        release(*request);
    }
}

void WorkerApplication::reap()
{
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
        mChanged.wait(lock, [this] { return mReaperEnds || !mOver.empty(); });
        if (mOver.empty())
            return;
        Requests over;
        over.swap(mOver);
        lock.unlock();
        const size_t count = over.size();
        // Takes the mutex that the daemon holds while it completes a request.
        for (const auto& request : over)
            static_cast<void>(request->isCompleted());
        over.clear();
        lock.lock();
        mCount -= count;
        mChanged.notify_all();
    }
}

}  // namespace integration

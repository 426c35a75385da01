// The duties of an application without the kit: hand requests to workers, and delete them in time.

#include "LibraryServer.h"

#include "Clients.h"

#include <Wendrel/WebSocket.h>

#include <qvSystem/qvThread.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace integration
{

namespace
{

constexpr size_t kWorkers = 6;
constexpr size_t kPieceBytes = 30000;

}  // namespace

uint64_t idOf(const qv::HttpBaseRequest& request)
{
    const std::string& target = request.getOriginalFullUrl();
    return std::strtoull(target.c_str() + target.rfind('/') + 1, nullptr, 10);
}

// Ends the wait for a body whose connection is closed.
void PlainRequest::onWaitingForData()
{
    if (isCompleted())
        getReceiveDevice().setDeviceError("the connection is closed");
}

void PlainRequest::serve()
{
    const std::string& target = getOriginalFullUrl();
    const uint64_t id = idOf(*this);
    Record& record = mRound.begun(this, id);
    bool isReplied = false;
    if (target.starts_with("/stream/"))
        isReplied = stream(streamBody(id), false);
    else if (target.starts_with("/measured/"))
        isReplied = stream(streamBody(id), true);
    else if (target.starts_with("/upload/"))
        isReplied = takeUpload(id);
    else {
        if (target.starts_with("/late/"))
            std::this_thread::sleep_for(std::chrono::milliseconds(id % 20));  // as if it computed
        isReplied = reply(smallBody(id));
    }
    record.finished = isReplied;
}

bool PlainRequest::reply(const std::string& body)
{
    qv::HttpResponseDevice& device = getResponseDevice();
    if (device.writeBytes(body.data(), body.size()) != body.size())
        return false;
    device.endSending();
    return device.setResponseReady();
}

bool PlainRequest::stream(const std::string& body, bool isMeasured)
{
    qv::HttpResponseDevice& device = getResponseDevice();
    if (isMeasured)
        response.contentLength = static_cast<int64_t>(body.size());
    device.setResponseReady();
    for (size_t at = 0; at < body.size(); at += kPieceBytes) {
        const size_t size = std::min(kPieceBytes, body.size() - at);
        if (device.writeBytes(body.data() + at, size) != size)
            return false;
    }
    device.endSending();
    return true;
}

bool PlainRequest::takeUpload(uint64_t id)
{
    std::string body;
    std::vector<char> piece(kPieceBytes);
    qv::HttpReceiveDevice& device = getReceiveDevice();
    while (!device.atEnd())
        body.append(piece.data(), device.readBytes(piece.data(), piece.size()));
    if (device.hasDeviceError())
        return false;
    return reply(uploadBody(id, body));
}

PlainApplication::PlainApplication(Round& round) : mRound(round)
{
    for (size_t i = 0; i < kWorkers; ++i)
        mWorkers.emplace_back([this] { work(); });
    mReaper = std::thread([this] { reap(); });
}

PlainApplication::~PlainApplication()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWorkersEnd = true;
        mQueued.notify_all();
    }
    for (std::thread& worker : mWorkers)
        worker.join();
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mReaperEnds = true;
        mNewsCame.notify_all();
    }
    mReaper.join();
    EXPECT_EQ(mCompletions, mRound.created()) << "calls of onRequestCompleted";
}

qv::HttpBaseRequest* PlainApplication::createRequest()
{
    return new PlainRequest(mRound);
}

void PlainApplication::handleRequest(qv::HttpBaseRequest* base)
{
    auto* request = static_cast<PlainRequest*>(base);
    const std::lock_guard<std::mutex> lock(mMutex);
    mArrived.emplace_back(request);
    mQueue.push_back(request);
    mQueued.notify_one();
}

void PlainApplication::onNewWebSocket(qv::http::WebSocket* socket)
{
    const std::unique_ptr<qv::http::WebSocket> taken(socket);
    mRound.addError("an upgrade that nobody asked for");
    taken->markForDeletion();
}

void PlainApplication::onRequestCompleted()
{
    ++mCompletions;
    tellNews();
}

void PlainApplication::tellNews()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    ++mNews;
    mNewsCame.notify_all();
}

void PlainApplication::work()
{
    const std::string& thread = qv::qvThread::CurrentThreadId();
    for (;;) {
        PlainRequest* request = nullptr;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mQueued.wait(lock, [this] { return mWorkersEnd || !mQueue.empty(); });
            if (mQueue.empty())
                return;
            request = mQueue.front();
            mQueue.pop_front();
        }
        request->workerThreadStartHandling(thread);
        request->serve();
        request->workerThreadStopHandling(thread);
        request->served = true;
        tellNews();
    }
}

void PlainApplication::reap()
{
    std::list<std::unique_ptr<PlainRequest>> open;
    uint64_t seen = 0;
    for (bool ends = false; !ends;) {
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mNewsCame.wait(lock, [&] { return mNews != seen || mReaperEnds; });
            seen = mNews;
            ends = mReaperEnds;
            open.splice(open.end(), mArrived);
        }
        open.remove_if([](const std::unique_ptr<PlainRequest>& request) {
            return request->served && request->isCompleted();
        });
    }
    // The daemon has stopped and the workers have ended: there is nobody left to wait for.
    if (!open.empty())
        mRound.addError(std::to_string(open.size()) + " requests were never completed");
}

}  // namespace integration

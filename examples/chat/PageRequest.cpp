// A request for something that is known at once.

#include "PageRequest.h"

#include <qvSystem/qvThread.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <iterator>

namespace chat
{

void PageRequest::addHeader(const std::string& name, const std::string& value)
{
    std::string key = name;
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    mHead.headers[key] = {name, value};
}

// Complete before it is announced: it is sent from one buffer, with its length.
void PageRequest::reply(uint32_t status, const std::string& type, const std::string& body)
{
    mHead.status = status;
    addHeader("Content-Type", type);
    workerThreadStartHandling(qv::qvThread::CurrentThreadId());
    qv::HttpResponseDevice& device = getResponseDevice();
    device.writeBytes(body.data(), body.size());
    device.endSending();
    device.setResponseReady();
    workerThreadStopHandling(qv::qvThread::CurrentThreadId());
}

void PageRequest::onCompleted(int)
{
    mOwner.complete(*this);
}

void PageRequest::replyError(uint32_t status, const std::string& message)
{
    reply(status, "application/json",
          nlohmann::json({{"error", message}, {"status", status}}).dump());
}

PageRequest& PageRequests::create()
{
    deleteOver();
    const std::lock_guard<std::mutex> locker(mMutex);
    mOpen.emplace_back(*this);
    mOpen.back().mPlace = std::prev(mOpen.end());
    return mOpen.back();
}

void PageRequests::deleteOver()
{
    std::list<PageRequest> over;
    {
        const std::lock_guard<std::mutex> locker(mMutex);
        over.swap(mOver);
    }
    // Takes the mutex that the daemon holds while it completes a request.
    for (const PageRequest& request : over)
        static_cast<void>(request.isCompleted());
}

// A request cannot be deleted inside its completion: the daemon still holds a mutex of it.
void PageRequests::complete(PageRequest& request)
{
    const std::lock_guard<std::mutex> locker(mMutex);
    mOver.splice(mOver.end(), mOpen, request.mPlace);
}

}  // namespace chat

/// A request for something that is known at once.
#ifndef CHAT_PAGEREQUEST_H
#define CHAT_PAGEREQUEST_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include <cstdint>
#include <list>
#include <mutex>
#include <string>

namespace chat
{

class PageRequests;

/// Responded to on the daemon's thread, which calls everything here.
class PageRequest : public qv::HttpBaseRequest, private qv::HttpWaitListener
{
public:
    /// Made by its owner.
    explicit PageRequest(PageRequests& owner) : mOwner(owner) {}

    /// Adds a header to the response that follows.
    void addHeader(const std::string& name, const std::string& value);

    /// Responds, once. `body` must be shorter than 256 KiB: a longer one would wait for this
    /// thread.
    void reply(uint32_t status, const std::string& type, const std::string& body);

    /// Responds with `{"error": message, "status": status}`.
    void replyError(uint32_t status, const std::string& message);

    qv::HttpResponseInterface& getResponse() override { return mHead; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }

private:
    friend class PageRequests;

    class Head : public qv::HttpResponseInterface
    {
    public:
        const CookieMap& getCookies() override { return cookies; }
        const HeaderMap& getHeaders() override { return headers; }
        uint32_t getStatusCode() override { return status; }
        int64_t getContentLength() override { return -1; }  // that of the written body
        std::string describe() override { return std::to_string(status); }

        CookieMap cookies;
        HeaderMap headers;
        uint32_t status = 200;
    };

    void onWaitingForData() override {}
    void onCompleted(int) override;

    PageRequests& mOwner;
    std::list<PageRequest>::iterator mPlace;
    Head mHead;
};

/// Owns the requests of a server, which it must outlive. Any thread.
class PageRequests
{
public:
    /// A new request, deleted some time after its completion.
    PageRequest& create();

private:
    friend class PageRequest;

    void complete(PageRequest& request);
    void deleteOver();

    std::mutex mMutex;
    std::list<PageRequest> mOpen;  // under mMutex
    std::list<PageRequest> mOver;  // under mMutex: completed
};

}  // namespace chat

#endif

// A request with the minimum that the library requires.
#ifndef BENCH_SERVER_INLINEREQUEST_H
#define BENCH_SERVER_INLINEREQUEST_H

#include "support/Question.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench
{

// The head of every response: one header, shared by all requests.
class InlineHead : public qv::HttpResponseInterface
{
public:
    void set(uint32_t status, int64_t contentLength);
    // In place of the usual header.
    void setHeaders(HeaderMap headers);

    const CookieMap& getCookies() override;
    const HeaderMap& getHeaders() override;
    uint32_t getStatusCode() override { return mStatus; }
    int64_t getContentLength() override { return mContentLength; }
    std::string describe() override;

private:
    uint32_t mStatus = 200;
    int64_t mContentLength = -1;
    std::unique_ptr<HeaderMap> mHeaders;  // null: the usual one
};

class InlineRequest;

// The completed requests of one daemon thread, which deletes them.
class RequestBin
{
public:
    // Any thread: that of a relay completes the secure ones.
    void add(InlineRequest& request);

    // The one that was added last; null when there is none. Daemon thread.
    InlineRequest* take();

    std::vector<InlineRequest*> inUse;  // taken, and not over. Daemon thread

private:
    std::atomic<InlineRequest*> mAdded{nullptr};
    InlineRequest* mTaken = nullptr;
};

// Served by one call of `serve` on any thread, which does not use it afterwards.
class InlineRequest : public qv::HttpBaseRequest, private qv::HttpWaitListener
{
public:
    // `lends`: large bodies are sent without a copy, which needs event-driven mode.
    InlineRequest(RequestBin& bin, bool lends) : mBin(bin), mLends(lends) {}

    // The requested page. Daemon thread.
    const Question& findQuestion();

    // Whether the head announces a body.
    bool hasBody() const;

    // Serves the request completely, or with another page.
    void serve() { serve(mQuestion); }
    void serve(const Question& question);

    // Serves the request with `text`.
    void serveText(const std::string& text);

    // Using a connection that has been upgraded.
    using TakeUpgraded = std::function<void(std::unique_ptr<qv::UpgradedConnection>)>;

    // Accepts an upgrade.
    void upgrade(qv::HttpResponseInterface::HeaderMap headers, TakeUpgraded take);

    // Refuses an upgrade.
    void refuse(uint32_t status, const std::string& reason,
                qv::HttpResponseInterface::HeaderMap headers);

    // Served, and the daemon has completed it, too: may be deleted. Any thread but inside the
    // callback that completes it.
    bool isOver() const { return mServed.load(std::memory_order_acquire) && isCompleted(); }

    qv::HttpResponseInterface& getResponse() override { return mHead; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }

private:
    friend class RequestBin;

    Question getQuestion() const;
    void reply(uint32_t status, const std::string& body);
    void replyBig();
    void stream(uint64_t bytes);
    void countUpload();
    void countSlowly();
    void echo();
    uint64_t readBody(const std::function<void(const char*, size_t)>& take);
    void onWaitingForData() override;
    void onCompleted(int) override { mBin.add(*this); }
    void onUpgraded(std::unique_ptr<qv::UpgradedConnection> connection) override;

    RequestBin& mBin;
    InlineRequest* mNext = nullptr;  // in the bin
    const bool mLends;
    Question mQuestion;
    InlineHead mHead;
    TakeUpgraded mTakeUpgraded;
    std::atomic<bool> mServed{false};
};

}  // namespace bench

#endif

// A request whose body is not read any more is told, and may go on without the bytes it has
// received.

#include "support/EventRun.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include "request/DispatchAccess.h"
#include "request/MemoryBudget.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::onOneThread;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::impl::DispatchAccess;

constexpr uint64_t kLimitBytes = 100000;
constexpr size_t kBodyBytes = 600000;

std::string chunkedUpload()
{
    return "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n927c0\r\n" +
           std::string(kBodyBytes, 'b') + "\r\n0\r\n\r\n";
}

// Sends while the test goes on.
class Upload
{
public:
    explicit Upload(uint16_t port)
        : mClient(port), mSender([this] { mClient.send(chunkedUpload()); })
    {}
    ~Upload() { mSender.join(); }

    std::string body() { return mClient.receive().value_or(RawResponse()).body; }

private:
    RawClient mClient;
    std::thread mSender;
};

TEST(EventBodyPauses, AreToldWhenTheQueueIsFull)
{
    EventRun run([](EventRequest& r) { r.getReceiveDevice().setQueueLimit(kLimitBytes); },
                 onOneThread());
    Upload upload(run.port());
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    ASSERT_TRUE(waitUntil([&] { return request->pauses == 1; }));
    EXPECT_GE(request->pausedBytes, kLimitBytes);
    EXPECT_LT(request->pausedBytes, 2 * kLimitBytes);
    EXPECT_EQ(request->bodyCompletions, 0);
    run.work(*request,
             [](EventRequest& r) { r.respond(200, std::to_string(r.readBody().size())); });
    EXPECT_EQ(upload.body(), std::to_string(kBodyBytes));
}

TEST(EventBodyPauses, AreNotToldWithoutALimit)
{
    EventRun run([](EventRequest& r) { r.getReceiveDevice().setQueueLimit(0); }, onOneThread());
    Upload upload(run.port());
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    ASSERT_TRUE(waitUntil([&] { return request->bodyCompletions == 1; }));
    EXPECT_EQ(request->pauses, 0);
    run.work(*request, [](EventRequest& r) { r.respond(200, "whole"); });
    EXPECT_EQ(upload.body(), "whole");
}

TEST(EventBodyPauses, EndWhenTheReceivedBytesAreDiscarded)
{
    EventRun run([](EventRequest& r) { r.getReceiveDevice().setQueueLimit(kLimitBytes); },
                 onOneThread());
    Upload upload(run.port());
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    int discarded = 0;
    ASSERT_TRUE(waitUntil([&] {
        if (request->pauses > discarded) {
            ++discarded;
            request->getReceiveDevice().discardReceived();
        }
        return request->bodyCompletions == 1;
    }));
    EXPECT_GT(discarded, 2);
    request->getReceiveDevice().discardReceived();
    const auto budget = DispatchAccess::budget(request->getReceiveDevice());
    ASSERT_TRUE(budget);
    EXPECT_EQ(budget->getUsedBytes(), 0u);
    run.work(*request,
             [](EventRequest& r) { r.respond(200, std::to_string(r.readBody().size())); });
    EXPECT_EQ(upload.body(), "0");
}

TEST(EventBodyPauses, AreToldWhenTheMemoryOfTheServerIsUsedUp)
{
    ServerOptions options = onOneThread();
    options.memoryBudgetBytes = kLimitBytes;
    options.uploadQueueBytes = 10 * kBodyBytes;
    EventRun run([](EventRequest&) {}, options);
    Upload upload(run.port());
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    ASSERT_TRUE(waitUntil([&] { return request->pauses == 1; }));
    EXPECT_GT(request->pausedBytes, kLimitBytes);
    run.work(*request,
             [](EventRequest& r) { r.respond(200, std::to_string(r.readBody().size())); });
    EXPECT_EQ(upload.body(), std::to_string(kBodyBytes));
}

}  // namespace

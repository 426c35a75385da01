// The memory that the uploads of a server share.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include "request/DispatchAccess.h"
#include "request/MemoryBudget.h"

#include <support/BackgroundCall.h>

#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::Latch;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::impl::DispatchAccess;
using qv::impl::MemoryBudget;
using qv::tests::BackgroundCall;
using std::chrono::milliseconds;
using ::testing::Field;
using ::testing::Optional;

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kPieceBytes = 32 * kKiB;  // the memory of a connection

ServerOptions withBudget(uint64_t bytes)
{
    ServerOptions options = onOneThread();
    options.memoryBudgetBytes = bytes;
    return options;
}

std::string post(uint64_t bytes)
{
    return "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(bytes) + "\r\n\r\n";
}

void readAndRespond(EventRequest& request)
{
    request.respond(200, std::to_string(request.readBody().size()));
}

// Nobody reads an upload before `read`.
class Memory : public ::testing::Test
{
protected:
    void serve(const ServerOptions& options, EventRun::Handler handler = {})
    {
        mRun.emplace(
            [this, handler](EventRequest& request) {
                {
                    const std::lock_guard<std::mutex> lock(mMutex);
                    mBudget = DispatchAccess::budget(request.getReceiveDevice());
                }
                if (handler)
                    handler(request);
            },
            options);
    }

    // The budget must be unused in the end: all that was charged has been credited.
    void stop()
    {
        mRun.reset();
        if (mBudget) {
            EXPECT_EQ(mBudget->getUsedBytes(), 0u);
            EXPECT_FALSE(mBudget->hasWaiting());
        }
        mBudget.reset();
    }

    void TearDown() override { stop(); }

    EventRun& run() { return *mRun; }

    uint64_t used()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mBudget ? mBudget->getUsedBytes() : 0;
    }

    bool isUploadWaiting()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mBudget && mBudget->hasWaiting();
    }

    // A complete upload that stays unread.
    void fill(RawClient& client, uint64_t bytes)
    {
        const size_t index = run().requestCount();
        ASSERT_TRUE(client.send(post(bytes) + pattern(bytes)));
        EventRequest* const request = run().request(index);
        ASSERT_TRUE(request);
        ASSERT_TRUE(waitUntil([&] { return request->bodyCompletions == 1; }));
    }

    void read(size_t index) { run().work(*run().request(index), &readAndRespond); }

private:
    std::optional<EventRun> mRun;
    std::mutex mMutex;
    std::shared_ptr<MemoryBudget> mBudget;
};

TEST_F(Memory, OfUnreadUploadsIsBounded)
{
    constexpr uint64_t kBudget = 256 * kKiB;
    constexpr size_t kUploads = 8;
    constexpr uint64_t kBytes = 4096 * kKiB;
    ServerOptions options = withBudget(kBudget);
    options.threads = 2;
    serve(options);
    const std::string body = pattern(kBytes);
    std::vector<std::unique_ptr<RawClient>> clients;
    std::vector<std::unique_ptr<BackgroundCall>> senders;
    for (size_t i = 0; i < kUploads; ++i) {
        clients.push_back(std::make_unique<RawClient>(run().port()));
        senders.push_back(std::make_unique<BackgroundCall>(
            [&client = *clients.back(), &body] { client.send(post(kBytes) + body); }));
    }
    ASSERT_TRUE(run().request(kUploads - 1));
    ASSERT_TRUE(waitUntil([&] { return used() > kBudget && isUploadWaiting(); }));
    // A server that does not stop takes all of it meanwhile.
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_LE(used(), kBudget + kUploads * kPieceBytes);
    for (size_t i = 0; i < kUploads; ++i)
        read(i);
    for (const auto& client : clients)
        EXPECT_THAT(client->receive(), Optional(Field(&RawResponse::body, std::to_string(kBytes))));
}

TEST_F(Memory, UpToTheBudgetStopsNoUpload)
{
    constexpr uint64_t kBytes = 64 * kKiB;
    constexpr size_t kUploads = 4;
    serve(withBudget(kUploads * kBytes));
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kUploads; ++i) {
        clients.push_back(std::make_unique<RawClient>(run().port()));
        fill(*clients.back(), kBytes);
    }
    EXPECT_EQ(used(), kUploads * kBytes);
    EXPECT_FALSE(isUploadWaiting());
    for (size_t i = 0; i < kUploads; ++i)
        read(i);
    for (const auto& client : clients)
        EXPECT_THAT(client->receive(), Optional(Field(&RawResponse::status, 200)));
}

TEST_F(Memory, ThatOthersFreeResumesAnUploadThatNobodyReads)
{
    constexpr uint64_t kFirst = 100 * kKiB;
    constexpr uint64_t kSecond = 90 * kKiB;
    serve(withBudget(kFirst));
    RawClient first(run().port());
    fill(first, kFirst);
    RawClient second(run().port());
    ASSERT_TRUE(second.send(post(kSecond) + pattern(kSecond)));
    ASSERT_TRUE(waitUntil([&] { return isUploadWaiting(); }));
    EventRequest* const waiting = run().request(1);
    ASSERT_TRUE(waiting);
    EXPECT_EQ(waiting->bodyCompletions, 0);
    EXPECT_LE(used(), kFirst + kPieceBytes);
    read(0);
    EXPECT_THAT(first.receive(), Optional(Field(&RawResponse::status, 200)));
    EXPECT_TRUE(waitUntil([&] { return waiting->bodyCompletions == 1; }));
    EXPECT_FALSE(isUploadWaiting());
    read(1);
    EXPECT_THAT(second.receive(), Optional(Field(&RawResponse::body, std::to_string(kSecond))));
}

// The upload has less than its reader wants, and the memory never becomes free.
TEST_F(Memory, ThatIsUsedUpDoesNotStopAReader)
{
    constexpr uint64_t kBudget = 64 * kKiB;
    constexpr uint64_t kBytes = 3 * kKiB * kKiB;
    ServerOptions options = withBudget(kBudget);
    for (const uint64_t queueBytes : {uint64_t{262144}, uint64_t{0}}) {
        SCOPED_TRACE(queueBytes);
        options.uploadQueueBytes = queueBytes;
        serve(options);
        RawClient holder(run().port());
        fill(holder, kBudget + 1);
        RawClient client(run().port());
        BackgroundCall sender([&] { client.send(post(kBytes) + pattern(kBytes)); });
        EventRequest* const request = run().request(1);
        ASSERT_TRUE(request);
        run().work(*request, [](EventRequest& r) {
            std::string body(kBytes, '\0');
            const uint64_t got = r.getReceiveDevice().readBytes(body.data(), body.size());
            r.respond(200, got == kBytes && body == pattern(kBytes) ? "whole" : "not whole");
        });
        EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "whole")));
        read(0);
        EXPECT_THAT(holder.receive(), Optional(Field(&RawResponse::status, 200)));
        stop();
    }
}

TEST_F(Memory, WithoutABudgetIsNotCounted)
{
    serve(withBudget(0));
    RawClient client(run().port());
    fill(client, 100 * kKiB);
    EXPECT_EQ(used(), 0u);
    read(0);
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::status, 200)));
}

// The daemon sends nothing before it has received the whole body: a writer that is full waits for
// an upload that must not wait for memory.
TEST_F(Memory, EndsAnUploadWhoseWriterWaitsForItsEnd)
{
    constexpr uint64_t kBytes = 8 * kKiB * kKiB;
    const auto writeFirst = [](EventRequest& request) {
        const std::string piece(64 * kKiB, 'x');
        request.getResponseDevice().setResponseReady();
        for (int i = 0; i < 16; ++i)
            request.getResponseDevice().writeBytes(piece.data(), piece.size());
        request.readBody();
        request.getResponseDevice().endSending();
    };
    for (const uint64_t budget : {uint64_t{512 * kKiB}, 2 * kBytes}) {
        SCOPED_TRACE(budget);
        serve(withBudget(budget), [&](EventRequest& request) { run().work(request, writeFirst); });
        RawClient client(run().port());
        BackgroundCall sender([&] { client.send(post(kBytes) + pattern(kBytes)); });
        const auto response = client.receiveHead();
        EventRequest* const request = run().request(0);
        ASSERT_TRUE(request);
        if (budget > kBytes) {
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, 200);
            client.receiveSome(1);
        } else {
            // The reset of the unread bytes may destroy the 503.
            if (response) {
                EXPECT_EQ(response->status, 503);
                EXPECT_EQ(response->value("Retry-After"), "1");
            }
            ASSERT_TRUE(waitUntil([&] { return request->completions == 1; }));
            EXPECT_EQ(request->abortReason(), "MemoryExhausted");
            EXPECT_EQ(request->connectionError(), "Http response device : MemoryExhausted");
        }
        EXPECT_TRUE(sender.waitForEnd());
        client.reset();
        stop();
    }
}

// Uploads that are reset, read slowly, not at all, and to the end.
TEST_F(Memory, IsCreditedAtEachEndOfAnUpload)
{
    constexpr uint64_t kBudget = 200 * kKiB;
    constexpr size_t kClients = 6;
    constexpr size_t kRounds = 25;
    ServerOptions options = withBudget(kBudget);
    options.threads = 2;
    options.uploadQueueBytes = 96 * kKiB;
    serve(options, [this](EventRequest& request) {
        const std::string& target = request.getOriginalFullUrl();
        if (target == "/unread")
            return;
        run().work(request, [target](EventRequest& r) {
            std::vector<char> piece(target == "/slow" ? 1000 : 50000);
            uint64_t got = 0;
            for (size_t i = 0; !r.getReceiveDevice().atEnd(); ++i) {
                if (target == "/part" && i == 2)
                    break;
                got += r.getReceiveDevice().readBytes(piece.data(), piece.size());
            }
            r.respond(200, std::to_string(got));
        });
    });
    std::vector<std::unique_ptr<BackgroundCall>> clients;
    for (size_t i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<BackgroundCall>([this, i] {
            std::mt19937 random(static_cast<unsigned>(i));
            const char* const targets[] = {"/unread", "/slow", "/part", "/whole"};
            for (size_t round = 0; round < kRounds; ++round) {
                const size_t kind = random() % 4;
                const uint64_t bytes = random() % (300 * kKiB) + 1;
                const bool isReset = kind == 0 || random() % 3 == 0;
                RawClient client(run().port());
                const std::string body = pattern(bytes);
                client.send("POST " + std::string(targets[kind]) + " HTTP/1.1\r\nHost: x\r\n" +
                            "Content-Length: " + std::to_string(bytes) + "\r\n\r\n");
                // Not more than the server takes unread.
                client.send(std::string_view(body).substr(0, isReset ? bytes / 2 : bytes));
                if (isReset)
                    client.reset();
                else
                    EXPECT_TRUE(client.receive()) << targets[kind] << " " << bytes;
            }
        }));
    clients.clear();
    EXPECT_TRUE(waitUntil([&] { return !isUploadWaiting(); }));
}

}  // namespace

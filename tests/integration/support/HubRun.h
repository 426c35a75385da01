/// A server with a WebSocketHub for a test, and a record of its connections.
#ifndef WENDREL_TESTS_INTEGRATION_HUBRUN_H
#define WENDREL_TESTS_INTEGRATION_HUBRUN_H

#include "ProcessLog.h"
#include "TestServer.h"
#include "Waiting.h"
#include "WebSocketClient.h"

#include <Wendrel/kit/WebSocketHub.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace integration
{

using qv::kit::HubConnection;
using qv::kit::WebSocketHub;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// The limit of a prompt end: far above the time of the hub, far below the system's timeouts.
constexpr std::chrono::seconds kPrompt(10);

/// More than the sockets of both sides take.
constexpr size_t kFloodBytes = 24 * 1024 * 1024;

/// Less than that, and more than a client's socket takes alone.
constexpr size_t kFillBytes = 500000;

/// The events of a test's connections. Outlives the server.
struct HubRecord
{
    std::atomic<int> made{0};
    std::atomic<int> closed{0};
    std::atomic<int> destroyed{0};
    std::atomic<int> closedAgain{0};
    std::atomic<int> closedWhileHandling{0};
    std::atomic<int> handledAfterClose{0};
    Channel<std::string> messages;
    Channel<int> closings;
    Latch latch;
    Latch endLatch;
    milliseconds endLimit = kLimit;
    std::atomic<int> toldEnds{0};  // onClosed has returned
};

/// Echoes, and obeys some words.
class Echo : public HubConnection
{
public:
    Echo(qv::http::WebSocket&& upgraded, HubRecord& record)
        : HubConnection(std::move(upgraded)), mRecord(record)
    {
        ++mRecord.made;
    }

    ~Echo() override { ++mRecord.destroyed; }

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        mHandling = true;
        mRecord.handledAfterClose += mClosed;
        const std::string_view bytes(reinterpret_cast<const char*>(received.data()),
                                     received.size());
        mRecord.messages.push(std::string(bytes.substr(0, 32)));
        obey(bytes, isBinary);
        mHandling = false;
    }

protected:
    void onClosed() override
    {
        mRecord.closedAgain += mClosed.exchange(true);
        mRecord.closedWhileHandling += mHandling;
        ++mRecord.closed;
        mRecord.closings.push(0);
        if (mEndsSlowly)
            mRecord.endLatch.wait(mRecord.endLimit);
        ++mRecord.toldEnds;
    }

private:
    void obey(std::string_view bytes, bool isBinary)
    {
        if (bytes == "abort")
            abort();
        else if (bytes == "flood")
            sendBinary(std::string(kFloodBytes, 'f'));
        else if (bytes == "fill")
            sendBinary(std::string(kFillBytes, 'f'));
        else if (bytes == "wait")
            mRecord.latch.wait();
        else if (bytes == "end slowly")
            mEndsSlowly = true;
        if (bytes == "quiet")
            return;
        if (isBinary)
            sendBinary(bytes);
        else
            sendText(bytes);
    }

    HubRecord& mRecord;
    std::atomic<bool> mHandling{false};
    std::atomic<bool> mClosed{false};
    bool mEndsSlowly = false;
};

struct HubSetup
{
    WebSocketHub::Options options;
    milliseconds closeLimit{0};  // in onServerStopped
};

/// A server with a hub, in polling mode, on a port that was free when it started.
class HubRun
{
public:
    explicit HubRun(const HubSetup& setup = HubSetup())
        : mHub(std::make_unique<WebSocketHub>(setup.options))
    {
        TestServerOptions options;
        options.threadPoolSize = 2;
        options.connectionTimeoutMs = 360000;
        options.allowWebSocket = true;
        options.onNewWebSocket = [this](std::unique_ptr<qv::http::WebSocket> upgraded) {
            mHub->adopt<Echo>(upgraded.release(), mRecord);
        };
        options.onServerStopped = [this, limit = setup.closeLimit] {
            if (mHub)
                mHub->close(limit);
        };
        mServer = std::make_unique<TestServer>(
            [](TestRequest& request) { request.respond(404, std::string()); }, options);
    }

    uint16_t port() const { return mServer->port(); }
    WebSocketHub& hub() { return *mHub; }
    void destroyHub() { mHub.reset(); }
    HubRecord& record() { return mRecord; }

    void stop() { mServer->server().stopServer(true); }

    /// Every connection that was made has been told of its end once and in order, and deleted.
    void expectNothingIsLeft()
    {
        EXPECT_EQ(mRecord.closed, mRecord.made);
        EXPECT_EQ(mRecord.destroyed, mRecord.made);
        EXPECT_EQ(mRecord.closedAgain, 0);
        EXPECT_EQ(mRecord.closedWhileHandling, 0);
        EXPECT_EQ(mRecord.handledAfterClose, 0);
    }

    void stopAndExpectNothingIsLeft()
    {
        stop();
        mServer.reset();
        expectNothingIsLeft();
        /// The daemon logs each connection that is open when it stops.
        EXPECT_EQ(linesOfTheDaemon(), 0u);
    }

private:
    static size_t linesOfTheDaemon()
    {
        size_t count = 0;
        for (const auto& line : processLog->lines())
            count +=
                line.message.find("\"upgraded\" connection was not closed") != std::string::npos;
        return count;
    }

    HubRecord mRecord;
    std::unique_ptr<WebSocketHub> mHub;
    std::unique_ptr<TestServer> mServer;  // last: it closes the hub
};

/// True when a flood is on its way to a client that does not read.
inline bool waitUntilSomethingIsQueued(HubRun& run)
{
    return waitUntil([&] {
        bool queued = false;
        run.hub().forEach([&](HubConnection& each) { queued |= each.hasWritePending(); });
        return queued;
    });
}

inline void expectEcho(WebSocketClient& client, const std::string& bytes, bool binary)
{
    ASSERT_TRUE(binary ? client.sendBinary(bytes) : client.sendText(bytes));
    const auto message = client.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->isBinary, binary);
    EXPECT_TRUE(message->bytes == bytes) << message->bytes.size() << " bytes";
}

}  // namespace integration

#endif

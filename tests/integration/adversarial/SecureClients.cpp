// Clients of secure endpoints that begin and do not go on.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/TestMode.h"
#include "../support/Waiting.h"

#include <gtest/gtest.h>

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace adversarial
{
namespace
{

constexpr size_t kHandshakes = 10000;
constexpr size_t kMaxHandshakes = 1024;  // that the server keeps at a time
constexpr size_t kMaxHandshakeBytes = 128u << 10;
constexpr size_t kToleratedBytes = 16u << 20;
constexpr double kKib = 1024;

// The first message of a client.
std::string clientHello()
{
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(
        SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    const std::unique_ptr<SSL, decltype(&SSL_free)> session(SSL_new(context.get()), &SSL_free);
    BIO* const sent = BIO_new(BIO_s_mem());
    SSL_set_bio(session.get(), BIO_new(BIO_s_mem()), sent);
    SSL_connect(session.get());
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(sent, &bytes);
    return {bytes, static_cast<size_t>(size)};
}

// Requests on a connection that has been open before.
class KeptAlive
{
public:
    explicit KeptAlive(uint16_t port) : mClient(port)
    {
        ask();
        mThread = std::thread([this] {
            while (!mStop) {
                ask();
                std::this_thread::sleep_for(milliseconds(5));
            }
        });
    }
    ~KeptAlive() { stop(); }
    KeptAlive(const KeptAlive&) = delete;
    KeptAlive& operator=(const KeptAlive&) = delete;

    const Served& stop()
    {
        mStop = true;
        if (mThread.joinable())
            mThread.join();
        return mServed;
    }

private:
    void ask()
    {
        const auto start = Clock::now();
        mClient.send(integration::getRequest("/small"));
        const auto response = mClient.receive();
        if (response && response->body == "small")
            mServed.times.add(millisecondsSince(start));
        else
            ++mServed.failures;
    }

    integration::RawClient mClient;
    Served mServed;  // the thread's until it has ended
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

class SecureClients : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!integration::isSecure())
            GTEST_SKIP() << "there are no secure endpoints";
    }
};

// Of those that are not finished the newest are kept, and these end at their deadline: nothing of
// the clients ends them.
TEST_F(SecureClients, ThatStopAfterTheirFirstMessageEndByTheirDeadline)
{
    const size_t handshakes = scaled(kHandshakes);
    constexpr double kDeadlineMs = 3000;
    ServerProcess server({"threads=2", "workers=16", "places=20000", "handshake=3000"});
    serve(server.port(), 200).print("new-connections-without-them");
    const Footprint before = server.quietFootprint();
    Crowd crowd(server.port());
    Footprint most;
    {
        KeptAlive kept(server.port());
        Meanwhile fresh(server.port(), Meanwhile::Requests);
        const std::string hello = clientHello();
        const auto start = Clock::now();
        for (size_t i = 0; i < handshakes; ++i) {
            crowd.send(crowd.open(), hello);
            constexpr size_t kStep = 100;
            if (i % kStep == 0)
                crowd.runFor(milliseconds(1));
        }
        const auto all = [&](const auto& isSo) {
            for (const Client& client : crowd.clients()) {
                if (!isSo(client))
                    return false;
            }
            return true;
        };
        EXPECT_TRUE(crowd.run(
            [&] {
                return all([](const Client& client) {
                    return client.state == Client::Ended || client.received != 0;
                });
            },
            kLimit));
        metric("all-begun-after", millisecondsSince(start), "ms");
        most = server.footprint();
        EXPECT_TRUE(crowd.run([&] { return crowd.count(Client::Ended) == handshakes; }, kLimit));
        metric("all-ended-after", millisecondsSince(start), "ms");
        kept.stop().print("kept-connection-beside-them");
        fresh.stop().print("new-connections-beside-them");
        EXPECT_EQ(kept.stop().failures, 0u);
        EXPECT_GT(fresh.stop().times.values.size(), 0u);
    }
    size_t begun = 0;
    size_t refused = 0;
    for (const Client& client : crowd.clients()) {
        begun += client.received != 0 ? 1 : 0;
        refused += client.wasRefused ? 1 : 0;
    }
    metric("handshakes", static_cast<double>(handshakes), "connections");
    metric("deadline", kDeadlineMs, "ms");
    metric("responded-to", static_cast<double>(begun), "connections");
    const size_t grown = most.residentBytes - std::min(most.residentBytes, before.residentBytes);
    metric("resident-memory-beside-them", static_cast<double>(grown) / kKib, "KiB");
    EXPECT_EQ(refused, 0u);
    EXPECT_GT(begun, 0u);
    if (!kSanitized) {
        EXPECT_LE(grown, kMaxHandshakes * kMaxHandshakeBytes);
    }
    EXPECT_TRUE(isServed(server.port()));
    server.expectAsBefore(before, kToleratedBytes);
    server.stop(kLimit);
}

// Requests whose responses wait in the server for a client that reads nothing.
TEST_F(SecureClients, ThatDoNotReadHoldAFewRequestsEach)
{
    constexpr double kMaxHeld = 64;  // of a connection
    constexpr size_t kRequests = 30000;
    constexpr int kSteadyCount = 5;
    constexpr size_t kMaxConnectionBytes = 1u << 20;
    const size_t connections = scaled(10);
    ServerProcess server({"threads=2", "workers=16", "timeout=120000"});
    serve(server.port(), 200);
    const Footprint before = server.quietFootprint();
    const Report quiet = server.metrics();
    std::vector<std::unique_ptr<integration::RawClient>> clients;
    for (size_t i = 0; i < connections; ++i) {
        const int descriptor = integration::connectPlain(server.port());
        const int small = 4096;
        ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        clients.push_back(std::make_unique<integration::RawClient>(
            integration::RawClient::Connected{descriptor}, [](SSL_CTX*, SSL*) {}));
        ASSERT_TRUE(clients.back()->isSecure());
    }
    const Report idle = server.metrics();
    std::string requests;
    for (size_t i = 0; i < kRequests; ++i)
        requests += integration::getRequest("/buffered/150");
    std::vector<size_t> sent(connections);
    uint64_t taken = 0;
    int steady = 0;
    // The server reads no more than it may respond to.
    const auto hasStopped = [&] {
        for (size_t i = 0; i < connections; ++i) {
            size_t count = 0;
            while (sent[i] < requests.size() &&
                   SSL_write_ex(clients[i]->session(), requests.data() + sent[i],
                                requests.size() - sent[i], &count) == 1)
                sent[i] += count;
        }
        const Report report = server.metrics();
        const uint64_t now = report.at("requests");
        const bool isHeld = now > report.at("completed");
        steady = now == std::exchange(taken, now) && isHeld ? steady + 1 : 0;
        std::this_thread::sleep_for(milliseconds(100));
        return steady == kSteadyCount;
    };
    ASSERT_TRUE(integration::waitUntil(hasStopped));
    const Report held = server.metrics();
    const auto each = [&](const char* name, const Report& from) {
        return static_cast<double>(held.at(name) - from.at(name)) /
               static_cast<double>(connections);
    };
    metric("connections", static_cast<double>(connections), "connections");
    metric("requests-of-each", each("requests", idle), "requests");
    const double heldOfEach = each("requests", idle) - each("completed", idle);
    metric("held-of-each", heldOfEach, "requests");
    metric("heap-of-each-idle",
           static_cast<double>(idle.at("heap") - quiet.at("heap")) /
               static_cast<double>(connections) / kKib,
           "KiB");
    metric("heap-of-each-for-them", each("heap", idle) / kKib, "KiB");
    EXPECT_GT(heldOfEach, 0.0);
    EXPECT_LE(heldOfEach, kMaxHeld + 1);
    if (!kSanitized) {
        EXPECT_LE(each("heap", idle), kMaxConnectionBytes);
    }
    EXPECT_TRUE(isServed(server.port()));
    for (const auto& client : clients)
        client->reset();
    EXPECT_TRUE(integration::waitUntil([&] {
        const Report now = server.metrics();
        // Heads that were cut off are completed, too.
        return now.at("completed") >= now.at("requests");
    }));
    server.expectAsBefore(before, kToleratedBytes);
    server.stop(kLimit);
}

}  // namespace
}  // namespace adversarial

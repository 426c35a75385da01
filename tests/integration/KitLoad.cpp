// Many clients at once, good and bad: every request ends, and every one that was created is
// deleted.

#include "support/KitRun.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace integration
{
namespace
{

using qv::HttpBaseRequest;
using qv::kit::BodyResult;
using qv::kit::Request;
using qv::kit::Router;

constexpr unsigned int kClients = 8;
constexpr size_t kStreamBytes = 1500000;
constexpr size_t kUploadBytes = 300000;
constexpr uint64_t kBodyLimitBytes = 1000000;

// Each place of a body can be told from its neighbours.
std::string bodyOf(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 31 + i / 251);
    return bytes;
}

void addRoutes(Router& router, std::atomic<uint64_t>& replies)
{
    router.add(HttpBaseRequest::GET, "/small/{n}", [&replies](Request& request) {
        replies += request.reply(200, "text/plain", "small " + request.getPathParameter("n"));
    });
    router.add(HttpBaseRequest::PUT, "/echo", [](Request& request) {
        std::string body;
        if (request.readWholeBody(kBodyLimitBytes, body) == BodyResult::Complete)
            request.reply(200, "application/octet-stream", body);
    });
    router.add(HttpBaseRequest::GET, "/stream", [](Request& request) {
        static const std::string body = bodyOf(kStreamBytes);
        for (size_t at = 0; at < body.size(); at += 7777) {
            if (!request.write(body.data() + at, std::min<size_t>(7777, body.size() - at)))
                return;
        }
        request.finish();
    });
    router.add(HttpBaseRequest::GET, "/throws",
               [](Request&) { throw std::runtime_error("on purpose"); });
    router.add(HttpBaseRequest::GET, "/silent", [](Request&) {});
}

// A client with random behaviour. Each of its responses must be correct or 503 for lack of workers.
class LoadClient
{
public:
    LoadClient(uint16_t port, unsigned int seed) : mPort(port), mRandom(seed) {}

    void run(int rounds)
    {
        const std::vector<void (LoadClient::*)()> deeds = {
            &LoadClient::askSmall,     &LoadClient::askSmall,      &LoadClient::askHead,
            &LoadClient::upload,       &LoadClient::uploadChunked, &LoadClient::readStream,
            &LoadClient::leaveRequest, &LoadClient::leaveResponse, &LoadClient::leaveStream,
            &LoadClient::askForFailure};
        for (int i = 0; i < rounds; ++i)
            (this->*deeds[(dice(deeds.size()) + i) % deeds.size()])();
        // Each holds a worker for a second or two: one per client.
        leaveUpload();
        askSmall();
    }

    int responses() const { return mResponses; }
    int refused() const { return mRefused; }
    const std::vector<std::string>& wrong() const { return mWrong; }

private:
    size_t dice(size_t sides) { return mRandom() % sides; }

    // True when the response has the status; false, without an error, for a refusal.
    bool expect(const std::optional<RawResponse>& response, int status, const std::string& what)
    {
        if (response && response->status == 503 && response->value("Retry-After") == "1") {
            ++mRefused;
            return false;
        }
        if (response && response->status == status) {
            ++mResponses;
            return true;
        }
        complain(what + ": " + (response ? std::to_string(response->status) : "no response"));
        return false;
    }

    void complain(const std::string& what) { mWrong.push_back(what); }

    void askSmall()
    {
        RawClient client(mPort);
        for (size_t i = 0, end = 1 + dice(20); i < end; ++i) {
            const std::string n = std::to_string(dice(1000000));
            client.send(getRequest("/small/" + n));
            const auto response = client.receive();
            if (expect(response, 200, "small") && response->body != "small " + n)
                complain("small " + n + ": " + response->body);
            if (!response)
                return;
        }
    }

    void askHead()
    {
        RawClient client(mPort);
        client.send("HEAD /small/12345 HTTP/1.1\r\nHost: x\r\n\r\n");
        const auto head = client.receive(true);
        if (expect(head, 200, "head") && head->value("Content-Length") != "11")
            complain("head: length " + head->value("Content-Length"));
        client.send(getRequest("/small/1"));
        expect(client.receive(), 200, "small after head");
    }

    void upload()
    {
        const std::string body = bodyOf(dice(kUploadBytes));
        RawClient client(mPort);
        client.send("PUT /echo HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n");
        client.send(body);
        const auto response = client.receive();
        if (expect(response, 200, "upload") && response->body != body)
            complain("upload: another body");
    }

    void uploadChunked()
    {
        const std::string body = bodyOf(dice(kUploadBytes));
        RawClient client(mPort);
        client.send("PUT /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
        for (size_t at = 0; at < body.size();) {
            const size_t size = std::min(body.size() - at, 1 + dice(100000));
            char line[32];
            std::snprintf(line, sizeof line, "%zx\r\n", size);
            client.send(line + body.substr(at, size) + "\r\n");
            at += size;
        }
        client.send("0\r\n\r\n");
        const auto response = client.receive();
        if (expect(response, 200, "chunked upload") && response->body != body)
            complain("chunked upload: another body");
    }

    // Slowly: in small pieces, with other requests in between.
    void readStream()
    {
        RawClient client(mPort);
        client.send(getRequest("/stream"));
        askSmall();
        const auto response = client.receive();
        if (expect(response, 200, "stream") && response->body != bodyOf(kStreamBytes))
            complain("stream: another body");
    }

    // At any byte of the request.
    void leaveRequest()
    {
        const std::string request =
            getRequest("/small/1", "X-Long: " + std::string(200, 'x') + "\r\n");
        RawClient client(mPort);
        client.send(request.substr(0, dice(request.size() + 1)));
        leave(client);
    }

    void leaveResponse()
    {
        RawClient client(mPort);
        client.send(getRequest(dice(2) ? "/small/1" : "/silent"));
        if (dice(2))
            client.receiveSome(dice(200));
        leave(client);
    }

    void leaveStream()
    {
        RawClient client(mPort);
        client.send(getRequest("/stream"));
        if (dice(2)) {
            const auto head = client.receiveHead();
            if (head && head->status == 200)
                client.receiveExactly(dice(kStreamBytes));
        }
        leave(client);
    }

    // By a reset: the daemon does not notice an ordinary close that comes along with the last
    // bytes before it looks.
    void leaveUpload()
    {
        const std::string body = bodyOf(dice(kUploadBytes));
        RawClient client(mPort);
        client.send("PUT /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 300000\r\n\r\n" + body);
        client.reset();
    }

    void askForFailure()
    {
        RawClient client(mPort);
        client.send(getRequest(dice(2) ? "/throws" : "/silent"));
        expect(client.receive(), 500, "failure");
    }

    void leave(RawClient& client)
    {
        if (dice(4))
            client.reset();
        else
            client.close();
    }

    const uint16_t mPort;
    std::minstd_rand mRandom;
    int mResponses = 0;
    int mRefused = 0;
    std::vector<std::string> mWrong;
};

void expectNothingIsLeft(KitRun& run)
{
    EXPECT_EQ(run.application().getOpenCount(), 0u);
    EXPECT_EQ(KitRequest::sCreated, KitRequest::sDeleted);
    EXPECT_EQ(run.application().getRequestCount(), KitRequest::sCreated);
}

TEST(KitLoad, EveryRequestOfGoodAndBadClientsEnds)
{
    // Few workers and places: refusals are part of the test.
    for (const unsigned int workers : {16u, 3u}) {
        SCOPED_TRACE(workers);
        std::atomic<uint64_t> replies{0};
        KitRun run([&](Router& router) { addRoutes(router, replies); }, workers,
                   workers == 3 ? 2 : 64);
        std::vector<LoadClient> clients;
        for (unsigned int i = 0; i < kClients; ++i)
            clients.emplace_back(run.port(), i + workers * 100);
        std::vector<std::thread> threads;
        for (LoadClient& client : clients)
            threads.emplace_back([&client] { client.run(20); });
        for (std::thread& thread : threads)
            thread.join();
        int responses = 0;
        for (const LoadClient& client : clients) {
            EXPECT_THAT(client.wrong(), ::testing::IsEmpty());
            responses += client.responses();
            if (workers == 16) {
                EXPECT_EQ(client.refused(), 0);
            }
        }
        EXPECT_GT(responses, 0);
        EXPECT_TRUE(run.stop(kLimit));
        expectNothingIsLeft(run);
    }
}

// Clients that never stop asking, until the server does.
class Hammering
{
public:
    explicit Hammering(uint16_t port)
    {
        for (unsigned int i = 0; i < kClients; ++i)
            mThreads.emplace_back([this, port] {
                while (!mStop && hammer(port)) {
                }
            });
    }

    ~Hammering() { stop(); }

    void stop()
    {
        mStop = true;
        for (std::thread& thread : mThreads) {
            if (thread.joinable())
                thread.join();
        }
    }

    std::atomic<uint64_t> responses{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<uint64_t> wrong{0};

private:
    // False when the server has stopped.
    bool hammer(uint16_t port)
    {
        if (!RawClient::accepts("127.0.0.1", port))
            return false;
        try {
            RawClient client(port);
            for (int i = 0; i < 50 && client.send(getRequest("/small/1")); ++i) {
                const auto response = client.receive();
                if (!response)
                    break;
                if (response->status == 200 && response->body == "small 1")
                    ++responses;
                else
                    ++(response->status == 503 ? refused : wrong);
            }
        } catch (const std::runtime_error&) {
            return false;
        }
        return true;
    }

    std::atomic<bool> mStop{false};
    std::vector<std::thread> mThreads;
};

TEST(KitLoad, AStopWithTimeRespondsToEveryAcceptedRequest)
{
    std::atomic<uint64_t> replies{0};
    KitRun run([&](Router& router) { addRoutes(router, replies); });
    Hammering hammering(run.port());
    ASSERT_TRUE(waitUntil([&] { return hammering.responses > 300; }));
    EXPECT_TRUE(run.stop(kLimit));
    hammering.stop();
    EXPECT_EQ(hammering.responses, replies);
    EXPECT_EQ(hammering.wrong, 0u);
    expectNothingIsLeft(run);
}

TEST(KitLoad, AStopWithoutTimeLeavesNothing)
{
    std::atomic<uint64_t> replies{0};
    KitRun run([&](Router& router) { addRoutes(router, replies); });
    Hammering hammering(run.port());
    RawClient reader(run.port());
    RawClient writer(run.port());
    reader.send(getRequest("/stream"));
    writer.send("PUT /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\n123");
    ASSERT_TRUE(waitUntil([&] { return hammering.responses > 50; }));
    run.stop(std::chrono::milliseconds(0));
    expectNothingIsLeft(run);
    hammering.stop();
    EXPECT_EQ(hammering.wrong, 0u);
    EXPECT_LE(hammering.responses, replies);
}

TEST(KitLoad, ADestructionLeavesNothing)
{
    for (int round = 0; round < 5; ++round) {
        std::atomic<uint64_t> replies{0};
        std::unique_ptr<Hammering> hammering;
        {
            KitRun run([&](Router& router) { addRoutes(router, replies); });
            hammering = std::make_unique<Hammering>(run.port());
            ASSERT_TRUE(waitUntil([&] { return hammering->responses > 50; }));
        }
        EXPECT_EQ(KitRequest::sCreated, KitRequest::sDeleted);
        hammering->stop();
        EXPECT_EQ(hammering->wrong, 0u);
    }
}

}  // namespace
}  // namespace integration

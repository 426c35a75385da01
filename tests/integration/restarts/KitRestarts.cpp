// One life of a server of the kit.

#include "Servers.h"

#include <Wendrel/kit/Server.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace integration
{

namespace
{

using qv::kit::ContentType;
using qv::kit::Request;
using qv::kit::websocket::BinaryView;
using qv::kit::websocket::Session;

constexpr size_t kPieceBytes = 30000;

bool sendSmall(Request& request, uint64_t id)
{
    return request.reply(smallBody(id));
}

bool sendLate(Request& request, uint64_t id)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(id % 20));  // as if it computed
    return sendSmall(request, id);
}

bool sendPieces(Request& request, const std::string& body)
{
    request.startStream(ContentType::bytes());
    for (size_t at = 0; at < body.size(); at += kPieceBytes) {
        if (!request.write({body.data() + at, std::min(kPieceBytes, body.size() - at)}))
            return false;
    }
    return request.finish();
}

bool sendStream(Request& request, uint64_t id)
{
    return sendPieces(request, streamBody(id));
}

bool sendMeasured(Request& request, uint64_t id)
{
    const std::string body = streamBody(id);
    request.setContentLength(static_cast<int64_t>(body.size()));
    return sendPieces(request, body);
}

bool takeUpload(Request& request, uint64_t id)
{
    return request.reply(uploadBody(id, request.body()));
}

void addRoutes(qv::kit::Router& router, Round& round)
{
    const auto handler = [&round](bool (*serve)(Request&, uint64_t)) {
        return [&round, serve](Request& request) {
            const std::string& text = request.pathParameter("id");
            const uint64_t id = std::strtoull(text.c_str(), nullptr, 10);
            Record& record = round.begun(id);
            record.finished = serve(request, id);
        };
    };
    router.get("/small/{id}", handler(sendSmall));
    router.get("/late/{id}", handler(sendLate));
    router.get("/stream/{id}", handler(sendStream));
    router.get("/measured/{id}", handler(sendMeasured));
    router.put("/upload/{id}", handler(takeUpload));
}

// Echoes on the event loops, or on the workers.
class Echo : public qv::kit::websocket::SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>&) override { ++opened; }
    void onText(Session& session, std::string_view text) override { session.sendText(text); }
    void onBinary(Session& session, BinaryView bytes) override { session.sendBinary(bytes); }
    void onClose(Session&, uint16_t, std::string_view, bool) override { ++closed; }

    std::atomic<uint64_t> opened{0};
    std::atomic<uint64_t> closed{0};
};

}  // namespace

void runKitServer(Round& round, Clients& clients, KitEnding ending)
{
    qv::kit::ServerOptions options;
    options.listen = {"127.0.0.1:" + std::to_string(round.port)};
    options.threads = 4;
    qv::kit::Server server(options);
    addRoutes(server.router(), round);
    ASSERT_TRUE(server.start()) << server.failureReason();
    clients.begin(round);
    waitForLoad(round);
    round.finishesUploads = ending == KitEnding::Drained;
    round.askStop();
    if (ending == KitEnding::Destroyed)
        return;
    const bool hasDrained =
        server.stop(ending == KitEnding::Drained ? kLimit : std::chrono::milliseconds(0));
    EXPECT_TRUE(hasDrained || ending != KitEnding::Drained);
    EXPECT_EQ(server.openRequests(), 0u);
    round.noteCreated(server.requestCount());
}

void runSessionServer(Round& round, Clients& clients, SessionEnding ending)
{
    const auto echo = std::make_shared<Echo>();
    {
        qv::kit::ServerOptions options;
        options.listen = {"127.0.0.1:" + std::to_string(round.port)};
        options.threads = 2;
        qv::kit::Server server(options);
        addRoutes(server.router(), round);
        auto& route = server.router().webSocket("/", {}, [echo](Request&) { return echo; });
        if (round.number % 2 == 1)
            route.callbacksOnWorkers();
        ASSERT_TRUE(server.start()) << server.failureReason();
        clients.begin(round);
        waitForLoad(round);
        round.askStop();
        if (ending != SessionEnding::Destroyed) {
            server.stop(ending == SessionEnding::Stopped ? kLimit : std::chrono::milliseconds(0));
            round.noteCreated(server.requestCount());
        }
    }
    EXPECT_GT(echo->opened, 0u);
    EXPECT_EQ(echo->closed, echo->opened);
}

}  // namespace integration

// One life of a server of the kit.

#include "Servers.h"

#include <Wendrel/kit/Server.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

namespace integration
{

namespace
{

using qv::kit::ContentType;
using qv::kit::Request;

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

}  // namespace integration

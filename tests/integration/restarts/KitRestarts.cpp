// One life of a server of the kit with a hub.

#include "LibraryServer.h"
#include "Servers.h"

#include <Wendrel/kit/Application.h>
#include <Wendrel/kit/Server.h>
#include <Wendrel/kit/WebSocketHub.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace integration
{

namespace
{

using qv::HttpBaseRequest;
using qv::kit::BodyResult;
using qv::kit::Request;

constexpr size_t kPieceBytes = 30000;
constexpr uint64_t kBodyLimit = 10000000;

class NotedRequest : public Request
{
public:
    explicit NotedRequest(Round& round) : mRound(round) { mRound.opened(this); }
    ~NotedRequest() override { mRound.deleted(this); }

private:
    Round& mRound;
};

// The numbers of a round's hub connections.
struct Connections
{
    std::atomic<uint64_t> made{0};
    std::atomic<uint64_t> closed{0};
    std::atomic<uint64_t> destroyed{0};
};

class Echo : public qv::kit::HubConnection
{
public:
    Echo(qv::http::WebSocket&& upgraded, Connections& connections)
        : HubConnection(std::move(upgraded)), mConnections(connections)
    {
        ++mConnections.made;
    }
    ~Echo() override { ++mConnections.destroyed; }

    void onMessageReceived(std::vector<uint8_t>& received, bool) override
    {
        sendBinary({reinterpret_cast<const char*>(received.data()), received.size()});
    }

protected:
    void onClosed() override { ++mConnections.closed; }

private:
    Connections& mConnections;
};

class NotedApplication : public qv::kit::Application
{
public:
    NotedApplication(Round& round, Connections& connections)
        : mRound(round), mConnections(connections)
    {
        add(HttpBaseRequest::GET, "/small/{id}", &NotedApplication::sendSmall);
        add(HttpBaseRequest::GET, "/late/{id}", &NotedApplication::sendLate);
        add(HttpBaseRequest::GET, "/stream/{id}", &NotedApplication::sendStream);
        add(HttpBaseRequest::GET, "/measured/{id}", &NotedApplication::sendMeasured);
        add(HttpBaseRequest::PUT, "/upload/{id}", &NotedApplication::takeUpload);
    }
    ~NotedApplication() override { stopWorkers(); }

protected:
    Request* newRequest() override { return new NotedRequest(mRound); }

    void onNewWebSocket(qv::http::WebSocket* upgraded) override
    {
        mHub.adopt<Echo>(upgraded, mConnections);
    }

    void onServerStopped() override { mHub.close(std::chrono::milliseconds(0)); }

private:
    using Handler = bool (NotedApplication::*)(Request&, uint64_t);

    void add(int methods, const std::string& pattern, Handler handler)
    {
        getRouter().add(methods, pattern, [this, handler](Request& request) {
            const uint64_t id = idOf(request);
            Record& record = mRound.begun(&request, id);
            record.finished = (this->*handler)(request, id);
        });
    }

    bool sendSmall(Request& request, uint64_t id)
    {
        return request.reply(200, "text/plain", smallBody(id));
    }

    bool sendLate(Request& request, uint64_t id)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(id % 20));  // as if it computed
        return sendSmall(request, id);
    }

    bool sendStream(Request& request, uint64_t id) { return send(request, streamBody(id)); }

    bool sendMeasured(Request& request, uint64_t id)
    {
        const std::string body = streamBody(id);
        request.getHead().setContentLength(static_cast<int64_t>(body.size()));
        return send(request, body);
    }

    bool send(Request& request, const std::string& body)
    {
        for (size_t at = 0; at < body.size(); at += kPieceBytes) {
            if (!request.write(body.data() + at, std::min(kPieceBytes, body.size() - at)))
                return false;
        }
        request.finish();
        return true;
    }

    bool takeUpload(Request& request, uint64_t id)
    {
        std::string body;
        return request.readWholeBody(kBodyLimit, body) == BodyResult::Complete &&
               request.reply(200, "text/plain", uploadBody(id, body));
    }

    Round& mRound;
    Connections& mConnections;
    qv::kit::WebSocketHub mHub;
};

}  // namespace

void runKitServer(Round& round, Clients& clients, KitEnding ending)
{
    Connections connections;
    {
        qv::kit::Server server(std::make_unique<NotedApplication>(round, connections));
        qv::http::HttpServer::Parameters parameters;
        parameters.port = round.port;
        parameters.threadPoolSize = 4;
        parameters.allowWebSocket = true;
        ASSERT_TRUE(server.start(parameters, kLimit)) << "port " << round.port;
        clients.begin(round);
        waitForLoad(round);
        round.finishesUploads = ending == KitEnding::Drained;
        round.askStop();
        if (ending == KitEnding::Drained)
            EXPECT_TRUE(server.stop(kLimit));
        else if (ending == KitEnding::StoppedAtOnce)
            server.stop(std::chrono::milliseconds(0));
        if (ending != KitEnding::Destroyed) {
            EXPECT_EQ(server.getApplication().getOpenCount(), 0u);
            EXPECT_EQ(server.getApplication().getRequestCount(), round.created());
        }
    }
    EXPECT_GT(connections.made, 0u);
    EXPECT_EQ(connections.destroyed, connections.made);
    EXPECT_LE(connections.closed, connections.made);  // one that came too late was never open
}

}  // namespace integration

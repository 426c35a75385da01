// One life of a server in polling mode with a hub.

#include "LibraryServer.h"
#include "Servers.h"

#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/WebSocketHub.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <utility>
#include <vector>

namespace integration
{

namespace
{

using qv::http::HttpServer;

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

class HubApplication : public PlainApplication
{
public:
    HubApplication(Round& round, Connections& connections)
        : PlainApplication(round), mConnections(connections)
    {}

    void onNewWebSocket(qv::http::WebSocket* upgraded) override
    {
        mHub.adopt<Echo>(upgraded, mConnections);
    }

    void onServerStopped() override
    {
        PlainApplication::onServerStopped();
        mHub.close(std::chrono::milliseconds(0));
    }

private:
    Connections& mConnections;
    qv::kit::WebSocketHub mHub;
};

}  // namespace

void runHubServer(Round& round, Clients& clients, HubEnding ending)
{
    Connections connections;
    qv::initializeWendrel();
    {
        HttpServer server(std::make_unique<HubApplication>(round, connections).release());
        HttpServer::Parameters parameters;
        parameters.port = round.port;
        parameters.threadPoolSize = 4;
        parameters.allowWebSocket = true;
        server.startServer(parameters);
        EXPECT_TRUE(server.waitUntilRunning(kLimit)) << "port " << round.port;
        clients.begin(round);
        waitForLoad(round);
        round.askStop();
        if (ending == HubEnding::Stopped)
            server.stopServer(true);
    }
    qv::terminateWendrel();
    EXPECT_GT(connections.made, 0u);
    EXPECT_EQ(connections.destroyed, connections.made);
    EXPECT_LE(connections.closed, connections.made);  // one that came too late was never open
}

}  // namespace integration

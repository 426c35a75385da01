// One life of the library alone.

#include "LibraryServer.h"
#include "Servers.h"

#include <Wendrel/Wendrel.h>

#include <gtest/gtest.h>

#include <memory>

namespace integration
{

namespace
{

using qv::http::HttpServer;

class LibraryRun
{
public:
    explicit LibraryRun(Round& round) : mRound(round)
    {
        auto application = std::make_unique<PlainApplication>(round);
        mApplication = application.get();
        mServer = std::make_unique<HttpServer>(application.release());
        start();
    }

    void start()
    {
        HttpServer::Parameters parameters;
        parameters.port = mRound.port;
        parameters.threadPoolSize = 4;
        mServer->startServer(parameters);
        EXPECT_TRUE(waitUntil([this] { return mServer->getState() != HttpServer::Starting; }));
        EXPECT_EQ(mServer->getState(), HttpServer::Running) << "port " << mRound.port;
    }

    void stop(bool waits)
    {
        mRound.askStop();
        mServer->stopServer(waits);
    }

    // On the same port, under the load of clients that have just been cut off.
    void startAgain()
    {
        EXPECT_TRUE(waitUntil([this] { return mServer->getState() == HttpServer::Stopped; }));
        EXPECT_EQ(mApplication->stops(), 1u);
        mRound.goOn();
        start();
    }

private:
    Round& mRound;
    PlainApplication* mApplication = nullptr;
    std::unique_ptr<HttpServer> mServer;
};

}  // namespace

void runLibraryServer(Round& round, Clients& clients, LibraryEnding ending)
{
    qv::initializeWendrel();
    {
        LibraryRun run(round);
        clients.begin(round);
        waitForLoad(round);
        run.stop(ending == LibraryEnding::WaitedFor || ending == LibraryEnding::StartedAgain);
        if (ending == LibraryEnding::StartedAgain ||
            ending == LibraryEnding::StartedAgainUnwaited) {
            run.startAgain();
            waitForLoad(round);
            round.askStop();  // the destructor stops the server
        }
    }
    qv::terminateWendrel();
}

}  // namespace integration

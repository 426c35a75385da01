/// A server of the kit for a test, which notes whether each of its requests has been deleted.
#ifndef WENDREL_TESTS_INTEGRATION_KITRUN_H
#define WENDREL_TESTS_INTEGRATION_KITRUN_H

#include <Wendrel/kit/Server.h>

#include "TestMode.h"

#include <support/Ports.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

namespace integration
{

/// Counts itself.
class KitRequest : public qv::kit::Request
{
public:
    KitRequest() { ++sCreated; }
    ~KitRequest() override { ++sDeleted; }

    inline static std::atomic<uint64_t> sCreated{0};
    inline static std::atomic<uint64_t> sDeleted{0};
};

class KitApplication : public qv::kit::Application
{
public:
    using Application::Application;
    ~KitApplication() override { stopWorkers(); }

protected:
    qv::kit::Request* newRequest() override { return new KitRequest; }
};

/// A server of the kit on a port that was free when it started.
class KitRun
{
public:
    using Setup = std::function<void(qv::kit::Router&)>;

    /// `setup` fills the router of each try to start.
    explicit KitRun(const Setup& setup, unsigned int workers = 8, size_t queueLimit = 64)
    {
        KitRequest::sCreated = 0;
        KitRequest::sDeleted = 0;
        constexpr int kTries = 5;
        for (int i = 0; i < kTries; ++i) {
            qv::kit::Application::Options options;
            options.workers = workers;
            options.queueLimit = queueLimit;
            auto application = std::make_unique<KitApplication>(options);
            setup(application->getRouter());
            mServer = std::make_unique<qv::kit::Server>(std::move(application));
            qv::http::HttpServer::Parameters parameters;
            parameters.port = mPort = qv::tests::findFreePort();
            parameters.threadPoolSize = 2;
            parameters.allowWebSocket = true;
            if (start(parameters))
                return;
        }
        throw std::runtime_error("the server of the test did not start");
    }

    uint16_t port() const { return mPort; }
    qv::kit::Server& server() { return *mServer; }
    qv::kit::Application& application() { return mServer->getApplication(); }

    bool stop(std::chrono::milliseconds limit) { return mServer->stop(limit); }

private:
    bool start(const qv::http::HttpServer::Parameters& parameters)
    {
        if (!isEventDriven())
            return mServer->start(parameters, std::chrono::seconds(30));
        qv::http::ServerOptions options;
        options.listen = {"127.0.0.1:" + std::to_string(parameters.port)};
        options.threads = parameters.threadPoolSize;
        options.connectionMemoryBytes = 262144;
        return mServer->start(options);
    }

    std::unique_ptr<qv::kit::Server> mServer;
    uint16_t mPort = 0;
};

}  // namespace integration

#endif

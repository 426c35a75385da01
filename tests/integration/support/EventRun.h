/// A server in event-driven mode whose requests are checked when it has stopped.
#ifndef WENDREL_TESTS_INTEGRATION_EVENTRUN_H
#define WENDREL_TESTS_INTEGRATION_EVENTRUN_H

#include "TestServer.h"
#include "Waiting.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/UpgradedConnection.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace integration
{

/// A request that counts the calls of its hooks.
class EventRequest : public TestRequest
{
public:
    void onBodyComplete() override;
    void onAborted(const std::string& reason) override;
    void onCompleted(int terminationCode) override;
    void onUpgraded(std::unique_ptr<qv::UpgradedConnection> connection) override;
    void onBodyPaused(uint64_t queuedBytes) override;

    /// The reason of `onAborted`; empty before.
    std::string abortReason() const;

    /// Responds from the calling thread, which is no worker of the request.
    void respondHere(uint32_t status, const std::string& body);

    std::atomic<int> bodyCompletions{0};
    std::atomic<int> aborts{0};
    std::atomic<int> completions{0};
    std::atomic<int> upgrades{0};
    std::atomic<int> pauses{0};
    std::atomic<uint64_t> pausedBytes{0};  ///< of the last pause
    std::atomic<int> code{-1};

    /// Takes the upgraded connection, which is closed without it. Set before the announcement.
    std::function<void(std::unique_ptr<qv::UpgradedConnection>)> takeUpgraded;

private:
    mutable std::mutex mMutex;
    std::string mAbortReason;
};

/// Serves until it is destroyed; then the server is stopped, and the destructor checks that each
/// request was completed once, aborted at most once and before that, and never both aborted and
/// responded to. Requests live as long as the run.
class EventRun
{
public:
    /// Called in `handleRequest`, on the daemon's thread.
    using Handler = std::function<void(EventRequest&)>;

    /// On a free port of 127.0.0.1 unless the options have other endpoints. Throws when the server
    /// does not start.
    explicit EventRun(Handler handler, qv::http::ServerOptions options = qv::http::ServerOptions());
    ~EventRun();
    EventRun(const EventRun&) = delete;
    EventRun& operator=(const EventRun&) = delete;

    qv::http::HttpServer& server() { return *mServer; }
    uint16_t port() const { return portOf(0); }
    uint16_t portOf(size_t endpoint) const;

    /// Runs `work` as a worker of `request`, on a thread of the run.
    void work(EventRequest& request, std::function<void(EventRequest&)> work);

    /// Request number `index` in order of arrival; waits for it, null after the limit.
    EventRequest* request(size_t index);

    size_t requestCount() const;
    int serverStoppedCalls() const;

private:
    class Application;

    std::unique_ptr<qv::http::HttpServer> mServer;
    Application* mApplication = nullptr;  // owned by mServer
};

/// Options with one thread on a free port of 127.0.0.1, and deadlines that no test reaches.
qv::http::ServerOptions onOneThread();

}  // namespace integration

#endif

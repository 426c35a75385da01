// Sends every message back, on the library alone: the server that foreign clients talk to.
//
// Prints its port, and after SIGTERM or SIGINT the statistics of its echoes.

#include "../support/Waiting.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include <support/MinimalRequest.h>
#include <support/Ports.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace
{

using qv::http::HttpServer;
using qv::http::WebSocket;
using qv::http::WebSocketThread;

constexpr unsigned kWorkers = 4;
constexpr std::chrono::seconds kStopLimit(60);

struct Counters
{
    std::atomic<uint64_t> connections{0};
    std::atomic<uint64_t> messages{0};
    std::atomic<uint64_t> bytes{0};
};

class Echo;

// The connections there are. Its lock is taken with that of the WebSocketThread held, when a
// connection is destroyed: nothing here calls that object.
class Registry
{
public:
    void add(Echo* connection)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mConnections.insert(connection);
    }

    void remove(Echo* connection)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mConnections.erase(connection);
    }

    // Only when no thread holds a connection any more.
    void closeAll();

private:
    std::mutex mMutex;
    std::set<Echo*> mConnections;
};

class Echo : public WebSocket
{
public:
    Echo(WebSocket&& upgraded, Registry& registry, Counters& counters)
        : WebSocket(std::move(upgraded)), mRegistry(registry), mCounters(counters)
    {
        ++mCounters.connections;
        mRegistry.add(this);
    }

    ~Echo() override { mRegistry.remove(this); }

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        ++mCounters.messages;
        mCounters.bytes += received.size();
        writeMessage(received.data(), received.size(), isBinary);
    }

private:
    Registry& mRegistry;
    Counters& mCounters;
};

void Registry::closeAll()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Echo* connection : mConnections)
        connection->markForDeletion();
}

// An ordinary request: there is nothing here for it.
class Request : public qv::tests::MinimalRequest
{
public:
    Request()
    {
        response.statusCode = 404;
        response.contentLength = 0;
    }
};

class EchoApplication : public qv::http::HttpServerImpl
{
public:
    EchoApplication(WebSocketThread& threads, Registry& registry, Counters& counters)
        : mThreads(threads), mRegistry(registry), mCounters(counters)
    {}

    qv::HttpBaseRequest* createRequest() override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.remove_if([](const auto& request) { return request->isCompleted(); });
        mRequests.push_back(std::make_unique<Request>());
        return mRequests.back().get();
    }

    // There is nothing to wait for, so the daemon's thread itself is the worker.
    void handleRequest(qv::HttpBaseRequest* request) override
    {
        const std::string& id = qv::qvThread::CurrentThreadId();
        request->workerThreadStartHandling(id);
        request->getResponseDevice().endSending();
        request->getResponseDevice().setResponseReady();
        request->workerThreadStopHandling(id);
    }

    void onNewWebSocket(WebSocket* socket) override
    {
        const std::unique_ptr<WebSocket> upgraded(socket);
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mEnding) {
            upgraded->markForDeletion();
            return;
        }
        // A message leaves in pieces of 1024 bytes: without this each but the first would wait for
        // the client's acknowledgement, 40 ms.
        const int on = 1;
        ::setsockopt(upgraded->getSocket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::unique_ptr<WebSocket> connection =
            std::make_unique<Echo>(std::move(*upgraded), mRegistry, mCounters);
        mThreads.addWebSocket(connection);
    }

    void onServerStopped() override {}
    void onRequestCompleted() override {}

    // Connections that come from now on are closed at once.
    void refuseConnections()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEnding = true;
    }

private:
    WebSocketThread& mThreads;
    Registry& mRegistry;
    Counters& mCounters;
    std::mutex mMutex;  // guards all below
    std::list<std::unique_ptr<Request>> mRequests;
    bool mEnding = false;
};

// Keeps workers for good: each is given a connection whose handler does not return. Afterwards
// no worker holds any other connection, be it open or closed.
class Parking
{
public:
    // False when a worker has not come within the limit.
    bool parkAll(WebSocketThread& threads)
    {
        for (unsigned i = 0; i < kWorkers; ++i)
            addPlace(threads);
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kStopLimit, [this] { return mParked == kWorkers; });
    }

private:
    class Place : public WebSocket
    {
    public:
        Place(int end, Parking& parking) : WebSocket(end, nullptr), mParking(parking) {}
        void onMessageReceived(std::vector<uint8_t>&, bool) override { mParking.stay(); }

    private:
        Parking& mParking;
    };

    void addPlace(WebSocketThread& threads)
    {
        // An empty binary message: header and masking key.
        const std::array<uint8_t, 6> frame{0x82, 0x80, 1, 2, 3, 4};
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()) != 0)
            return;
        if (::send(ends[1], frame.data(), frame.size(), 0) != static_cast<ssize_t>(frame.size()))
            return;
        std::unique_ptr<WebSocket> place = std::make_unique<Place>(ends[0], *this);
        threads.addWebSocket(place);
    }

    [[noreturn]] void stay()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        ++mParked;
        mChanged.notify_all();
        for (;;)
            mChanged.wait(lock);
    }

    std::mutex mMutex;  // guards all below
    std::condition_variable mChanged;
    unsigned mParked = 0;
};

bool start(HttpServer& server, uint16_t port)
{
    HttpServer::Parameters parameters;
    parameters.port = port;
    parameters.threadPoolSize = 2;
    parameters.allowWebSocket = true;
    server.startServer(parameters);
    integration::waitUntil([&server] { return server.getState() != HttpServer::Starting; });
    return server.getState() == HttpServer::Running;
}

// Ends the process without returning: a worker that holds a connection when the threads are
// stopped does not end, so a WebSocketThread that has served clients cannot be relied on to be
// destroyed. Everything else is brought down in order.
[[noreturn]] void stop(HttpServer& server, EchoApplication& application, WebSocketThread& threads,
                       Registry& registry, const Counters& counters)
{
    application.refuseConnections();
    Parking parking;
    if (!parking.parkAll(threads)) {
        std::fprintf(stderr, "A worker is held up by a connection.\n");
        std::_Exit(1);
    }
    threads.stopThreads(false);
    if (!threads.waitThread(std::chrono::milliseconds(kStopLimit).count())) {
        std::fprintf(stderr, "The poll thread does not end.\n");
        std::_Exit(1);
    }
    // Nobody holds a connection now, and the daemon is still there to close them.
    registry.closeAll();
    server.stopServer(true);
    std::printf("echoed %llu messages, %llu bytes, on %llu connections\n",
                static_cast<unsigned long long>(counters.messages),
                static_cast<unsigned long long>(counters.bytes),
                static_cast<unsigned long long>(counters.connections));
    std::fflush(stdout);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_do_leak_check();  // ends the process with a report when there is a leak
#endif
    std::_Exit(0);
}

}  // namespace

int main()
{
    // Before any thread, so that all of them leave the signals to sigwait.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    // A test that is cut off leaves no server behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);

    qv::initializeWendrel();
    Counters counters;
    Registry registry;
    WebSocketThread threads;
    threads.startThreads(kWorkers);

    // Another program may take the port between the search and the start; a server that has
    // failed cannot be started again.
    constexpr int kAttempts = 5;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        auto* application = new EchoApplication(threads, registry, counters);
        HttpServer server(application);
        const uint16_t port = qv::tests::findFreePort();
        if (!start(server, port))
            continue;
        std::printf("port %d\n", port);
        std::fflush(stdout);
        int signal = 0;
        sigwait(&stopSignals, &signal);
        stop(server, *application, threads, registry, counters);
    }
    std::fprintf(stderr, "The server did not start.\n");
    return 1;
}

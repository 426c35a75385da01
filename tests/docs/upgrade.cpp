// Line-based chat over upgraded connections: a client asks for "Upgrade: lines" and gets every line
// that another one sends after "welcome". One thread for each connection.

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/Wendrel.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

using qv::HttpBaseRequest;
using qv::UpgradedConnection;
using qv::http::HttpServer;

namespace
{

constexpr size_t kMaxBytesAtOnce = 4096;
constexpr char kWelcome[] = "welcome\n";

// The upgraded connections. They are the application's: the server does not wait for them.
class Lines
{
public:
    ~Lines() { end(); }

    // Thread: the daemon's.
    void add(std::unique_ptr<UpgradedConnection> connection)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        UpgradedConnection& added = *mConnections.emplace_back(std::move(connection));
        ::send(added.getDescriptor(), kWelcome, sizeof kWelcome - 1, MSG_NOSIGNAL);
        mThreads.emplace_back([this, &added] { serve(added); });
        if (mEnding)
            shutdown(added.getDescriptor(), SHUT_RDWR);
    }

    // Ends all connections.
    void end()
    {
        std::vector<std::thread> threads;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEnding = true;
            for (const auto& connection : mConnections)
                shutdown(connection->getDescriptor(), SHUT_RDWR);
            threads.swap(mThreads);
        }
        for (std::thread& thread : threads)
            thread.join();
    }

private:
    // The received bytes come before everything that is read from the descriptor.
    void serve(UpgradedConnection& connection)
    {
        const int descriptor = connection.getDescriptor();
        std::string bytes = connection.takeReceivedBytes();
        ssize_t received = 0;
        do {
            send(connection, bytes);
            pollfd readable{descriptor, POLLIN, 0};
            poll(&readable, 1, -1);
            bytes.resize(kMaxBytesAtOnce);
            received = recv(descriptor, bytes.data(), bytes.size(), 0);
            bytes.resize(received > 0 ? static_cast<size_t>(received) : 0);
        } while (received > 0);
        const std::lock_guard<std::mutex> lock(mMutex);
        mConnections.remove_if([&](const auto& other) { return other.get() == &connection; });
    }

    // A client that does not read loses bytes.
    void send(const UpgradedConnection& from, const std::string& bytes)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& connection : mConnections) {
            if (connection.get() != &from)
                ::send(connection->getDescriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        }
    }

    std::mutex mMutex;  // guards all below
    std::list<std::unique_ptr<UpgradedConnection>> mConnections;
    std::vector<std::thread> mThreads;
    bool mEnding = false;
};

class Head : public qv::HttpResponseInterface
{
public:
    const CookieMap& getCookies() override { return mCookies; }
    const HeaderMap& getHeaders() override { return headers; }
    uint32_t getStatusCode() override { return status; }
    int64_t getContentLength() override { return 0; }
    std::string describe() override { return std::to_string(status); }

    HeaderMap headers;
    uint32_t status = 404;

private:
    CookieMap mCookies;
};

class LinesRequest : public HttpBaseRequest, public qv::HttpWaitListener
{
public:
    explicit LinesRequest(Lines& lines) : mLines(lines) {}

    qv::HttpResponseInterface& getResponse() override { return mHead; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }
    void onWaitingForData() override {}

    // The library checks the rest of the request before it sends the 101.
    void handle()
    {
        const auto* const protocol = getHeader("upgrade");
        if (protocol && protocol->front() == "lines") {
            mHead.status = 101;
            mHead.headers["upgrade"] = {"Upgrade", "lines"};
        }
        getResponseDevice().endSending();
        getResponseDevice().setResponseReady();
    }

    void onUpgraded(std::unique_ptr<UpgradedConnection> connection) override
    {
        mLines.add(std::move(connection));
    }

private:
    Lines& mLines;
    Head mHead;
};

class Application : public qv::http::HttpServerImpl
{
public:
    HttpBaseRequest* createRequest() override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.remove_if([](const auto& request) { return request->isCompleted(); });
        return mRequests.emplace_back(std::make_unique<LinesRequest>(mLines)).get();
    }

    void handleRequest(HttpBaseRequest* request) override
    {
        static_cast<LinesRequest*>(request)->handle();
    }

    void onNewWebSocket(qv::http::WebSocket*) override {}
    void onServerStopped() override { mLines.end(); }
    void onRequestCompleted() override {}

private:
    Lines mLines;
    std::mutex mMutex;
    std::list<std::unique_ptr<LinesRequest>> mRequests;
};

}  // namespace

int main(int argc, char** argv)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before the first thread

    qv::initializeWendrel();
    {
        HttpServer server(std::make_unique<Application>().release());  // deletes it
        qv::http::ServerOptions options;
        options.listen = {"127.0.0.1:" + std::string(argc > 1 ? argv[1] : "8181")};
        if (!server.serve(options)) {
            std::fprintf(stderr, "%s\n", server.getFailureReason().c_str());
            return 1;
        }
        std::printf("listening on http://%s/\n", server.getEndpoints().front().c_str());
        std::fflush(stdout);
        int number = 0;
        sigwait(&signals, &number);
        server.shutDown(std::chrono::seconds(10));
    }
    qv::terminateWendrel();
    return 0;
}

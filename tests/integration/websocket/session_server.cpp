// Sends every message back, with the kit's WebSocket sessions. Any path is upgraded; an ordinary
// request gets a page whose script exchanges messages with the server and reports the result.
//
// Prints its port, the results of pages, and after SIGTERM or SIGINT the statistics of its echoes.

#include <Wendrel/BodySource.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/websocket/Engine.h>

#include <support/MinimalRequest.h>

#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace
{

using namespace qv::kit::websocket;

constexpr size_t kMaxMessageBytes = 16777216;
constexpr std::chrono::seconds kStopLimit(60);

constexpr const char* kPage = R"(<!doctype html><title>Messages</title><script>
const lines = []
const log = (line) => lines.push(line)
const socket = new WebSocket(`ws://${location.host}/echo`, ['other', 'echo'])
socket.binaryType = 'arraybuffer'
const messages = ['', 'a', 'grüße €😀', 'x'.repeat(100000), new Uint8Array([0, 255, 7])]
let at = 0
const next = () => at < messages.length ? socket.send(messages[at]) : socket.close(3001, 'done')
socket.onopen = () => { log(`open ${socket.protocol} ${socket.extensions}`); next() }
socket.onmessage = (event) => {
    const sent = messages[at++]
    const same = typeof sent === 'string' ? event.data === sent
        : String(new Uint8Array(event.data)) === String(sent)
    log(`message ${at} ${same ? 'same' : 'different'}`)
    next()
}
socket.onclose = (event) => {
    log(`close ${event.code} ${event.wasClean}`)
    fetch('/result?lines=' + encodeURIComponent(lines.join('|')))
}
</script>)";

class Echo : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>&) override { ++connections; }
    void onText(Session& session, std::string_view text) override
    {
        count(text.size());
        session.sendText(text);
    }
    void onBinary(Session& session, BinaryView data) override
    {
        count(data.size());
        session.sendBinary(data);
    }

    std::atomic<unsigned long long> connections{0};
    std::atomic<unsigned long long> messages{0};
    std::atomic<unsigned long long> bytes{0};

private:
    void count(size_t size)
    {
        ++messages;
        bytes += size;
    }
};

struct Sessions
{
    Engine engine{{2}};
    std::shared_ptr<Echo> echo = std::make_shared<Echo>();
    std::shared_ptr<WebSocketOptions> options = std::make_shared<WebSocketOptions>();
};

class Request : public qv::tests::MinimalRequest
{
public:
    explicit Request(Sessions& sessions) : mSessions(sessions) {}

    void handle()
    {
        if (const auto* const lines = getQueryParameter("lines")) {
            std::printf("result %s\n", lines->front().c_str());
            std::fflush(stdout);
        }
        if (!getHeader("upgrade")) {
            response.addHeader("Content-Type", "text/html; charset=utf-8");
            getResponseDevice().setBodySource(
                qv::BodySource::fromString(std::make_shared<std::string>(kPage)));
            getResponseDevice().setResponseReady();
            return;
        }
        HandshakeReply reply = checkHandshake(*this, *mSessions.options);
        response.statusCode = reply.status;
        response.headers = std::move(reply.headers);
        mAgreement = std::move(reply.agreement);
        getResponseDevice().endSending();
        getResponseDevice().setResponseReady();
    }

    void onUpgraded(std::unique_ptr<qv::UpgradedConnection> connection) override
    {
        mSessions.engine.open(std::move(connection), mAgreement, mSessions.echo, mSessions.options);
    }

private:
    Sessions& mSessions;
    Agreement mAgreement;
};

class Application : public qv::http::HttpServerImpl
{
public:
    explicit Application(Sessions& sessions) : mSessions(sessions) {}

    qv::HttpBaseRequest* createRequest() override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.remove_if([](const auto& request) { return request->isCompleted(); });
        return mRequests.emplace_back(std::make_unique<Request>(mSessions)).get();
    }
    void handleRequest(qv::HttpBaseRequest* request) override
    {
        static_cast<Request*>(request)->handle();
    }
    void onNewWebSocket(qv::http::WebSocket*) override {}
    void onServerStopped() override {}
    void onRequestCompleted() override {}

private:
    Sessions& mSessions;
    std::mutex mMutex;
    std::list<std::unique_ptr<Request>> mRequests;
};

}  // namespace

int main()
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // A test that is cut off leaves no server behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);

    qv::initializeWendrel();
    {
        Sessions sessions;
        sessions.options->maxMessageBytes = kMaxMessageBytes;
        sessions.options->sendQueueBytes = 2 * kMaxMessageBytes;
        sessions.options->subprotocols = {"echo"};
        qv::http::HttpServer server(std::make_unique<Application>(sessions).release());
        qv::http::ServerOptions options;
        options.listen = {"127.0.0.1:0"};
        options.threads = 2;
        if (!server.serve(options)) {
            std::fprintf(stderr, "%s\n", server.getFailureReason().c_str());
            return 1;
        }
        const std::string endpoint = server.getEndpoints().front();
        std::printf("port %s\n", endpoint.substr(endpoint.rfind(':') + 1).c_str());
        std::fflush(stdout);
        int number = 0;
        sigwait(&stopSignals, &number);
        server.shutDown(kStopLimit);
        sessions.engine.shutDown(kStopLimit);
        std::printf("echoed %llu messages, %llu bytes, on %llu connections\n",
                    sessions.echo->messages.load(), sessions.echo->bytes.load(),
                    sessions.echo->connections.load());
    }
    qv::terminateWendrel();
    return 0;
}

// A chat on WebSocket sessions: every message is sent to all clients.

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/websocket/Engine.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

using qv::HttpBaseRequest;
using qv::http::HttpServer;
using namespace qv::kit::websocket;

namespace
{

constexpr uint32_t kSwitchingProtocols = 101;

// Serves all sessions. The callbacks of different sessions run on different loops at once.
class Chat : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>& session) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSessions.insert(session);
    }

    void onText(Session&, std::string_view text) override
    {
        const auto message = PreparedMessage::text(text);
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& session : mSessions)
            session->send(message);
    }

    void onClose(Session& session, uint16_t, std::string_view, bool) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (auto it = mSessions.begin(); it != mSessions.end(); ++it) {
            if (it->get() == &session) {
                mSessions.erase(it);
                return;
            }
        }
    }

private:
    std::mutex mMutex;
    std::set<std::shared_ptr<Session>> mSessions;
};

// The sessions of the server, and their common parts.
struct Sessions
{
    Engine engine;
    std::shared_ptr<Chat> chat = std::make_shared<Chat>();
    std::shared_ptr<WebSocketOptions> options = std::make_shared<WebSocketOptions>();
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
    uint32_t status = 0;

private:
    CookieMap mCookies;
};

class ChatRequest : public HttpBaseRequest, public qv::HttpWaitListener
{
public:
    explicit ChatRequest(Sessions& sessions) : mSessions(sessions) {}

    qv::HttpResponseInterface& getResponse() override { return mHead; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }
    void onWaitingForData() override {}

    void handle()
    {
        HandshakeReply reply = checkHandshake(*this, *mSessions.options);
        mHead.status = reply.status;
        mHead.headers = std::move(reply.headers);
        mAgreement = std::move(reply.agreement);
        getResponseDevice().endSending();
        getResponseDevice().setResponseReady();
    }

    void onUpgraded(std::unique_ptr<qv::UpgradedConnection> connection) override
    {
        mSessions.engine.open(std::move(connection), mAgreement, mSessions.chat, mSessions.options);
    }

private:
    Sessions& mSessions;
    Head mHead;
    Agreement mAgreement;
};

class Application : public qv::http::HttpServerImpl
{
public:
    explicit Application(Sessions& sessions) : mSessions(sessions) {}

    HttpBaseRequest* createRequest() override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.remove_if([](const auto& request) { return request->isCompleted(); });
        return mRequests.emplace_back(std::make_unique<ChatRequest>(mSessions)).get();
    }

    void handleRequest(HttpBaseRequest* request) override
    {
        static_cast<ChatRequest*>(request)->handle();
    }

    void onNewWebSocket(qv::http::WebSocket*) override {}
    void onServerStopped() override {}
    void onRequestCompleted() override {}

private:
    Sessions& mSessions;
    std::mutex mMutex;
    std::list<std::unique_ptr<ChatRequest>> mRequests;
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
        Sessions sessions;
        HttpServer server(std::make_unique<Application>(sessions).release());  // deletes it
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
        sessions.engine.shutDown(std::chrono::seconds(10));
    }
    qv::terminateWendrel();
    return 0;
}

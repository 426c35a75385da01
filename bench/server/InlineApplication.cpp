// The pages of the benchmark, served on the daemon threads.

#include "server/InlineApplication.h"

#include "server/Echo.h"
#include "support/StopSignal.h"

#include <Wendrel/Wendrel.h>
#include <qvSystem/qvThread.h>

#include <chrono>
#include <cstddef>
#include <memory>

namespace bench
{
namespace
{

// Bytes that the response device accepts before a write waits: whole chunks and the rest.
constexpr uint64_t kUnreadLimitBytes = 262144;

constexpr size_t kMaxConnections = 1020;
constexpr std::chrono::milliseconds kLastWordsLimit(1000);
constexpr unsigned long kStateIntervalMs = 1;

bool mustWait(const Question& question)
{
    return question.page == Page::Upload ||
           (question.page == Page::Stream && question.number > kUnreadLimitBytes);
}

// The library, up as long as this is.
class Initialized
{
public:
    Initialized() { qv::initializeWendrel(); }
    ~Initialized() { qv::terminateWendrel(); }
    Initialized(const Initialized&) = delete;
    Initialized& operator=(const Initialized&) = delete;
};

bool start(qv::http::HttpServer& server, const Options& options)
{
    qv::http::HttpServer::Parameters parameters;
    parameters.port = options.port;
    parameters.threadPoolSize = options.threads;
    parameters.allowWebSocket = options.webSocket;
    server.startServer(parameters);
    // The server offers no condition to wait on, only its state.
    while (server.getState() == qv::http::HttpServer::Starting)
        qv::qvThread::msleep(kStateIntervalMs);
    return server.getState() == qv::http::HttpServer::Running;
}

}  // namespace

InlineApplication::InlineApplication(const Options& options)
    : mHub({.workers = options.workers}), mPool(options.workers, kMaxConnections)
{}

qv::HttpBaseRequest* InlineApplication::createRequest()
{
    return mBins.create();
}

void InlineApplication::handleRequest(qv::HttpBaseRequest* base)
{
    auto* request = static_cast<InlineRequest*>(base);
    const Question question = request->getQuestion();
    if (!mustWait(question))
        request->serve(question);
    else if (!mPool.submit([request, question] { request->serve(question); }))
        request->serve(Question{});
}

void InlineApplication::onNewWebSocket(qv::http::WebSocket* socket)
{
    mHub.adopt<Echo>(socket);
}

// The connections must be closed while the daemon is still there to close them.
void InlineApplication::onServerStopped()
{
    mHub.close(kLastWordsLimit);
}

void InlineApplication::onRequestCompleted()
{
    mBins.completed();
}

bool serveInline(const Options& options)
{
    StopSignal stopSignal;
    const Initialized initialized;
    qv::http::HttpServer server(std::make_unique<InlineApplication>(options).release());
    if (!start(server, options))
        return false;
    announceListening(options.port);
    stopSignal.wait();
    server.stopServer(true);
    return true;
}

}  // namespace bench

// The pages of the benchmark, served with the library only.

#include "server/InlineApplication.h"

#include "server/Echo.h"
#include "server/Listening.h"
#include "support/Content.h"
#include "support/StopSignal.h"

#include <Wendrel/Wendrel.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

namespace bench
{
namespace
{

// Bytes that the response device accepts before a write waits: whole chunks and the rest.
constexpr uint64_t kUnreadLimitBytes = 262144;

constexpr size_t kMaxConnections = 1020;
constexpr std::chrono::milliseconds kLastWordsLimit(1000);

bool mustWait(const Question& question, const InlineRequest& request)
{
    return question.page == Page::Upload || question.page == Page::SlowUpload ||
           (question.page == Page::Echo && request.hasBody()) ||
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

}  // namespace

InlineApplication::InlineApplication(const Options& options)
    : mLends(!options.polling), mUsesPool(options.mode == Mode::Worker),
      mPool(options.workers, kMaxConnections)
{
    if (options.webSocket && options.polling)
        mPollingEcho.startThreads(options.workers);
    else if (options.webSocket)
        mWebSocketEcho = std::make_unique<WebSocketEcho>(options, mPool);
}

qv::HttpBaseRequest* InlineApplication::createRequest()
{
    return mBins.create(mLends);
}

void InlineApplication::handleRequest(qv::HttpBaseRequest* base)
{
    auto* request = static_cast<InlineRequest*>(base);
    const Question& question = request->findQuestion();
    if (question.page == Page::WebSocket && mWebSocketEcho)
        mWebSocketEcho->serve(*request);
    else if (question.page == Page::Wait)
        addWaiting(request);
    else if (question.page == Page::Waiting)
        request->serveText(std::to_string(countWaiting()));
    else if (question.page == Page::Release)
        request->serveText(std::to_string(releaseWaiting()));
    else if (!mUsesPool && !mustWait(question, *request))
        request->serve();
    else if (!mPool.submit([request] { request->serve(); }))
        request->serve(Question{});
}

void InlineApplication::addWaiting(InlineRequest* request)
{
    const std::lock_guard locker(mMutex);
    mWaiting.push_back(request);
}

size_t InlineApplication::countWaiting()
{
    const std::lock_guard locker(mMutex);
    return mWaiting.size();
}

// Clients that have left are among them.
size_t InlineApplication::releaseWaiting()
{
    std::vector<InlineRequest*> released;
    {
        const std::lock_guard locker(mMutex);
        released.swap(mWaiting);
    }
    for (InlineRequest* request : released)
        request->serveText(kHello);
    return released.size();
}

void InlineApplication::onNewWebSocket(qv::http::WebSocket* socket)
{
    const std::unique_ptr<qv::http::WebSocket> upgraded(socket);
    std::unique_ptr<qv::http::WebSocket> echo = std::make_unique<Echo>(std::move(*upgraded));
    mPollingEcho.addWebSocket(echo);
}

// The connections must be closed while the daemon is still there to close them.
void InlineApplication::onServerStopped()
{
    if (mWebSocketEcho)
        mWebSocketEcho->shutDown(kLastWordsLimit);
}

bool serveInline(const Options& options)
{
    StopSignal stopSignal;
    const Initialized initialized;
    qv::http::HttpServer server(std::make_unique<InlineApplication>(options).release());
    if (!startServer(server, options))
        return false;
    stopSignal.wait();
    // A worker of the library's WebSocket threads that holds a connection does not end.
    if (options.webSocket && options.polling)
        std::_Exit(0);
    shutDownServer(server, options);
    server.stopServer(true);
    return true;
}

}  // namespace bench

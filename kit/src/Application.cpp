// Requests on their way from the daemon to a worker and from there to their end.

#include <Wendrel/kit/Application.h>

#include <Wendrel/WebSocket.h>

#include "KitLog.h"

#include <qvSystem/qvThread.h>

#include <stdexcept>

namespace qv::kit
{
namespace
{

constexpr const char* kErrorBody = "{\"error\":\"The server failed.\",\"status\":500}";
constexpr const char* kRetryAfterSeconds = "1";

}  // namespace

Application::Application() : Application(Options()) {}

Application::Application(const Options& options) : mPool(options.workers, options.queueLimit)
{
    setErrorBody(kErrorBody);
}

Application::~Application() = default;

bool Application::drain(std::chrono::milliseconds limit)
{
    mDraining = true;
    return mReaper.waitUntilEmpty(limit);
}

void Application::stopWorkers()
{
    mPool.stop();
}

Request* Application::newRequest()
{
    return new Request;
}

void Application::serve(Request& request)
{
    mRouter.dispatch(request);
}

void Application::onHandlerFailed(Request& request, const std::exception& error)
{
    LogError(HttpBaseRequest::RequestTypeToString(request.getRequestType()) + " " +
             request.getOriginalFullUrl() + " failed: " + error.what());
    request.failWith("The server failed.");
}

void Application::onServerStopped() {}

void Application::onNewWebSocket(http::WebSocket* socket)
{
    const std::unique_ptr<http::WebSocket> taken(socket);
    taken->markForDeletion();
}

HttpBaseRequest* Application::createRequest()
{
    Request& request = mReaper.add(std::unique_ptr<Request>(newRequest()));
    ++mRequests;
    return &request;
}

void Application::handleRequest(HttpBaseRequest* base)
{
    auto* request = static_cast<Request*>(base);
    if (mDraining || !mPool.submit([this, request] { serveOnWorker(request); }))
        refuse(request);
}

void Application::serveOnWorker(Request* request)
{
    request->workerThreadStartHandling(qvThread::CurrentThreadId());
    try {
        serve(*request);
    } catch (const std::exception& error) {
        onHandlerFailed(*request, error);
    } catch (...) {
        // The one place where application code is called: nothing it throws ends the process.
        onHandlerFailed(*request, std::runtime_error("an exception that is no std::exception"));
    }
    release(request);
    mReaper.reap();
}

// On the daemon's thread: the answer is complete before this returns.
void Application::refuse(Request* request)
{
    request->workerThreadStartHandling(qvThread::CurrentThreadId());
    request->getHead().setHeader("Retry-After", kRetryAfterSeconds);
    request->replyError(503, "The server is busy.");
    release(request);
}

void Application::release(Request* request)
{
    request->closeAnswer();
    request->workerThreadStopHandling(qvThread::CurrentThreadId());
    mReaper.finished(*request);
}

}  // namespace qv::kit

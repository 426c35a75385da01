// Requests on their way from the daemon to a worker and from there to their end.

#include <Wendrel/kit/Application.h>

#include <Wendrel/WebSocket.h>

#include "KitLog.h"

#include <qvSystem/qvThread.h>

#include <stdexcept>
#include <string>

namespace qv::kit
{
namespace
{

constexpr const char* kErrorBody = "{\"error\":\"The server failed.\",\"status\":500}";
constexpr const char* kRetryAfterSeconds = "1";
constexpr const char* kFailedMessage = "The server failed.";
constexpr const char* kUnknownException = "an exception that is no std::exception";

std::string describe(const Request& request)
{
    return HttpBaseRequest::RequestTypeToString(request.getRequestType()) + " " +
           request.getOriginalFullUrl();
}

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
    LogError(describe(request) + " failed: " + error.what());
    request.failWith(kFailedMessage);
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
    // The one place where application code is called: nothing it throws ends the process, whether
    // it comes from a handler or from onHandlerFailed.
    try {
        serveOrReport(*request);
    } catch (const std::exception& error) {
        failUnreported(*request, error.what());
    } catch (...) {
        failUnreported(*request, kUnknownException);
    }
    release(request);
    mReaper.reap();
}

void Application::serveOrReport(Request& request)
{
    try {
        serve(request);
    } catch (const std::exception& error) {
        onHandlerFailed(request, error);
    } catch (...) {
        onHandlerFailed(request, std::runtime_error(kUnknownException));
    }
}

// onHandlerFailed has thrown.
void Application::failUnreported(Request& request, const char* reason)
{
    try {
        LogError(describe(request) + " failed, and onHandlerFailed threw: " + reason);
        request.failWith(kFailedMessage);
    } catch (...) {
        // No memory, or a log sink that throws: release() completes the response.
    }
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
    request->closeResponse();
    request->workerThreadStopHandling(qvThread::CurrentThreadId());
    mReaper.finished(*request);
}

}  // namespace qv::kit

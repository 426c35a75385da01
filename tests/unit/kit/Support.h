// Requests of the kit without a server. The tests call the library in place of the daemon.
#ifndef WENDREL_TESTS_UNIT_KIT_SUPPORT_H
#define WENDREL_TESTS_UNIT_KIT_SUPPORT_H

#include "../../../src/request/ConnectionContext.h"
#include "../../../src/request/DispatchAccess.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/kit/Application.h>
#include <Wendrel/kit/Request.h>

#include <microhttpd.h>
#include <qvSystem/qvThread.h>
#include <support/Waiting.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace qv::kit::tests
{

using qv::tests::kLimit;
using qv::tests::Latch;
using qv::tests::waitUntil;

// How long a test waits before it concludes that an event does not occur.
constexpr std::chrono::milliseconds kWhile{100};

// Takes all bytes of a response that the daemon could send now.
inline std::string TakeSent(HttpBaseRequest& request, bool* ended = nullptr)
{
    std::string bytes;
    std::array<char, 4096> piece;
    bool end = false;
    bool endToo = false;
    size_t got = 0;
    do {
        got = request.getResponseDevice().sendChunksThreadSafe(piece.data(), piece.size(), end,
                                                               endToo);
        bytes.append(piece.data(), got);
    } while (got != 0);
    if (ended)
        *ended = end;
    return bytes;
}

// True when the daemon sees the response as ready to be sent.
inline bool IsReadyForDaemon(HttpBaseRequest& request)
{
    return impl::DispatchAccess::responseState(request.getResponseDevice()) ==
           impl::DispatchAccess::kReady;
}

// As the daemon completes it, with the lock of the request's response device held.
inline void Complete(HttpBaseRequest& request)
{
    qvMutexLocker lock(&impl::DispatchAccess::mutex(request.getResponseDevice()));
    impl::DispatchAccess::completed(request) = true;
    request.onCompleted(0);
}

// Counts itself, and calls `onDeleted` on the thread that deletes it.
class CountedRequest : public Request
{
public:
    CountedRequest() { ++sAlive; }
    ~CountedRequest() override
    {
        --sAlive;
        if (onDeleted)
            onDeleted();
    }

    std::function<void()> onDeleted;
    static inline std::atomic<int> sAlive{0};
};

// Served by the thread that makes it.
class ServedRequest : public Request
{
public:
    explicit ServedRequest(const char* method = "GET", std::string target = "/")
    {
        setHttpMethod(method);
        setOriginalFullUrl(std::move(target));
        workerThreadStartHandling(qvThread::CurrentThreadId());
    }

    uint32_t status() { return getHead().getStatusCode(); }
    std::string sent() { return TakeSent(*this); }

    // True when the daemon, after fetching every byte, would end the response.
    bool isEnded()
    {
        bool ended = false;
        TakeSent(*this, &ended);
        return ended;
    }

    bool isFailed() const { return getResponseDevice().hasDeviceError(); }

    void feed(const std::string& bytes)
    {
        qvMutexLocker lock(&impl::DispatchAccess::mutex(getReceiveDevice()));
        getReceiveDevice().writeBytes(bytes.data(), bytes.size());
    }

    void endFeed()
    {
        qvMutexLocker lock(&impl::DispatchAccess::mutex(getReceiveDevice()));
        getReceiveDevice().endFeed();
    }
};

// A server that is never started, with the callback by which the daemon completes requests.
class Completer
{
public:
    Completer() : Completer(new Application(smallest())) {}

    // Takes ownership.
    explicit Completer(Application* application) : mServer(application) {}

    void complete(HttpBaseRequest& request,
                  MHD_RequestTerminationCode code = MHD_REQUEST_TERMINATED_COMPLETED_OK)
    {
        using RequestCompleted =
            void (*)(void*, MHD_Connection*, void**, MHD_RequestTerminationCode);
        using OpenContext = void* (*)(void*, const char*, MHD_Connection*);
        void* slot = reinterpret_cast<OpenContext>(http::HttpServerImpl::GetUriLogCallback())(
            nullptr, "/", nullptr);
        static_cast<impl::ConnectionContext*>(slot)->request = &request;
        reinterpret_cast<RequestCompleted>(http::HttpServerImpl::GetRequestCompletedCallback())(
            &mServer, nullptr, &slot, code);
    }

    static Application::Options smallest()
    {
        Application::Options options;
        options.workers = 1;
        return options;
    }

private:
    http::HttpServer mServer;
};

}  // namespace qv::kit::tests

#endif

// A minimal application: one request and response head in fixed memory; the scenario handles the
// request.
#ifndef WENDREL_BENCH_BUDGET_APPLICATION_H
#define WENDREL_BENCH_BUDGET_APPLICATION_H

#include "Boundary.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <qvSystem/qvThread.h>

#include <cstddef>
#include <new>
#include <string>

namespace qv::bench
{

class Head : public HttpResponseInterface
{
public:
    const CookieMap& getCookies() override { return mCookies; }
    const HeaderMap& getHeaders() override { return mHeaders; }
    uint32_t getStatusCode() override { return 200; }
    int64_t getContentLength() override { return -1; }
    std::string describe() override { return "budget"; }

private:
    const CookieMap mCookies{};
    const HeaderMap mHeaders{{"content-type", {"Content-Type", "text/plain"}}};
};

class Listener : public HttpWaitListener
{
public:
    void onWaitingForData() override {}
};

// Without members: constructing and destroying it costs only the base class.
class Request : public HttpBaseRequest
{
public:
    HttpResponseInterface& getResponse() override { return sHead; }
    HttpWaitListener& getWaitListener() override { return sListener; }

private:
    static inline Head sHead;
    static inline Listener sListener;
};

class Application : public http::HttpServerImpl
{
public:
    using Handler = void (*)(HttpBaseRequest& request);

    explicit Application(Handler handler) : mHandler(handler) {}

    HttpBaseRequest* createRequest() override
    {
        Outside([this] { InLibrary([this] { mRequest = new (mPlace) Request; }); });
        return mRequest;
    }

    void handleRequest(HttpBaseRequest* request) override
    {
        Outside([this, request] { mHandler(*request); });
    }

    void onNewWebSocket(http::WebSocket*) override {}
    void onServerStopped() override {}
    void onRequestCompleted() override {}

    HttpBaseRequest& getRequest() const { return *mRequest; }

    // As an application deletes it in the end.
    void destroyRequest()
    {
        InLibrary([this] { mRequest->~HttpBaseRequest(); });
        mRequest = nullptr;
    }

private:
    Handler mHandler;
    HttpBaseRequest* mRequest = nullptr;
    alignas(Request) std::byte mPlace[sizeof(Request)];
};

}  // namespace qv::bench

#endif

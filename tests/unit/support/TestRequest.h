// The least that a request needs of an application: a response head, a wait listener and a
// request class that shows both; and bytes to send through it.
#ifndef WENDREL_TESTS_TESTREQUEST_H
#define WENDREL_TESTS_TESTREQUEST_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <qvSystem/qvThread.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace qv::tests
{

// Set the fields before the response is announced.
class TestResponse : public HttpResponseInterface
{
public:
    const CookieMap& getCookies() override { return cookies; }
    const HeaderMap& getHeaders() override { return headers; }
    uint32_t getStatusCode() override { return statusCode; }
    int64_t getContentLength() override { return contentLength; }
    std::string describe() override { return "test response"; }

    void addHeader(const std::string& name, const std::string& value)
    {
        headers[name] = {name, value};
    }

    CookieMap cookies;
    HeaderMap headers;
    uint32_t statusCode = 200;
    int64_t contentLength = -1;
};

// Counts its calls and passes each on to `action`. Used by the worker thread only.
class TestWaitListener : public HttpWaitListener
{
public:
    void onWaitingForData() override
    {
        ++calls;
        if (action)
            action();
    }

    size_t calls = 0;
    std::function<void()> action;
};

class TestRequest : public HttpBaseRequest
{
public:
    HttpResponseInterface& getResponse() override { return response; }
    HttpWaitListener& getWaitListener() override { return listener; }

    using HttpBaseRequest::setKeepAliveCallback;

    // The calling thread is the request's worker from now on.
    void serveOnThisThread() { workerThreadStartHandling(qvThread::CurrentThreadId()); }
    void stopServing() { workerThreadStopHandling(qvThread::CurrentThreadId()); }

    TestResponse response;
    TestWaitListener listener;
};

// A request whose worker is the thread that made it.
class WorkerRequest : public TestRequest
{
public:
    WorkerRequest() { serveOnThisThread(); }
};

// `size` bytes in which each position can be told from its neighbours, and which no chunk size
// repeats.
inline std::string PatternBytes(size_t size, size_t firstPosition = 0)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        const size_t position = firstPosition + i;
        bytes[i] = static_cast<char>((position * 31 + position / 251 + position / 65537) & 0xFF);
    }
    return bytes;
}

}  // namespace qv::tests

#endif

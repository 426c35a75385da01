// Requests whose worker is a thread of the test, and bytes to send through them.
#ifndef WENDREL_TESTS_TESTREQUEST_H
#define WENDREL_TESTS_TESTREQUEST_H

#include <support/MinimalRequest.h>

#include <qvSystem/qvThread.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace qv::tests
{

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

class TestRequest : public MinimalRequest
{
public:
    HttpWaitListener& getWaitListener() override { return listener; }

    // The calling thread is the request's worker from now on.
    void serveOnThisThread() { workerThreadStartHandling(qvThread::CurrentThreadId()); }
    void stopServing() { workerThreadStopHandling(qvThread::CurrentThreadId()); }

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

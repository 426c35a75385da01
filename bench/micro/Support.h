// Shared parts of the benchmarks: a minimal request, and bytes.
#ifndef WENDREL_BENCH_MICRO_SUPPORT_H
#define WENDREL_BENCH_MICRO_SUPPORT_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <qvSystem/qvThread.h>

#include <benchmark/benchmark.h>

#include <cstdint>
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
    std::string describe() override { return "benchmark"; }

private:
    CookieMap mCookies;
    HeaderMap mHeaders;
};

class Listener : public HttpWaitListener
{
public:
    void onWaitingForData() override {}
};

class Request : public HttpBaseRequest
{
public:
    HttpResponseInterface& getResponse() override { return sHead; }
    HttpWaitListener& getWaitListener() override { return sListener; }

private:
    static inline Head sHead;
    static inline Listener sListener;
};

// A request whose worker is the calling thread.
class WorkerRequest : public Request
{
public:
    WorkerRequest() { workerThreadStartHandling(qvThread::CurrentThreadId()); }
};

inline void SetBytes(benchmark::State& state, uint64_t bytesEachTime)
{
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytesEachTime));
}

inline void SetItems(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations());
}

}  // namespace qv::bench

#endif

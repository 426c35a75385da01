// The response device under stress: writers, daemon threads and deleters meet in every order that
// the contract allows, with yields at every lock.

#include "Dice.h"
#include "Plan.h"
#include "RunRecord.h"
#include "Shaking.h"
#include "SmallDaemon.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include <gtest/gtest.h>
#include <support/MinimalRequest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace stress
{
namespace
{

constexpr uint64_t kDaemonThreads = 2;
constexpr uint64_t kWorkers = 4;

// The limit of a run without progress: far above the pauses of a loaded machine.
constexpr std::chrono::seconds kStallLimit(60);

// On a loaded machine every change of threads takes its time.
constexpr std::chrono::minutes kRunLimit(5);

uint64_t fromEnvironment(const char* name, uint64_t otherwise)
{
    const char* text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

class Response : public qv::tests::MinimalResponse
{
public:
    // Asked between the decision to stream and the look at the length.
    int64_t getContentLength() override
    {
        shake();
        return contentLength;
    }
};

class Request : public qv::tests::MinimalRequest
{
public:
    Request(const Plan& plan_, RunRecord& record) : plan(plan_), mRecord(record)
    {
        if (plan.declaresLength || plan.isUnfetched)
            mResponse.contentLength = static_cast<int64_t>(plan.bodyBytes);
    }

    ~Request() override
    {
        RunRecord::Progress& progress = mRecord.progress(plan.id);
        if (progress.completed != 1 || progress.served != 1)
            mRecord.addError("a request was deleted too early");
        if (progress.deleted++ != 0)
            mRecord.addError("a request was deleted twice");
    }

    qv::HttpResponseInterface& getResponse() override { return mResponse; }

    /// The worker's last touch.
    void setServed() { mServed = true; }

    /// Deletes the request if worker and daemon are done with it.
    static bool DeleteIfDone(Request* request)
    {
        if (!request->mServed || !request->isCompleted())
            return false;
        RunRecord& record = request->mRecord;
        ++record.deletedBy[static_cast<size_t>(request->plan.deleter)];
        delete request;
        ++record.deleted;
        return true;
    }

    const Plan plan;

private:
    RunRecord& mRecord;
    Response mResponse;
    std::atomic<bool> mServed{false};
};

/// Hands requests to threads.
class Queue
{
public:
    void push(Request* request)
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mRequests.push_back(request);
        }
        mChanged.notify_one();
    }

    /// Null when there will be no more. Without `wait`, null also when there is none now.
    Request* pop(bool wait)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (wait)
            mChanged.wait(lock, [this] { return mEnded || !mRequests.empty(); });
        if (mRequests.empty())
            return nullptr;
        Request* request = mRequests.front();
        mRequests.pop_front();
        return request;
    }

    void end()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEnded = true;
        mChanged.notify_all();
    }

    bool hasEnded()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEnded && mRequests.empty();
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<Request*> mRequests;
    bool mEnded = false;
};

class Application : public qv::http::HttpServerImpl
{
public:
    Application(RunRecord& record, Queue& toWorkers, Queue& toReaper)
        : mRecord(record), mToWorkers(toWorkers), mToReaper(toReaper)
    {
        setErrorBody("error");
    }

    qv::HttpBaseRequest* createRequest() override
    {
        return new Request(SmallDaemon::CurrentPlan(), mRecord);
    }

    void handleRequest(qv::HttpBaseRequest* base) override
    {
        auto* request = static_cast<Request*>(base);
        if (request->plan.deleter == Plan::Deleter::Reaper)
            mToReaper.push(request);
        if (request->plan.deleter == Plan::Deleter::Daemon)
            SmallDaemon::LeaveToCurrent([request] { return Request::DeleteIfDone(request); });
        mToWorkers.push(request);
    }

    void onRequestCompleted() override
    {
        RunRecord::Progress& progress = mRecord.progress(SmallDaemon::CurrentPlan().id);
        if (progress.completed++ != 0)
            mRecord.addError("a request was completed twice");
        ++(progress.served ? mRecord.servedBeforeCompleted : mRecord.completedBeforeServed);
    }

    void onNewWebSocket(qv::http::WebSocket*) override { mRecord.addError("an upgrade"); }
    void onServerStopped() override {}

private:
    RunRecord& mRecord;
    Queue& mToWorkers;
    Queue& mToReaper;
};

/// A thread that writes responses.
class Worker
{
public:
    Worker(RunRecord& record, const BodySource& source, uint64_t seed)
        : mRecord(record), mSource(source), mDice(seed)
    {}

    void run(Queue& queue)
    {
        while (Request* request = queue.pop(mDone.empty())) {
            serve(*request);
            deleteDone();
        }
        while (!queue.hasEnded() || !mDone.empty()) {
            if (Request* request = queue.pop(false))
                serve(*request);
            deleteDone();
            ::sched_yield();
        }
    }

private:
    void serve(Request& request)
    {
        const bool isMine = request.plan.deleter == Plan::Deleter::Worker;
        const std::string& thread = qv::qvThread::CurrentThreadId();
        request.workerThreadStartHandling(thread);
        write(request);
        request.workerThreadStopHandling(thread);
        ++mRecord.progress(request.plan.id).served;
        shake();
        request.setServed();
        // A request of another deleter may be deleted already.
        if (!isMine)
            return;
        if (!request.plan.deletesAtOnce)
            mDone.push_back(&request);
        else
            while (!Request::DeleteIfDone(&request))
                shake();
    }

    void write(Request& request)
    {
        const Plan& plan = request.plan;
        qv::HttpResponseDevice& device = request.getResponseDevice();
        bool isAnnounced = false;
        uint64_t done = 0;
        const bool isAbandoned = plan.ending == Plan::Ending::Abandoned;
        const uint64_t wanted = isAbandoned ? plan.abandonAfterBytes : plan.bodyBytes;
        for (;;) {
            if (!isAnnounced && plan.announceAfterBytes <= done &&
                plan.ending != Plan::Ending::NeverAnnounced)
                isAnnounced = announce(request);
            if (done == wanted || !writePiece(request, wanted, done))
                break;
        }
        finish(plan, device, done == wanted);
        if (!isAnnounced && plan.ending != Plan::Ending::NeverAnnounced)
            announce(request);
        if (device.hasDeviceError() && !isAbandoned)
            ++mRecord.lossesSeenByWriter;
    }

    bool announce(Request& request)
    {
        const qv::HttpResponseDevice& device = request.getResponseDevice();
        shake();
        if (!request.getResponseDevice().setResponseReady())
            mRecord.addError("a response was announced before");
        while (request.plan.awaitsQueueing && request.getResponseStartMs() < 0 &&
               !device.hasDeviceError())
            ::sched_yield();
        return true;
    }

    // False when the device has refused it.
    bool writePiece(Request& request, uint64_t wanted, uint64_t& done)
    {
        constexpr uint64_t kLargestPiece = 150000;
        qv::HttpResponseDevice& device = request.getResponseDevice();
        uint64_t size = std::min(wanted - done, 1 + mDice.below(mDice.oneIn(3) ? 100 : 70000));
        if (mDice.oneIn(8))
            size = std::min(wanted - done, mDice.below(kLargestPiece));
        // Announce exactly where the plan says.
        if (request.plan.announceAfterBytes > done)
            size = std::min(size, request.plan.announceAfterBytes - done);
        const uint64_t taken = device.writeBytes(mSource.at(request.plan.id, done), size);
        if (mDice.oneIn(16))
            device.flush();
        if (taken != size) {
            if (taken != 0 || !device.hasDeviceError())
                mRecord.addError("a write was refused without error");
            return false;
        }
        done += size;
        mRecord.bytesWritten += size;
        shake();
        return true;
    }

    void finish(const Plan& plan, qv::HttpResponseDevice& device, bool isWritten)
    {
        if (plan.ending == Plan::Ending::Abandoned && isWritten) {
            device.setDeviceError("abandoned");
            return;
        }
        if (plan.ending != Plan::Ending::Ended)
            return;
        device.endSending();
        if (device.writeBytes("x", 1) != 0)
            mRecord.addError("a write was taken after the end");
    }

    void deleteDone() { mDone.remove_if(Request::DeleteIfDone); }

    RunRecord& mRecord;
    const BodySource& mSource;
    Dice mDice;
    std::list<Request*> mDone;
};

/// A thread that looks at requests from outside all the time, and deletes them the moment it may.
void reap(Queue& queue, RunRecord& record)
{
    std::list<Request*> open;
    while (!queue.hasEnded() || !open.empty()) {
        while (Request* request = queue.pop(false))
            open.push_back(request);
        for (Request* request : open) {
            const qv::HttpResponseDevice& device = request->getResponseDevice();
            if (device.getSentBytes() > request->plan.bodyBytes + 1 ||
                device.getDataSize() > request->plan.bodyBytes ||
                (device.hasDeviceError() && !device.atEnd()))
                record.addError("a device said something impossible");
        }
        open.remove_if(Request::DeleteIfDone);
        ::sched_yield();
    }
}

/// Ends the process when nothing moves any more: threads that wait for ever cannot be joined.
class StallWatch
{
public:
    explicit StallWatch(RunRecord& record) : mRecord(record), mThread([this] { watch(); }) {}

    ~StallWatch()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEnded = true;
        }
        mChanged.notify_all();
        mThread.join();
    }

private:
    uint64_t progress() const
    {
        return mRecord.begun + mRecord.deleted + mRecord.bytesFetched + mRecord.bytesWritten;
    }

    void watch()
    {
        const auto limit =
            std::chrono::seconds(fromEnvironment("WENDREL_STRESS_STALL", kStallLimit.count()));
        std::unique_lock<std::mutex> lock(mMutex);
        uint64_t last = kNever;
        auto since = Clock::now();
        while (
            !mChanged.wait_for(lock, std::chrono::milliseconds(200), [this] { return mEnded; })) {
            const uint64_t now = progress();
            if (now != last) {
                last = now;
                since = Clock::now();
            } else if (Clock::now() - since > limit) {
                giveUp();
            }
        }
    }

    void giveUp()
    {
        std::printf(
            "Nothing has moved for too long: %llu of %llu begun requests deleted, %llu writers "
            "waiting.\n%s",
            static_cast<unsigned long long>(mRecord.deleted),
            static_cast<unsigned long long>(mRecord.requests()),
            static_cast<unsigned long long>(shakingCounts().waiting),
            mRecord.firstErrors().c_str());
        std::fflush(stdout);
        std::_Exit(1);
    }

    RunRecord& mRecord;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mEnded = false;
    std::thread mThread;
};

void print(const std::string& name, uint64_t value, const char* unit)
{
    std::printf("metric: stress_%s %llu %s\n", name.c_str(), static_cast<unsigned long long>(value),
                unit);
}

void printMetrics(RunRecord& record, uint64_t seed, Clock::duration took)
{
    print("seed", seed, "number");
    print("requests", record.deleted, "requests");
    for (size_t i = 0; i < kOutcomes; ++i)
        print(kOutcomeNames[i], record.outcomes[i], "requests");
    print("served_before_completed", record.servedBeforeCompleted, "requests");
    print("completed_before_served", record.completedBeforeServed, "requests");
    const char* const deleters[] = {"worker", "daemon", "reaper"};
    for (size_t i = 0; i < record.deletedBy.size(); ++i)
        print(std::string("deleted_by_") + deleters[i], record.deletedBy[i], "requests");
    print("losses_seen_by_writers", record.lossesSeenByWriter, "requests");
    print("written", record.bytesWritten, "bytes");
    print("fetched_and_compared", record.bytesFetched, "bytes");
    print("writer_waits", shakingCounts().waits, "waits");
    print("yields", shakingCounts().yields, "yields");
    print("time", std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), "ms");
}

void runThreads(RunRecord& record, uint64_t seed)
{
    const BodySource source(seed);
    Queue toWorkers;
    Queue toReaper;
    qv::http::HttpServer server(new Application(record, toWorkers, toReaper));
    const SmallDaemon::Shared shared{server, record, source, seed};
    StallWatch watch(record);
    std::vector<std::thread> daemons;
    std::vector<std::thread> others;
    for (uint64_t i = 0; i < kDaemonThreads; ++i)
        daemons.emplace_back([&, i] {
            shakeThisThread(seed + i);
            SmallDaemon(shared, i).run();
        });
    for (uint64_t i = 0; i < kWorkers; ++i)
        others.emplace_back([&, i] {
            shakeThisThread(seed + kDaemonThreads + i);
            Worker(record, source, seed + i).run(toWorkers);
        });
    others.emplace_back([&] {
        shakeThisThread(seed + kDaemonThreads + kWorkers);
        reap(toReaper, record);
    });
    for (std::thread& daemon : daemons)
        daemon.join();
    toWorkers.end();
    toReaper.end();
    for (std::thread& other : others)
        other.join();
}

void expectEachOnce(RunRecord& record)
{
    uint64_t wrong = 0;
    for (uint64_t id = 0; id < record.requests(); ++id) {
        const RunRecord::Progress& progress = record.progress(id);
        wrong += progress.served != 1 || progress.completed != 1 || progress.deleted != 1;
    }
    EXPECT_EQ(wrong, 0u) << "requests not served, completed and deleted exactly once";
    EXPECT_EQ(record.deleted, record.requests());
    EXPECT_EQ(record.servedBeforeCompleted + record.completedBeforeServed, record.requests());
}

// A run that did not meet every order has shown nothing.
void expectEveryOrder(RunRecord& record)
{
    for (size_t i = 0; i < kOutcomes; ++i)
        EXPECT_GT(record.outcomes[i], 0u) << kOutcomeNames[i];
    for (const auto& deletions : record.deletedBy)
        EXPECT_GT(deletions, 0u);
    EXPECT_GT(record.servedBeforeCompleted, 0u);
    EXPECT_GT(record.completedBeforeServed, 0u);
    EXPECT_GT(shakingCounts().waits, 0u);
    EXPECT_GT(shakingCounts().yields, 0u);
}

TEST(HttpResponseDevice, CompletesEveryRequestOnceWhateverTheOrder)
{
    const uint64_t requests = fromEnvironment("WENDREL_STRESS_REQUESTS", WENDREL_STRESS_REQUESTS);
    const uint64_t seed = fromEnvironment("WENDREL_STRESS_SEED", 1);
    RunRecord record(requests, kRunLimit);
    qv::initializeWendrel();
    const auto start = Clock::now();
    runThreads(record, seed);
    printMetrics(record, seed, Clock::now() - start);
    qv::terminateWendrel();
    EXPECT_EQ(record.errorCount(), 0u) << record.firstErrors();
    expectEachOnce(record);
    if (record.requests() >= RunRecord::kMinRequests)
        expectEveryOrder(record);
}

}  // namespace
}  // namespace stress

// The receive device: the bytes of each read, the length of each wait, the callbacks. The hook of a
// wait acts as the daemon thread.

#include "support/BackgroundCall.h"
#include "support/FakeTime.h"
#include "support/TestAccess.h"
#include "support/TestRequest.h"

#include "request/ConnectionContext.h"
#include "request/DispatchAccess.h"
#include "streaming/ChunkPool.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

using impl::DispatchAccess;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr size_t kChunk = 65536;
constexpr int64_t kIdleMs = 360000;
const char* const kIdleError = "Wait too long without incoming data";

uint64_t Feed(HttpBaseRequest& request, const std::string& bytes)
{
    HttpReceiveDevice& device = request.getReceiveDevice();
    qvMutexLocker locker(&DispatchAccess::mutex(device));
    return device.writeBytes(bytes.data(), bytes.size());
}

void EndFeed(HttpBaseRequest& request)
{
    HttpReceiveDevice& device = request.getReceiveDevice();
    qvMutexLocker locker(&DispatchAccess::mutex(device));
    device.endFeed();
}

std::string Read(HttpBaseRequest& request, size_t len)
{
    std::string bytes(len, '\0');
    const uint64_t got = request.getReceiveDevice().readBytes(bytes.data(), len);
    EXPECT_LE(got, len);
    bytes.resize(got);
    return bytes;
}

TEST(HttpReceiveDevice, StartsOpenAndEmpty)
{
    TestRequest request;
    HttpReceiveDevice& device = request.getReceiveDevice();
    EXPECT_EQ(device.getDataWay(), 3);
    EXPECT_FALSE(device.atEnd());
    EXPECT_FALSE(device.hasDeviceError());
    EXPECT_EQ(device.getReceivedBytes(), 0u);
}

TEST(HttpReceiveDevice, ReadsAShortBodyAndThenNothing)
{
    FakeTime time;
    WorkerRequest request;
    EXPECT_EQ(Feed(request, "0123456789"), 10u);
    EndFeed(request);
    EXPECT_FALSE(request.getReceiveDevice().atEnd());
    EXPECT_EQ(Read(request, 100), "0123456789");
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
    EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), 10u);
    EXPECT_EQ(Read(request, 100), "");
    EXPECT_THAT(time.waits(), IsEmpty());
    EXPECT_FALSE(request.getReceiveDevice().hasDeviceError());
}

TEST(HttpReceiveDevice, IsAtEndWithTheReadOfTheLastByte)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, "0123456789");
    EndFeed(request);
    EXPECT_EQ(Read(request, 9), "012345678");
    EXPECT_FALSE(request.getReceiveDevice().atEnd());
    EXPECT_EQ(Read(request, 1), "9");
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
    EXPECT_THAT(time.waits(), IsEmpty());
}

TEST(HttpReceiveDevice, EmptyBodyIsAtEndAfterTheFirstRead)
{
    FakeTime time;
    WorkerRequest request;
    EndFeed(request);
    EXPECT_FALSE(request.getReceiveDevice().atEnd());
    EXPECT_EQ(Read(request, 1), "");
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
    EXPECT_THAT(time.waits(), IsEmpty());
}

TEST(HttpReceiveDevice, ReadOfNothingReturnsAtOnceAndTellsNobody)
{
    FakeTime time;
    WorkerRequest request;
    size_t calls = 0;
    request.setKeepAliveCallback([&] { ++calls; }, 0);
    EXPECT_EQ(request.getReceiveDevice().readBytes(nullptr, 0), 0u);
    EXPECT_EQ(calls, 0u);
    EXPECT_EQ(request.listener.calls, 0u);
    EXPECT_THAT(time.waits(), IsEmpty());
    EndFeed(request);
    EXPECT_EQ(request.getReceiveDevice().readBytes(nullptr, 0), 0u);
    EXPECT_FALSE(request.getReceiveDevice().atEnd());
}

TEST(HttpReceiveDevice, WhileTheFeedIsOpenTheLastChunkIsNotRead)
{
    const struct
    {
        const char* name;
        std::vector<size_t> pieces;
        size_t readable;
    } rows[] = {
        {"nothing", {}, 0},
        {"a few bytes", {10}, 0},
        {"a chunk, full", {65536}, 0},
        {"a full chunk and a byte", {65536, 1}, 65536},
        {"a byte more than a chunk in one piece", {65537}, 0},
        {"70000 bytes in pieces of 16384", {16384, 16384, 16384, 16384, 4464}, 65536},
        {"70000 bytes in one piece", {70000}, 0},
        {"70000 bytes in one piece and a byte", {70000, 1}, 70000},
        {"the rest of a piece begins a new chunk", {65535, 2}, 65536},
        {"a long rest is one chunk", {10, 200000}, 65536},
        {"and becomes readable with the next", {10, 200000, 1}, 200010},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeTime time;
        WorkerRequest request;
        size_t all = 0;
        for (const size_t size : row.pieces) {
            EXPECT_EQ(Feed(request, PatternBytes(size, all)), size);
            all += size;
        }
        uint64_t beforeTheEnd = 0;
        time.onWait([&](FakeTime::Wait& wait) {
            beforeTheEnd = request.getReceiveDevice().getReceivedBytes();
            EXPECT_EQ(wait.number, 0u);
            EndFeed(request);
        });
        EXPECT_TRUE(Read(request, all + 100) == PatternBytes(all));
        EXPECT_EQ(beforeTheEnd, row.readable);
        EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), all);
        EXPECT_TRUE(request.getReceiveDevice().atEnd());
        EXPECT_THAT(time.waitTimeouts(), ElementsAre(1000));
    }
}

TEST(HttpReceiveDevice, ReturnsAsSoonAsTheBufferIsFull)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, PatternBytes(kChunk));
    Feed(request, "x");
    EXPECT_TRUE(Read(request, 1000) == PatternBytes(1000));
    EXPECT_TRUE(Read(request, kChunk - 1000) == PatternBytes(kChunk - 1000, 1000));
    EXPECT_FALSE(request.getReceiveDevice().atEnd());
    EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), kChunk);
    EXPECT_THAT(time.waits(), IsEmpty());
}

TEST(HttpReceiveDevice, ReadsAcrossChunks)
{
    FakeTime time;
    WorkerRequest request;
    const std::string body = PatternBytes(3 * kChunk + 5);
    for (size_t at = 0; at < body.size(); at += 4000)
        Feed(request, body.substr(at, 4000));
    EndFeed(request);
    std::string received;
    for (size_t len : {1, 65534, 2, 65536, 65535})
        received += Read(request, len);
    EXPECT_EQ(received.size(), 3 * kChunk);
    received += Read(request, 100);
    EXPECT_TRUE(received == body);
    EXPECT_THAT(time.waits(), IsEmpty());
}

TEST(HttpReceiveDevice, WaitsInSlicesOfASecondUntilDataOrEnd)
{
    FakeTime time;
    WorkerRequest request;
    time.onWait([&](FakeTime::Wait& wait) {
        if (wait.number == 4)
            EndFeed(request);
    });
    EXPECT_EQ(Read(request, 10), "");
    EXPECT_THAT(time.waitTimeouts(), ElementsAre(1000, 1000, 1000, 1000, 1000));
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
    EXPECT_FALSE(request.getReceiveDevice().hasDeviceError());
}

TEST(HttpReceiveDevice, ReaderIsWokenOnlyWhenWhatItWantsIsThere)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, PatternBytes(100));
    EXPECT_EQ(time.wakes(), 0u);  // nobody waits
    time.onWait([&](FakeTime::Wait& wait) {
        if (wait.number == 0) {
            Feed(request, PatternBytes(99899, 100));
            EXPECT_EQ(time.wakes(), 0u);
            Feed(request, PatternBytes(1, 99999));
            EXPECT_EQ(time.wakes(), 1u);
        } else if (wait.number == 1) {
            // 65536 of the 100000 bytes have been read: 34464 are wanted, and there.
            EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), kChunk);
            Feed(request, "");
            EXPECT_EQ(time.wakes(), 2u);
        } else {
            EndFeed(request);
        }
    });
    EXPECT_TRUE(Read(request, 100000) == PatternBytes(100000));
    EXPECT_THAT(time.waits(), SizeIs(3));
    EXPECT_EQ(time.wakes(), 3u);
}

TEST(HttpReceiveDevice, ReaderWantsOnlyWhatIsMissingAfterPartOfItHasBeenRead)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, PatternBytes(kChunk));
    Feed(request, PatternBytes(10, kChunk));
    time.onWait([&](FakeTime::Wait& wait) {
        if (wait.number != 0)
            return EndFeed(request);
        // 90 more are wanted, 10 are in the queue.
        Feed(request, PatternBytes(79, kChunk + 10));
        EXPECT_EQ(time.wakes(), 0u);
        Feed(request, PatternBytes(1, kChunk + 89));
        EXPECT_EQ(time.wakes(), 1u);
    });
    EXPECT_TRUE(Read(request, kChunk + 90) == PatternBytes(kChunk + 90));
}

TEST(HttpReceiveDevice, RequiredReaderIsWokenForBytesItCannotReadYet)
{
    FakeTime time;
    WorkerRequest request;
    uint64_t afterTheWake = 1;
    time.onWait([&](FakeTime::Wait& wait) {
        if (wait.number == 0) {
            Feed(request, "0123456789");
            EXPECT_EQ(time.wakes(wait.condition), 1u);
        } else {
            afterTheWake = request.getReceiveDevice().getReceivedBytes();
            EndFeed(request);
        }
    });
    EXPECT_EQ(Read(request, 10), "0123456789");
    EXPECT_EQ(afterTheWake, 0u);
    EXPECT_THAT(time.waits(), SizeIs(2));
}

TEST(HttpReceiveDevice, AfterAReadNobodyIsWokenByData)
{
    FakeTime time;
    WorkerRequest request;
    time.onWait([&](FakeTime::Wait&) { request.getReceiveDevice().setDeviceError("stop"); });
    Read(request, 10);
    request.getReceiveDevice().clearDeviceError();
    Feed(request, PatternBytes(1000));
    EXPECT_EQ(time.wakes(), 0u);
}

TEST(HttpReceiveDevice, EndOfTheFeedWakesAlways)
{
    FakeTime time;
    TestRequest request;
    EndFeed(request);
    EXPECT_EQ(time.wakes(), 1u);
    EndFeed(request);
    EXPECT_EQ(time.wakes(), 2u);
    EXPECT_FALSE(request.getReceiveDevice().hasDeviceError());
}

TEST(HttpReceiveDevice, DataAfterTheEndOfTheFeedIsAnError)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, "0123456789");
    EndFeed(request);
    EXPECT_EQ(Feed(request, "more"), 0u);
    EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), "no more feed");
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
    EXPECT_EQ(Read(request, 100), "");
    request.getReceiveDevice().clearDeviceError();
    EXPECT_EQ(Read(request, 100), "0123456789");
}

TEST(HttpReceiveDevice, IdleReaderGivesUpAfter360Seconds)
{
    FakeTime time;
    WorkerRequest request;
    const int64_t begin = time.nowMs();
    EXPECT_EQ(Read(request, 10), "");
    EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), kIdleError);
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
    EXPECT_THAT(time.waits(), SizeIs(361));
    EXPECT_THAT(time.waitTimeouts(), Each(1000));
    EXPECT_EQ(time.nowMs() - begin, 361000);
}

TEST(HttpReceiveDevice, IdleLimitIsExact)
{
    const struct
    {
        const char* name;
        int64_t idleMs;
        const char* error;
        size_t waits;
    } rows[] = {
        {"a ms less", kIdleMs - 1, "", 2},
        {"the limit", kIdleMs, "", 2},
        {"a ms more", kIdleMs + 1, kIdleError, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeTime time;
        WorkerRequest request;
        time.onWait([&](FakeTime::Wait& wait) {
            wait.woken = true;
            if (wait.number == 0)
                time.advanceMs(row.idleMs);
            else
                EndFeed(request);
        });
        EXPECT_EQ(Read(request, 10), "");
        EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), row.error);
        EXPECT_THAT(time.waits(), SizeIs(row.waits));
    }
}

TEST(HttpReceiveDevice, GivesUpBeforeItLooksWhetherTheFeedHasEnded)
{
    FakeTime time;
    WorkerRequest request;
    HttpReceiveDevice& device = request.getReceiveDevice();
    time.onWait([&](FakeTime::Wait& wait) {
        wait.woken = true;
        time.advanceMs(kIdleMs + 1);
        EndFeed(request);
    });
    EXPECT_EQ(Read(request, 10), "");
    EXPECT_EQ(device.getDeviceErrorMsg(), kIdleError);
    device.clearDeviceError();
    EXPECT_FALSE(device.atEnd());
    EXPECT_EQ(Read(request, 10), "");
    EXPECT_TRUE(device.atEnd());
    EXPECT_FALSE(device.hasDeviceError());
}

TEST(HttpReceiveDevice, EachReadByteStartsTheIdlePeriodAgain)
{
    FakeTime time;
    WorkerRequest request;
    const std::string body = PatternBytes(2 * kChunk + 1);
    time.onWait([&](FakeTime::Wait& wait) {
        wait.woken = true;
        time.advanceMs(kIdleMs);
        if (wait.number < 2)
            Feed(request, body.substr(wait.number * kChunk, kChunk));
        else if (wait.number == 2)
            Feed(request, body.substr(2 * kChunk));
    });
    // A chunk is readable when the next one begins: after the second and the third wait.
    EXPECT_EQ(Read(request, body.size()).size(), 2 * kChunk);
    EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), kIdleError);
    EXPECT_THAT(time.waits(), SizeIs(5));
}

TEST(HttpReceiveDevice, IdleReaderReturnsWhatItHasCopied)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, PatternBytes(kChunk));
    Feed(request, "x");
    EXPECT_TRUE(Read(request, 100000) == PatternBytes(kChunk));
    EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), kIdleError);
    EXPECT_THAT(time.waits(), SizeIs(361));
    EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), kChunk);
}

TEST(HttpReceiveDevice, InErrorReadsNothingAndDoesNotWait)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, "0123456789");
    EndFeed(request);
    request.getReceiveDevice().setDeviceError("broken");
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
    EXPECT_EQ(Read(request, 10), "");
    EXPECT_THAT(time.waits(), IsEmpty());
    EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), "broken");
    EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), 0u);
    EXPECT_EQ(request.listener.calls, 1u);
}

TEST(HttpReceiveDevice, ErrorWhileWaitingEndsTheReadAfterWhatIsThere)
{
    FakeTime time;
    WorkerRequest request;
    time.onWait([&](FakeTime::Wait&) {
        Feed(request, PatternBytes(kChunk));
        Feed(request, "x");
        request.getReceiveDevice().setDeviceError("closed");
    });
    EXPECT_TRUE(Read(request, 100000) == PatternBytes(kChunk));
    EXPECT_THAT(time.waits(), SizeIs(1));
    EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), "closed");
}

TEST(HttpReceiveDevice, ListenerIsToldOnceAtTheBeginningAndOnceBeforeEachWait)
{
    FakeTime time;
    WorkerRequest request;
    std::vector<size_t> callsBeforeWait;
    time.onWait([&](FakeTime::Wait& wait) {
        callsBeforeWait.push_back(request.listener.calls);
        if (wait.number == 3)
            EndFeed(request);
    });
    Read(request, 10);
    EXPECT_THAT(callsBeforeWait, ElementsAre(2, 3, 4, 5));
    EXPECT_EQ(request.listener.calls, 5u);
    Read(request, 10);  // at end
    EXPECT_EQ(request.listener.calls, 6u);
    EXPECT_THAT(time.waits(), SizeIs(4));
}

TEST(HttpReceiveDevice, ListenerMayEndTheReadWithAnError)
{
    const struct
    {
        const char* name;
        size_t atCall;
        size_t waits;
    } rows[] = {{"before the first pass", 1, 0},
                {"before the first wait", 2, 1},
                {"before the third wait", 4, 3}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeTime time;
        WorkerRequest request;
        request.listener.action = [&] {
            if (request.listener.calls == row.atCall)
                request.getReceiveDevice().setDeviceError("client closed");
        };
        EXPECT_EQ(Read(request, 10), "");
        EXPECT_THAT(time.waits(), SizeIs(row.waits));
        EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), "client closed");
    }
}

TEST(HttpReceiveDevice, NeitherListenerNorCallbackIsCalledForAnyThreadButTheWorker)
{
    for (const std::string& worker : {std::string(), qvThread::CurrentThreadId() + "0"}) {
        SCOPED_TRACE(worker);
        FakeTime time;
        TestRequest request;
        request.workerThreadStartHandling(worker);
        size_t calls = 0;
        request.setKeepAliveCallback([&] { ++calls; }, 0);
        time.onWait([&](FakeTime::Wait& wait) {
            if (wait.number == 0) {
                Feed(request, "abc");
            } else {
                EndFeed(request);
            }
        });
        EXPECT_EQ(Read(request, 100), "abc");
        EXPECT_EQ(calls, 0u);
        EXPECT_EQ(request.listener.calls, 0u);
    }
}

TEST(HttpReceiveDevice, KeepAliveCallbackKeepsItsInterval)
{
    const struct
    {
        const char* name;
        uint32_t intervalMs;
        std::vector<int64_t> calls;  // ms since the beginning of the read
    } rows[] = {
        // Called at 0 before the first pass; at 0 again before the first wait only when more
        // than the interval has passed, which it never has; then once a second at most.
        {"none", 0, {0, 1000, 2000, 3000, 4000}},
        {"a ms less than a second", 999, {0, 1000, 2000, 3000, 4000}},
        {"a second: more than that must have passed", 1000, {0, 2000, 4000}},
        {"one and a half seconds", 1500, {0, 2000, 4000}},
        {"three seconds less a ms", 2999, {0, 3000}},
        {"the largest", 4294967295u, {0}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeTime time;
        const int64_t begin = time.nowMs();
        WorkerRequest request;
        std::vector<int64_t> calls;
        request.setKeepAliveCallback([&] { calls.push_back(time.nowMs() - begin); },
                                     row.intervalMs);
        time.onWait([&](FakeTime::Wait& wait) {
            if (wait.number == 4)
                EndFeed(request);
        });
        Read(request, 10);
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(DispatchAccess::lastKeepAliveMs(request), begin + row.calls.back());
        EXPECT_EQ(request.listener.calls, 6u);
    }
}

TEST(HttpReceiveDevice, WritingTheResponsePostponesTheKeepAliveCallback)
{
    FakeTime time;
    WorkerRequest request;
    size_t calls = 0;
    request.setKeepAliveCallback([&] { ++calls; }, 500);
    EndFeed(request);
    request.getResponseDevice().writeBytes("x", 1);
    time.advanceMs(500);
    Read(request, 1);
    EXPECT_EQ(calls, 0u);
    time.advanceMs(1);
    Read(request, 1);
    EXPECT_EQ(calls, 1u);
}

TEST(HttpReceiveDevice, CallbackComesBeforeListener)
{
    WorkerRequest request;
    std::vector<std::string> order;
    request.setKeepAliveCallback([&] { order.push_back("callback"); }, 0);
    request.listener.action = [&] { order.push_back("listener"); };
    EndFeed(request);
    Read(request, 1);
    EXPECT_THAT(order, ElementsAre("callback", "listener"));
}

TEST(HttpReceiveDevice, CallbackAndListenerRunWithoutTheMutexFirstAndWithItLater)
{
    FakeTime time;
    WorkerRequest request;
    qvMutex& mutex = DispatchAccess::mutex(request.getReceiveDevice());
    std::unique_ptr<BackgroundCall> locking;
    std::vector<bool> held;
    request.listener.action = [&] {
        locking = std::make_unique<BackgroundCall>([&] { qvMutexLocker locker(&mutex); });
        if (request.listener.calls == 1)
            held.push_back(!locking->waitForEnd());
        else
            held.push_back(locking->isBlocked());
    };
    time.onWait([&](FakeTime::Wait&) {
        EXPECT_TRUE(locking->waitForEnd());  // the mutex is released while the reader waits
        EndFeed(request);
    });
    Read(request, 10);
    EXPECT_THAT(held, ElementsAre(false, true));
}

TEST(HttpReceiveDevice, RequiredResetTakesNoLock)
{
    WorkerRequest request;
    HttpReceiveDevice& device = request.getReceiveDevice();
    Feed(request, "0123456789");
    EndFeed(request);
    Read(request, 100);
    qvMutexLocker locker(&DispatchAccess::mutex(device));
    BackgroundCall reset([&device] { device.reset(); });
    EXPECT_TRUE(reset.waitForEnd()) << "waits for the lock";
    locker.unlock();
    EXPECT_FALSE(device.atEnd());
}

TEST(HttpReceiveDevice, ResetClearsErrorEndAndCount)
{
    FakeTime time;
    WorkerRequest request;
    HttpReceiveDevice& device = request.getReceiveDevice();
    Feed(request, "0123456789");
    EndFeed(request);
    Read(request, 100);
    device.setDeviceError("broken");
    device.reset();
    EXPECT_FALSE(device.hasDeviceError());
    EXPECT_FALSE(device.atEnd());
    EXPECT_EQ(device.getReceivedBytes(), 0u);
    EXPECT_EQ(Feed(request, "abc"), 3u);  // the feed is open again
    EndFeed(request);
    EXPECT_EQ(Read(request, 100), "abc");
    EXPECT_EQ(device.getReceivedBytes(), 3u);
}

TEST(HttpReceiveDevice, RequiredResetKeepsTheQueueAndBeginsItsFirstChunkAgain)
{
    FakeTime time;
    WorkerRequest request;
    const std::string body = PatternBytes(kChunk + 10);
    Feed(request, body.substr(0, kChunk));
    Feed(request, body.substr(kChunk));
    EXPECT_TRUE(Read(request, 100) == body.substr(0, 100));
    request.getReceiveDevice().reset();
    EndFeed(request);
    EXPECT_TRUE(Read(request, body.size() + 1) == body);
    EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), body.size());
    EXPECT_TRUE(request.getReceiveDevice().atEnd());
}

TEST(HttpReceiveDevice, RequiredResetKeepsTheByteCountOfTheQueue)
{
    FakeTime time;
    WorkerRequest request;
    Feed(request, "0123456789");
    request.getReceiveDevice().reset();
    time.onWait([&](FakeTime::Wait& wait) {
        if (wait.number != 0)
            return EndFeed(request);
        Feed(request, "abcd");
        EXPECT_EQ(time.wakes(), 0u);
        Feed(request, "e");  // with the ten from before: the fifteen wanted
        EXPECT_EQ(time.wakes(), 1u);
    });
    EXPECT_EQ(Read(request, 15), "0123456789abcde");
}

TEST(HttpReceiveDevice, RandomPiecesAndReadsGiveTheBodyBack)
{
    for (unsigned seed = 1; seed <= 10; ++seed) {
        SCOPED_TRACE(seed);
        FakeTime time;
        std::mt19937 random(seed);
        WorkerRequest request;
        const std::string body = PatternBytes(1000000);
        size_t fed = 0;
        time.onWait([&](FakeTime::Wait&) {
            const size_t piece = std::min<size_t>(
                1 + random() % (random() % 5 == 0 ? 150000 : 9000), body.size() - fed);
            if (piece == 0)
                return EndFeed(request);
            EXPECT_EQ(Feed(request, body.substr(fed, piece)), piece);
            fed += piece;
        });
        std::string received;
        while (!request.getReceiveDevice().atEnd()) {
            const size_t len = 1 + random() % (random() % 3 == 0 ? 200000 : 500);
            const std::string part = Read(request, len);
            ASSERT_TRUE(part.size() == len || request.getReceiveDevice().atEnd());
            received += part;
        }
        EXPECT_TRUE(received == body) << received.size();
        EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), body.size());
        EXPECT_FALSE(request.getReceiveDevice().hasDeviceError());
    }
}

// Feeder, reader and an onlooker at once; meant for the thread sanitizer.
TEST(HttpReceiveDevice, KeepsItsChunksForTheNextBody)
{
    const impl::ChunkPool::User user;
    size_t whenFed = 0;
    {
        WorkerRequest request;
        Feed(request, std::string(65536, 'a'));
        Feed(request, std::string(65536, 'b'));
        whenFed = impl::TestAccess::chunkCount(impl::ChunkPool::Instance());
        EXPECT_EQ(Read(request, 65536), std::string(65536, 'a'));
        EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), whenFed + 1);
    }
    // The device returns unread chunks to the pool as well.
    EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), whenFed + 2);
}

TEST(HttpReceiveDeviceThreads, OneFeedsOneReadsAndAnyoneLooks)
{
    const std::string body = PatternBytes(4000000);
    TestRequest request;
    HttpReceiveDevice& device = request.getReceiveDevice();
    std::atomic<bool> done = false;
    std::string received;
    std::thread reader([&] {
        request.serveOnThisThread();
        request.setKeepAliveCallback([] {}, 10);
        while (!device.atEnd())
            received += Read(request, 100000);
        request.stopServing();
        done = true;
    });
    std::thread onlooker([&] {
        while (!done) {
            EXPECT_LE(device.getReceivedBytes(), body.size());
            (void)device.atEnd();
            EXPECT_FALSE(device.hasDeviceError());
            std::this_thread::yield();
        }
    });
    std::mt19937 random(3);
    for (size_t at = 0; at < body.size();) {
        const size_t piece = std::min<size_t>(1 + random() % 60000, body.size() - at);
        EXPECT_EQ(Feed(request, body.substr(at, piece)), piece);
        at += piece;
        if (random() % 8 == 0)
            std::this_thread::yield();
    }
    EndFeed(request);
    reader.join();
    onlooker.join();
    EXPECT_TRUE(received == body) << received.size();
    EXPECT_EQ(device.getReceivedBytes(), body.size());
}

TEST(HttpReceiveDeviceThreads, ReadTakesTheMutexAndTheQueriesDoNot)
{
    WorkerRequest request;
    HttpReceiveDevice& device = request.getReceiveDevice();
    Feed(request, "0123456789");
    EndFeed(request);
    std::string read;
    std::unique_ptr<BackgroundCall> reading;
    {
        qvMutexLocker locker(&DispatchAccess::mutex(device));
        EXPECT_FALSE(device.atEnd());  // would never return
        EXPECT_EQ(device.getReceivedBytes(), 0u);
        reading = std::make_unique<BackgroundCall>([&] { read = Read(request, 10); });
        EXPECT_TRUE(reading->isBlocked());
    }
    EXPECT_TRUE(reading->waitForEnd());
    EXPECT_EQ(read, "0123456789");
}

TEST(HttpReceiveDeviceThreads, WaitingReaderIsWokenByTheEnd)
{
    TestRequest request;
    std::string received = "not read";
    std::thread reader([&] {
        request.serveOnThisThread();
        received = Read(request, 100);
    });
    Feed(request, "0123456789");
    EndFeed(request);
    reader.join();
    EXPECT_EQ(received, "0123456789");
}

}  // namespace
}  // namespace qv::tests

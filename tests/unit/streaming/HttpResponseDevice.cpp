// The response device: handing over, the thread check, waiting and waking.

#include "support/BackgroundCall.h"
#include "support/FakeTime.h"
#include "support/TestAccess.h"
#include "support/TestRequest.h"

#include "request/ConnectionContext.h"
#include "request/DispatchAccess.h"
#include "streaming/ChunkPool.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace qv::tests
{
namespace
{

using impl::DispatchAccess;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr size_t kChunk = 65536;
constexpr size_t kReadyLimit = 262144;
constexpr int64_t kHandOverIntervalMs = 120000;

uint64_t Write(HttpBaseRequest& request, const std::string& bytes)
{
    return request.getResponseDevice().writeBytes(bytes.data(), bytes.size());
}

uint64_t Write(HttpBaseRequest& request, size_t size)
{
    return Write(request, std::string(size, 'x'));
}

// The bytes that one call of the daemon fetches. Both flags begin with the wrong value.
struct Sent
{
    std::string bytes;
    bool ended = true;
    bool endedToo = true;
};

Sent Send(HttpBaseRequest& request, size_t max)
{
    Sent sent;
    sent.bytes.assign(max, '\0');
    const size_t got = request.getResponseDevice().sendChunksThreadSafe(sent.bytes.data(), max,
                                                                        sent.ended, sent.endedToo);
    EXPECT_LE(got, max);
    EXPECT_EQ(sent.ended, sent.endedToo);
    sent.bytes.resize(got);
    return sent;
}

// As the dispatch calls it.
std::vector<char> GetData(HttpBaseRequest& request, std::vector<char> out = {})
{
    qvMutexLocker locker(&DispatchAccess::mutex(request.getResponseDevice()));
    request.getResponseDevice().getData(out);
    return out;
}

std::string Text(const std::vector<char>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

void LoseConnection(HttpBaseRequest& request, const std::string& reason)
{
    qvMutexLocker locker(&DispatchAccess::mutex(request.getResponseDevice()));
    request.getResponseDevice().setConnectionLost(reason);
}

template <typename Operation> size_t SlotOf(Operation operation)
{
    ptrdiff_t coded = 0;
    std::memcpy(&coded, &operation, sizeof coded);
    return static_cast<size_t>(coded) / sizeof(void*);
}

TEST(HttpResponseDevice, StartsEmpty)
{
    TestRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    EXPECT_EQ(device.getDataWay(), 2);
    EXPECT_EQ(device.getDataSize(), 0u);
    EXPECT_FALSE(device.hasDataToSend());
    EXPECT_EQ(device.getSentBytes(), 0u);
    EXPECT_FALSE(device.atEnd());
    EXPECT_FALSE(device.hasDeviceError());
    EXPECT_FALSE(DispatchAccess::isCompleted(device));
    EXPECT_EQ(DispatchAccess::responseState(device), 0u);
}

TEST(HttpResponseDevice, KeepsTheOrderOfTheVirtualOperations)
{
    EXPECT_EQ(SlotOf(&qvIoDevice::readBytes), 2u);
    EXPECT_EQ(SlotOf(&qvIoDevice::writeBytes), 3u);
    EXPECT_EQ(SlotOf(&qvIoDevice::atEnd), 4u);
    EXPECT_EQ(SlotOf(&qvIoDevice::hasDeviceError), 5u);
    EXPECT_EQ(SlotOf(&qvIoDevice::getDeviceErrorMsg), 6u);
    EXPECT_EQ(SlotOf(&qvIoDevice::writeBackToDevice), 7u);
    EXPECT_EQ(SlotOf(&HttpResponseDevice::readBytes), 2u);
    EXPECT_EQ(SlotOf(&HttpResponseDevice::writeBytes), 3u);
    EXPECT_EQ(SlotOf(&HttpResponseDevice::atEnd), 4u);
    EXPECT_EQ(SlotOf(&HttpReceiveDevice::readBytes), 2u);
    EXPECT_EQ(SlotOf(&HttpReceiveDevice::writeBytes), 3u);
    EXPECT_EQ(SlotOf(&HttpReceiveDevice::atEnd), 4u);
    static_assert(std::has_virtual_destructor_v<HttpResponseDevice>);
    static_assert(std::has_virtual_destructor_v<HttpReceiveDevice>);
}

TEST(HttpResponseDevice, HandsOverOnlyFullChunks)
{
    const struct
    {
        const char* name;
        std::vector<size_t> writes;
        size_t ready;
    } rows[] = {
        {"one byte", {1}, 0},
        {"one byte short of a chunk", {65535}, 0},
        {"exactly one chunk", {65536}, 65536},
        {"one large write is one chunk of its size", {100000}, 100000},
        {"after a large write a new chunk begins", {100000, 10}, 100000},
        {"a chunk filled by two writes", {65535, 1}, 65536},
        {"the rest of a write begins a new chunk", {65535, 2}, 65536},
        {"a long rest is one chunk of its size", {10, 200000}, 200010},
        {"a rest of exactly one chunk", {10, 65526 + 65536}, 131072},
        {"a rest of a byte less", {10, 65526 + 65535}, 65536},
        {"two chunks in one write are one", {131072}, 131072},
        {"many small writes", std::vector<size_t>(1000, 100), 65536},
        {"nothing", {0}, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WorkerRequest request;
        uint64_t written = 0;
        for (const size_t size : row.writes) {
            EXPECT_EQ(Write(request, size), size);
            written += size;
        }
        EXPECT_EQ(request.getResponseDevice().getDataSize(), row.ready);
        EXPECT_EQ(request.getResponseDevice().hasDataToSend(), row.ready != 0);
        EXPECT_EQ(request.getResponseDevice().getSentBytes(), written);
    }
}

TEST(HttpResponseDevice, MakesAtMostOneNewChunkForEachWrite)
{
    WorkerRequest request;
    Write(request, 10);
    Write(request, 200000);  // fills the first chunk; 134474 bytes remain
    EXPECT_EQ(Send(request, 1).bytes.size(), 1u);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 134474u);
    Send(request, 65535);  // the rest of the first chunk
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 134474u);
    Send(request, 1);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 0u);
}

TEST(HttpResponseDevice, NewChunkTakesAtLeast65536Bytes)
{
    WorkerRequest request;
    Write(request, 100000);
    Write(request, 10);
    Write(request, 65525);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 100000u);
    Write(request, 1);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 165536u);
}

TEST(HttpResponseDevice, WriteLongAfterTheLastHandOverHandsOverEverything)
{
    const struct
    {
        const char* name;
        int64_t afterMs;
        size_t ready;
    } rows[] = {
        {"at once", 0, 0},
        {"a ms short of the interval", kHandOverIntervalMs - 1, 0},
        {"at the interval", kHandOverIntervalMs, 0},
        {"a ms after the interval", kHandOverIntervalMs + 1, 11},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeTime time;
        WorkerRequest request;
        Write(request, 1);
        time.advanceMs(row.afterMs);
        EXPECT_EQ(Write(request, 10), 10u);
        EXPECT_EQ(request.getResponseDevice().getDataSize(), row.ready);
    }
}

TEST(HttpResponseDevice, HandOverStartsANewInterval)
{
    FakeTime time;
    WorkerRequest request;
    time.advanceMs(kHandOverIntervalMs + 1);
    Write(request, 10);
    ASSERT_EQ(request.getResponseDevice().getDataSize(), 10u);
    time.advanceMs(kHandOverIntervalMs);
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 10u);
    time.advanceMs(1);
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 30u);
}

TEST(HttpResponseDevice, FullChunkAndFlushStartANewIntervalToo)
{
    for (const bool flush : {false, true}) {
        SCOPED_TRACE(flush);
        FakeTime time;
        WorkerRequest request;
        time.advanceMs(kHandOverIntervalMs - 1000);
        Write(request, flush ? 1 : kChunk);
        if (flush)
            request.getResponseDevice().flush();
        const size_t ready = request.getResponseDevice().getDataSize();
        ASSERT_NE(ready, 0u);
        time.advanceMs(2000);
        Write(request, 10);
        EXPECT_EQ(request.getResponseDevice().getDataSize(), ready);
    }
}

TEST(HttpResponseDevice, WriteThatHandsNothingOverDoesNotStartANewInterval)
{
    FakeTime time;
    WorkerRequest request;
    time.advanceMs(kHandOverIntervalMs + 1);
    EXPECT_EQ(Write(request, ""), 0u);
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 10u);
}

TEST(HttpResponseDevice, EndSendingDoesNotNeedThePeriod)
{
    WorkerRequest request;
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 0u);
    request.getResponseDevice().endSending();
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 10u);
}

TEST(HttpResponseDevice, FlushHandsOverEverything)
{
    WorkerRequest request;
    Write(request, 100010);
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().flush(), 0u);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 100020u);
    EXPECT_EQ(request.getResponseDevice().getSentBytes(), 100020u);
}

TEST(HttpResponseDevice, FlushHoldsForOneCallOnly)
{
    WorkerRequest request;
    request.getResponseDevice().flush();  // nothing to hand over
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 0u);
    request.getResponseDevice().flush();
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 10u);
}

TEST(HttpResponseDevice, FlushedChunkIsNotFilledAnyFurther)
{
    WorkerRequest request;
    Write(request, "abc");
    request.getResponseDevice().flush();
    Write(request, std::string(65533, 'd'));
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 3u);
    EXPECT_EQ(Send(request, 100).bytes, "abc");
}

TEST(HttpResponseDevice, RefusesWritesOfAnyThreadButTheWorker)
{
    const struct
    {
        const char* name;
        std::string workerThreadId;
        bool accepted;
    } rows[] = {
        {"no worker", "", false},
        {"another thread", qvThread::CurrentThreadId() + "0", false},
        {"an equal text", std::string(qvThread::CurrentThreadId().c_str()), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        request.workerThreadStartHandling(row.workerThreadId);
        EXPECT_EQ(Write(request, kChunk), row.accepted ? kChunk : 0);
        EXPECT_EQ(request.getResponseDevice().getSentBytes(), row.accepted ? kChunk : 0);
        EXPECT_EQ(request.getResponseDevice().getDataSize(), row.accepted ? kChunk : 0);
        EXPECT_FALSE(request.getResponseDevice().hasDeviceError());
    }
}

TEST(HttpResponseDevice, RefusesWritesOfARealOtherThreadAndAfterTheWorkerStopped)
{
    WorkerRequest request;
    std::thread other([&] { EXPECT_EQ(Write(request, kChunk), 0u); });
    other.join();
    EXPECT_EQ(Write(request, 10), 10u);
    request.stopServing();
    EXPECT_EQ(Write(request, 10), 0u);
    EXPECT_EQ(request.getResponseDevice().flush(), 0u);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 0u);
    EXPECT_EQ(request.getResponseDevice().getSentBytes(), 10u);
}

TEST(HttpResponseDevice, RefusesWritesAfterTheEndAndInError)
{
    for (const bool inError : {false, true}) {
        SCOPED_TRACE(inError);
        WorkerRequest request;
        HttpResponseDevice& device = request.getResponseDevice();
        Write(request, 10);
        if (inError)
            device.setDeviceError("broken");
        else
            device.endSending();
        const size_t ready = device.getDataSize();
        EXPECT_EQ(Write(request, kChunk), 0u);
        EXPECT_EQ(device.flush(), 0u);
        EXPECT_EQ(device.getSentBytes(), 10u);
        EXPECT_EQ(device.getDataSize(), ready);
        EXPECT_EQ(device.getDeviceErrorMsg(), inError ? "broken" : "");
    }
}

TEST(HttpResponseDevice, AcceptedWriteCountsAsKeepAlive)
{
    FakeTime time(7000);
    WorkerRequest request;
    Write(request, 10);
    EXPECT_EQ(DispatchAccess::lastKeepAliveMs(request), impl::kTimeNotSet);
    size_t calls = 0;
    request.setKeepAliveCallback([&] { ++calls; }, 500);
    Write(request, 10);
    EXPECT_EQ(DispatchAccess::lastKeepAliveMs(request), 7000);
    time.advanceMs(5);
    request.getResponseDevice().flush();
    EXPECT_EQ(DispatchAccess::lastKeepAliveMs(request), 7005);
    EXPECT_EQ(calls, 0u);
}

TEST(HttpResponseDevice, RefusedWriteDoesNotCountAsKeepAlive)
{
    FakeTime time(7000);
    WorkerRequest request;
    request.setKeepAliveCallback([] {}, 500);
    request.getResponseDevice().endSending();
    EXPECT_EQ(Write(request, 10), 0u);
    EXPECT_EQ(DispatchAccess::lastKeepAliveMs(request), impl::kTimeNotSet);
}

TEST(HttpResponseDevice, WaitsOnceWithoutTimeoutAboveTheReadyLimit)
{
    const struct
    {
        const char* name;
        size_t ready;
        size_t written;
        bool flush;
        size_t waits;
    } rows[] = {
        {"at the limit", kReadyLimit, kChunk, false, 0},
        {"a byte above", kReadyLimit + 1, kChunk, false, 1},
        {"far above, nothing to hand over", 2 * kReadyLimit, kChunk - 1, false, 0},
        {"far above, flushed", 2 * kReadyLimit, 1, true, 1},
        {"at the limit, flushed", kReadyLimit, 1, true, 0},
        {"flush without anything to hand over", 2 * kReadyLimit, 0, true, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeTime time;
        WorkerRequest request;
        Write(request, row.ready);
        ASSERT_THAT(time.waits(), IsEmpty());
        EXPECT_EQ(Write(request, row.written), row.written);
        if (row.flush)
            request.getResponseDevice().flush();
        EXPECT_THAT(time.waitTimeouts(),
                    std::vector<unsigned long>(row.waits, qvWaitCondition::kNoTimeout));
        EXPECT_EQ(request.getResponseDevice().getDataSize(),
                  row.ready + (row.written >= kChunk || row.flush ? row.written : 0));
    }
}

TEST(HttpResponseDevice, RequiredHandsOverAfterOneWakeUpAlsoAboveTheLimit)
{
    FakeTime time;
    WorkerRequest request;
    Write(request, 3 * kReadyLimit);
    size_t readyWhileWaiting = 0;
    time.onWait([&](FakeTime::Wait& wait) {
        readyWhileWaiting = request.getResponseDevice().getDataSize();
        wait.woken = true;  // for no reason
    });
    EXPECT_EQ(Write(request, kChunk), kChunk);
    EXPECT_EQ(readyWhileWaiting, 3 * kReadyLimit);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 3 * kReadyLimit + kChunk);
    EXPECT_EQ(time.waits().size(), 1u);
    Write(request, kChunk);
    EXPECT_EQ(time.waits().size(), 2u);
}

TEST(HttpResponseDevice, DaemonThatTakesChunksWakesTheWaitingWriter)
{
    FakeTime time;
    WorkerRequest request;
    Write(request, kReadyLimit + 1);
    time.onWait([&](FakeTime::Wait& wait) {
        EXPECT_EQ(Send(request, 10).bytes.size(), 10u);
        EXPECT_EQ(time.wakes(wait.condition), 1u);
    });
    EXPECT_EQ(Write(request, kChunk), kChunk);
    EXPECT_EQ(time.waits().size(), 1u);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), kChunk);
}

TEST(HttpResponseDevice, LostConnectionWakesTheWaitingWriterWhoStillHandsOver)
{
    FakeTime time;
    WorkerRequest request;
    Write(request, kReadyLimit + 1);
    time.onWait([&](FakeTime::Wait& wait) {
        LoseConnection(request, "ClientAbort");
        EXPECT_EQ(time.wakes(wait.condition), 1u);
    });
    EXPECT_EQ(Write(request, kChunk), kChunk);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), kReadyLimit + 1 + kChunk);
    EXPECT_EQ(Write(request, kChunk), 0u);
    EXPECT_EQ(time.waits().size(), 1u);
}

TEST(HttpResponseDevice, LastHandOverIsTakenBeforeTheWait)
{
    FakeTime time;
    WorkerRequest request;
    Write(request, kReadyLimit + 1);
    time.onWait([&](FakeTime::Wait&) { time.advanceMs(kHandOverIntervalMs + 1); });
    Write(request, kChunk);
    const size_t ready = request.getResponseDevice().getDataSize();
    time.onWait({});
    Write(request, 10);
    EXPECT_EQ(request.getResponseDevice().getDataSize(), ready + 10);
}

TEST(HttpResponseDevice, EndSendingHandsOverEverythingAndWakesNobody)
{
    FakeTime time;
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    Write(request, 2 * kReadyLimit);
    Write(request, 10);
    device.endSending();
    EXPECT_TRUE(DispatchAccess::isCompleted(device));
    EXPECT_EQ(device.getDataSize(), 2 * kReadyLimit + 10);
    EXPECT_FALSE(device.atEnd());
    EXPECT_FALSE(device.hasDeviceError());
    EXPECT_THAT(time.waits(), IsEmpty());
    EXPECT_EQ(time.wakes(), 0u);
}

TEST(HttpResponseDevice, EndSendingInErrorCompletesButHandsNothingOver)
{
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    Write(request, kChunk + 10);
    Write(request, 10);
    device.setDeviceError("broken");
    device.endSending();
    EXPECT_TRUE(DispatchAccess::isCompleted(device));
    EXPECT_EQ(device.getDataSize(), kChunk + 10);
}

TEST(HttpResponseDevice, GetDataGivesTheWholeBodyInOrder)
{
    const size_t sizes[] = {0, 1, 10, 65535, 65536, 65537, 100000, 300000};
    for (const size_t size : sizes) {
        SCOPED_TRACE(size);
        FakeTime time;  // so that writing more than the limit does not block
        WorkerRequest request;
        HttpResponseDevice& device = request.getResponseDevice();
        const std::string body = PatternBytes(size);
        for (size_t at = 0; at < size; at += 30000)
            Write(request, body.substr(at, 30000));
        device.endSending();
        EXPECT_FALSE(device.atEnd());
        const std::vector<char> out = GetData(request);
        EXPECT_TRUE(Text(out) == body);
        EXPECT_TRUE(device.atEnd());
        EXPECT_EQ(device.getDataSize(), 0u);
        EXPECT_FALSE(device.hasDataToSend());
        EXPECT_EQ(device.getSentBytes(), size);
        EXPECT_THAT(GetData(request), IsEmpty());
    }
}

TEST(HttpResponseDevice, GetDataReplacesWhatWasInTheBuffer)
{
    WorkerRequest request;
    Write(request, "0123456789");
    request.getResponseDevice().endSending();
    EXPECT_EQ(Text(GetData(request, std::vector<char>(50, 'z'))), "0123456789");
}

TEST(HttpResponseDevice, GetDataDoesNotLookAtWhatIsNotHandedOver)
{
    WorkerRequest request;
    Write(request, "ready");
    request.getResponseDevice().flush();
    Write(request, "filling");
    EXPECT_EQ(Text(GetData(request)), "ready");
    request.getResponseDevice().endSending();
    EXPECT_EQ(request.getResponseDevice().getDataSize(), 7u);
}

// The daemon's take-over, with ready chunks of 10, 20 and 30 bytes.
class HttpResponseDeviceTakeOver : public ::testing::Test
{
protected:
    HttpResponseDeviceTakeOver()
    {
        for (const size_t size : {10u, 20u, 30u}) {
            Write(mRequest, mBody.substr(mWritten, size));
            mRequest.getResponseDevice().flush();
            mWritten += size;
        }
        EXPECT_EQ(ready(), 60u);
    }

    size_t ready() const { return mRequest.getResponseDevice().getDataSize(); }

    WorkerRequest mRequest;
    const std::string mBody = PatternBytes(60);
    size_t mWritten = 0;
};

TEST_F(HttpResponseDeviceTakeOver, TakesTheShortestRunOfWholeChunks)
{
    const struct
    {
        const char* name;
        size_t max;
        size_t left;
    } rows[] = {
        {"one byte", 1, 50},
        {"a byte short of the first", 9, 50},
        {"exactly the first", 10, 50},
        {"a byte more than the first", 11, 30},
        {"within the second", 25, 30},
        {"exactly the first two", 30, 30},
        {"a byte more than two", 31, 0},
        {"exactly all", 60, 0},
        {"more than all", 100, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WorkerRequest request;
        size_t at = 0;
        for (const size_t size : {10u, 20u, 30u}) {
            Write(request, mBody.substr(at, size));
            request.getResponseDevice().flush();
            at += size;
        }
        const Sent sent = Send(request, row.max);
        EXPECT_EQ(sent.bytes, mBody.substr(0, row.max));
        EXPECT_EQ(request.getResponseDevice().getDataSize(), row.left);
        EXPECT_FALSE(sent.ended);
    }
}

TEST_F(HttpResponseDeviceTakeOver, DrainsItsOwnQueueBeforeItLooksAtTheReadyOne)
{
    FakeTime time;
    EXPECT_EQ(Send(mRequest, 25).bytes, mBody.substr(0, 25));
    EXPECT_EQ(time.wakes(), 1u);
    EXPECT_EQ(ready(), 30u);
    EXPECT_EQ(Send(mRequest, 2).bytes, mBody.substr(25, 2));
    EXPECT_EQ(Send(mRequest, 3).bytes, mBody.substr(27, 3));
    EXPECT_EQ(time.wakes(), 1u);
    EXPECT_EQ(ready(), 30u);
    EXPECT_EQ(Send(mRequest, 30).bytes, mBody.substr(30));
    EXPECT_EQ(time.wakes(), 2u);
}

TEST_F(HttpResponseDeviceTakeOver, TakesOverAgainWithinOneCallForTheRemainingSpace)
{
    Send(mRequest, 6);  // 4 bytes of the first chunk left
    EXPECT_EQ(ready(), 50u);
    EXPECT_EQ(Send(mRequest, 24).bytes, mBody.substr(6, 24));  // the second has just enough
    EXPECT_EQ(ready(), 30u);
}

TEST_F(HttpResponseDeviceTakeOver, CallThatFindsTheEndAfterBytesReportsItToo)
{
    mRequest.getResponseDevice().endSending();
    const Sent sent = Send(mRequest, 100);
    EXPECT_EQ(sent.bytes, mBody);
    EXPECT_TRUE(sent.ended);
    const Sent again = Send(mRequest, 100);
    EXPECT_EQ(again.bytes, "");
    EXPECT_TRUE(again.ended);
}

TEST_F(HttpResponseDeviceTakeOver, CallThatFillsItsBufferDoesNotReportTheEnd)
{
    mRequest.getResponseDevice().endSending();
    const Sent sent = Send(mRequest, 60);
    EXPECT_EQ(sent.bytes, mBody);
    EXPECT_FALSE(sent.ended);
    EXPECT_TRUE(Send(mRequest, 60).ended);
}

TEST_F(HttpResponseDeviceTakeOver, WithoutDataNothingIsEndedNorWoken)
{
    Send(mRequest, 60);
    FakeTime time;
    const Sent sent = Send(mRequest, 60);
    EXPECT_EQ(sent.bytes, "");
    EXPECT_FALSE(sent.ended);
    EXPECT_EQ(time.wakes(), 0u);
}

TEST_F(HttpResponseDeviceTakeOver, BufferWithoutSpaceLosesNothing)
{
    const Sent sent = Send(mRequest, 0);
    EXPECT_EQ(sent.bytes, "");
    EXPECT_FALSE(sent.ended);
    EXPECT_EQ(Send(mRequest, 100).bytes, mBody);
}

TEST(HttpResponseDevice, BufferWithoutSpaceIsToldTheEndToo)
{
    WorkerRequest request;
    EXPECT_FALSE(Send(request, 0).ended);
    request.getResponseDevice().endSending();
    EXPECT_TRUE(Send(request, 0).ended);
}

TEST_F(HttpResponseDeviceTakeOver, ErrorLeavesTheQueuesAsTheyAre)
{
    LoseConnection(mRequest, "WriteError");
    EXPECT_EQ(ready(), 60u);
    EXPECT_EQ(Send(mRequest, 100).bytes, mBody);
}

TEST_F(HttpResponseDeviceTakeOver, CopiesWholeBodyByteByByte)
{
    mRequest.getResponseDevice().endSending();
    std::string received;
    for (int i = 0; i < 60; ++i)
        received += Send(mRequest, 1).bytes;
    EXPECT_EQ(received, mBody);
    EXPECT_TRUE(Send(mRequest, 1).ended);
}

TEST(HttpResponseDevice, RequiredReadingSetsAnErrorAndEndsWriting)
{
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    Write(request, 10);
    char byte = 'z';
    EXPECT_EQ(device.readBytes(&byte, 1), 0u);
    EXPECT_EQ(byte, 'z');
    EXPECT_EQ(device.getDeviceErrorMsg(), "read not implemented");
    EXPECT_TRUE(device.atEnd());
    EXPECT_EQ(Write(request, 10), 0u);
}

TEST(HttpResponseDevice, LostConnectionIsAnErrorWithItsReason)
{
    FakeTime time;
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    LoseConnection(request, "ClientAbort");
    EXPECT_EQ(device.getDeviceErrorMsg(), "Http response device : ClientAbort");
    EXPECT_TRUE(device.hasDeviceError());
    EXPECT_TRUE(device.atEnd());
    EXPECT_EQ(time.wakes(), 1u);
    LoseConnection(request, "ReadError");
    EXPECT_EQ(device.getDeviceErrorMsg(), "Http response device : ClientAbort");
    EXPECT_EQ(time.wakes(), 2u);
}

TEST(HttpResponseDevice, ResponseIsAnnouncedOnce)
{
    TestRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    EXPECT_TRUE(device.setResponseReady());
    EXPECT_EQ(DispatchAccess::responseState(device), 1u);
    for (const uint32_t state : {1u, 2u, 3u}) {
        SCOPED_TRACE(state);
        DispatchAccess::responseState(device) = state;
        EXPECT_FALSE(device.setResponseReady());
        EXPECT_EQ(DispatchAccess::responseState(device), state);
    }
}

TEST(HttpResponseDevice, AnnouncingDoesNotDependOnTheBody)
{
    WorkerRequest request;
    Write(request, 10);
    EXPECT_TRUE(request.getResponseDevice().setResponseReady());
    EXPECT_EQ(Write(request, 10), 10u);
    EXPECT_FALSE(DispatchAccess::isCompleted(request.getResponseDevice()));
}

// The chunk rules once more, as lists of sizes.
class ChunkModel
{
public:
    void write(size_t size, bool handOverAll)
    {
        if (!mFill.empty()) {
            const size_t fitting = std::min(mFill.back().capacity - mFill.back().size, size);
            mFill.back().size += fitting;
            size -= fitting;
        }
        if (size != 0)
            mFill.push_back({size, std::max<size_t>(size, kChunk)});
        while (!mFill.empty() && (handOverAll || mFill.front().size == mFill.front().capacity)) {
            mReady.push_back(mFill.front().size);
            mFill.pop_front();
        }
    }

    size_t read(size_t max)
    {
        size_t got = 0;
        while (got < max) {
            if (mSending == 0) {
                if (mReady.empty())
                    break;
                while (!mReady.empty() && mSending < max - got) {
                    mSending += mReady.front();
                    mReady.pop_front();
                }
            }
            const size_t part = std::min(mSending, max - got);
            mSending -= part;
            got += part;
        }
        return got;
    }

    size_t ready() const
    {
        size_t all = 0;
        for (const size_t size : mReady)
            all += size;
        return all;
    }

private:
    struct Filling
    {
        size_t size;
        size_t capacity;
    };
    std::deque<Filling> mFill;
    std::deque<size_t> mReady;
    size_t mSending = 0;
};

TEST(HttpResponseDevice, AgreesWithTheChunkRulesOverManyRandomSteps)
{
    FakeTime time;  // a write above the limit goes on at once
    const std::string body = PatternBytes(4000000);
    for (unsigned seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        WorkerRequest request;
        HttpResponseDevice& device = request.getResponseDevice();
        ChunkModel model;
        std::string received;
        size_t written = 0;
        while (written < 3500000) {
            const unsigned step = random() % 10;
            if (step < 6) {
                const size_t most[] = {5, 5000, 65536, 65537, 150000};
                const size_t size = random() % most[random() % std::size(most)];
                ASSERT_EQ(Write(request, body.substr(written, size)), size);
                written += size;
                model.write(size, false);
            } else if (step < 7) {
                device.flush();
                model.write(0, true);
            } else {
                const size_t max = 1 + random() % (step == 9 ? 300000 : 70000);
                const Sent sent = Send(request, max);
                ASSERT_EQ(sent.bytes.size(), model.read(max));
                ASSERT_FALSE(sent.ended);
                received += sent.bytes;
            }
            ASSERT_EQ(device.getDataSize(), model.ready());
            ASSERT_EQ(device.getSentBytes(), written);
        }
        device.endSending();
        for (Sent sent; !(sent = Send(request, 100000)).bytes.empty();)
            received += sent.bytes;
        EXPECT_TRUE(received == body.substr(0, written));
    }
}

TEST(HttpResponseInterface, IsAPureInterfaceWithItsOperationsInOrder)
{
    static_assert(std::is_abstract_v<HttpResponseInterface>);
    static_assert(std::has_virtual_destructor_v<HttpResponseInterface>);
    static_assert(sizeof(HttpResponseInterface) == sizeof(void*), "no data members");
    EXPECT_EQ(SlotOf(&HttpResponseInterface::getCookies), 2u);
    EXPECT_EQ(SlotOf(&HttpResponseInterface::getHeaders), 3u);
    EXPECT_EQ(SlotOf(&HttpResponseInterface::getStatusCode), 4u);
    EXPECT_EQ(SlotOf(&HttpResponseInterface::getContentLength), 5u);
    EXPECT_EQ(SlotOf(&HttpResponseInterface::describe), 6u);
}

TEST(HttpResponseInterface, IsDeletedThroughItsBase)
{
    struct Deleted : MinimalResponse
    {
        explicit Deleted(bool& flag) : mFlag(flag) {}
        ~Deleted() override { mFlag = true; }
        bool& mFlag;
    };
    bool deleted = false;
    std::unique_ptr<HttpResponseInterface> response = std::make_unique<Deleted>(deleted);
    response.reset();
    EXPECT_TRUE(deleted);
}

// Writer, reader and an onlooker at once; meant for the thread sanitizer.
TEST(HttpResponseDeviceThreads, OneWritesOneReadsAndAnyoneLooks)
{
    const std::string body = PatternBytes(3000000);
    TestRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    std::atomic<bool> done = false;
    std::thread writer([&] {
        request.serveOnThisThread();
        request.setKeepAliveCallback([] {}, 1);
        for (size_t at = 0; at < body.size(); at += 7001)
            EXPECT_NE(Write(request, body.substr(at, 7001)), 0u);
        device.endSending();
        EXPECT_TRUE(device.setResponseReady());
    });
    std::thread onlooker([&] {
        while (!done) {
            EXPECT_LE(device.getDataSize(), body.size());
            EXPECT_LE(device.getSentBytes(), body.size());
            EXPECT_FALSE(device.atEnd());
            EXPECT_FALSE(request.isCompleted());
            (void)device.hasDataToSend();
            std::this_thread::yield();
        }
    });
    std::string received;
    for (Sent sent; !(sent = Send(request, 20011)).ended || !sent.bytes.empty();) {
        received += sent.bytes;
        if (sent.bytes.empty())
            std::this_thread::yield();
    }
    done = true;
    writer.join();
    onlooker.join();
    EXPECT_TRUE(received == body) << received.size();
}

TEST(HttpResponseDeviceThreads, MutexIsTakenWhereSomethingCrossesOverAndNowhereElse)
{
    char buffer[10];
    bool ended = false;
    using Action = std::function<void(TestRequest&)>;
    const struct
    {
        const char* name;
        Action action;
        bool takesTheMutex;
    } rows[] = {
        {"write of a full chunk", [](TestRequest& r) { Write(r, kChunk); }, true},
        {"flush", [](TestRequest& r) { r.getResponseDevice().flush(); }, true},
        {"end", [](TestRequest& r) { r.getResponseDevice().endSending(); }, true},
        {"announcing", [](TestRequest& r) { r.getResponseDevice().setResponseReady(); }, true},
        {"asking for completion", [](TestRequest& r) { (void)r.isCompleted(); }, true},
        {"reading more than was taken over",
         [&](TestRequest& r) {
             r.getResponseDevice().sendChunksThreadSafe(buffer, 10, ended, ended);
         },
         true},
        {"reading what was taken over",
         [&](TestRequest& r) {
             r.getResponseDevice().sendChunksThreadSafe(buffer, 5, ended, ended);
         },
         false},
        {"small write", [](TestRequest& r) { Write(r, 100); }, false},
        {"ready bytes", [](TestRequest& r) { r.getResponseDevice().getDataSize(); }, false},
        {"has data", [](TestRequest& r) { (void)r.getResponseDevice().hasDataToSend(); }, false},
        {"sent bytes", [](TestRequest& r) { r.getResponseDevice().getSentBytes(); }, false},
        {"at end", [](TestRequest& r) { (void)r.getResponseDevice().atEnd(); }, false},
        {"refused write",
         [](TestRequest& r) {
             r.stopServing();
             Write(r, kChunk);
         },
         false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WorkerRequest request;
        Write(request, "0123456");
        request.getResponseDevice().flush();
        Send(request, 1);  // six bytes are taken over and not yet read
        Write(request, "x");
        std::unique_ptr<BackgroundCall> call;
        {
            qvMutexLocker locker(&DispatchAccess::mutex(request.getResponseDevice()));
            call = std::make_unique<BackgroundCall>([&] {
                request.serveOnThisThread();
                row.action(request);
            });
            EXPECT_TRUE(row.takesTheMutex ? call->isBlocked() : call->waitForEnd());
        }
        EXPECT_TRUE(call->waitForEnd());
    }
}

// The writer has been let in and is about to wait when the loss takes the mutex before it.
TEST(HttpResponseDeviceThreads, ConnectionLostJustBeforeTheWaitDoesNotLeaveTheWriterWaiting)
{
    TestRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    std::atomic<bool> filled = false;
    std::atomic<bool> mayGoOn = false;
    std::thread writer([&] {
        request.serveOnThisThread();
        EXPECT_NE(Write(request, kReadyLimit + 1), 0u);
        filled = true;
        while (!mayGoOn)
            std::this_thread::yield();
        EXPECT_EQ(Write(request, kChunk), kChunk);
        EXPECT_EQ(Write(request, kChunk), 0u);
    });
    while (!filled)
        std::this_thread::yield();
    {
        qvMutexLocker locker(&DispatchAccess::mutex(device));
        mayGoOn = true;
        while (device.getSentBytes() != kReadyLimit + 1 + kChunk)
            std::this_thread::yield();
        device.setConnectionLost("ClientAbort");
    }
    writer.join();
    EXPECT_EQ(device.getDataSize(), kReadyLimit + 1 + kChunk);
}

TEST(HttpResponseDevice, CountsNothingTwiceWhenItIsEndedTwice)
{
    WorkerRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
    device.writeBytes("abc", 3);
    device.endSending();
    device.endSending();
    EXPECT_EQ(device.getDataSize(), 3u);
}

TEST(HttpResponseDevice, KeepsItsChunksForTheNextBody)
{
    const impl::ChunkPool::User user;
    size_t whenWritten = 0;
    {
        WorkerRequest request;
        HttpResponseDevice& device = request.getResponseDevice();
        const std::string chunk(65536, 'x');
        for (int i = 0; i < 3; ++i)
            device.writeBytes(chunk.data(), chunk.size());
        device.writeBytes("y", 1);  // not handed over
        whenWritten = impl::TestAccess::chunkCount(impl::ChunkPool::Instance());
        // The first has been read, the second only in part, the third not at all.
        std::vector<char> block(65537);
        bool ended = false;
        bool endedToo = false;
        EXPECT_EQ(device.sendChunksThreadSafe(block.data(), block.size(), ended, endedToo), 65537u);
        EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), whenWritten + 1);
    }
    EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), whenWritten + 4);
}

}  // namespace
}  // namespace qv::tests

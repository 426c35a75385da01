// The daemon's content reader and its request-completed callback.

#include "streaming/StreamCallbacks.h"

#include "support/BackgroundCall.h"
#include "support/FakeTime.h"
#include "support/TestAccess.h"
#include "support/TestRequest.h"

#include "request/ContextRegistry.h"
#include "request/DispatchAccess.h"
#include "streaming/Throttle.h"

#include <Wendrel/HttpServer.h>

#include <qvSystem/qvSystemUtils.h>

#include <gmock/gmock.h>

#include <cstring>
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

using impl::ConnectionContext;
using impl::DispatchAccess;
using impl::kTimeNotSet;
using impl::ReadContent;
using impl::Throttle;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr ssize_t kEndOfStream = -1;
constexpr ssize_t kEndWithError = -2;

// The test is a daemon thread whose throttle record is as it was on its first use.
class ReadContentTest : public ::testing::Test
{
protected:
    ReadContentTest() { Throttle::OfThisThread().reset(); }
    ~ReadContentTest() override { Throttle::OfThisThread().reset(); }

    ssize_t read(size_t size = 100)
    {
        mBuffer.assign(size, '?');
        return ReadContent(static_cast<HttpBaseRequest*>(&mRequest), 0, mBuffer.data(), size);
    }

    std::string bytes(ssize_t count) const
    {
        return std::string(mBuffer, 0, static_cast<size_t>(count));
    }

    // Makes the throttle record look as if this thread had been waiting.
    static void waitABit()
    {
        Throttle::OfThisThread().pause(nullptr, qvSystemUtils::GetTimeBaseMs());
    }

    static bool throttleIsReset()
    {
        return impl::TestAccess::waitSinceMs(Throttle::OfThisThread()) == kTimeNotSet &&
               impl::TestAccess::lastSleepMs(Throttle::OfThisThread()) == kTimeNotSet;
    }

    WorkerRequest mRequest;
    std::string mBuffer;
};

TEST_F(ReadContentTest, MarkersAreThoseOfTheDaemon)
{
    EXPECT_EQ(kEndOfStream, static_cast<ssize_t>(MHD_CONTENT_READER_END_OF_STREAM));
    EXPECT_EQ(kEndWithError, static_cast<ssize_t>(MHD_CONTENT_READER_END_WITH_ERROR));
}

TEST_F(ReadContentTest, EndsWithErrorWithoutARequest)
{
    waitABit();
    char buffer[8];
    EXPECT_EQ(ReadContent(nullptr, 0, buffer, sizeof buffer), kEndWithError);
    EXPECT_TRUE(throttleIsReset());
}

TEST_F(ReadContentTest, EndsWithErrorWhenTheDeviceIsInErrorAlsoWithDataLeft)
{
    mRequest.getResponseDevice().writeBytes("0123456789", 10);
    mRequest.getResponseDevice().flush();
    mRequest.getResponseDevice().setDeviceError("broken");
    DispatchAccess::bodyPending(mRequest) = true;
    waitABit();
    EXPECT_EQ(read(), kEndWithError);
    EXPECT_TRUE(throttleIsReset());
    EXPECT_EQ(mRequest.getResponseDevice().getDataSize(), 10u);
    EXPECT_TRUE(DispatchAccess::bodyPending(mRequest));
}

TEST_F(ReadContentTest, ReturnsWhatIsReady)
{
    mRequest.getResponseDevice().writeBytes("0123456789", 10);
    mRequest.getResponseDevice().flush();
    DispatchAccess::bodyPending(mRequest) = true;
    waitABit();
    EXPECT_EQ(read(4), 4);
    EXPECT_EQ(bytes(4), "0123");
    EXPECT_TRUE(throttleIsReset());
    EXPECT_FALSE(DispatchAccess::bodyPending(mRequest));
    EXPECT_EQ(read(100), 6);
    EXPECT_EQ(bytes(6), "456789");
    EXPECT_EQ(mBuffer[6], '?');
}

TEST_F(ReadContentTest, IgnoresTheStreamPosition)
{
    mRequest.getResponseDevice().writeBytes("0123456789", 10);
    mRequest.getResponseDevice().flush();
    char buffer[3];
    HttpBaseRequest* const closure = &mRequest;
    EXPECT_EQ(ReadContent(closure, 7, buffer, 3), 3);
    EXPECT_EQ(std::string(buffer, 3), "012");
    EXPECT_EQ(ReadContent(closure, 0, buffer, 3), 3);
    EXPECT_EQ(std::string(buffer, 3), "345");
}

TEST_F(ReadContentTest, ReportsTheEndOnlyAfterTheLastByte)
{
    mRequest.getResponseDevice().writeBytes("0123456789", 10);
    mRequest.getResponseDevice().endSending();
    EXPECT_EQ(read(100), 10);
    waitABit();
    EXPECT_EQ(read(100), kEndOfStream);
    EXPECT_TRUE(throttleIsReset());
    EXPECT_EQ(read(100), kEndOfStream);
}

TEST_F(ReadContentTest, EndOfAnEmptyBody)
{
    DispatchAccess::bodyPending(mRequest) = true;
    mRequest.getResponseDevice().endSending();
    EXPECT_EQ(read(), kEndOfStream);
    EXPECT_TRUE(DispatchAccess::bodyPending(mRequest));
}

TEST_F(ReadContentTest, WithoutDataReturnsZeroForTheGraceThenSleepsTenAndThirtyFive)
{
    FakeTime time(5000);
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(impl::TestAccess::waitSinceMs(Throttle::OfThisThread()), 5000);
    EXPECT_EQ(impl::TestAccess::lastSleepMs(Throttle::OfThisThread()), 5000);
    time.advanceMs(100);
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(time.sleeps(), IsEmpty());
    time.advanceMs(1);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(read(), 0);
    EXPECT_THAT(time.sleeps(), ElementsAre(10, 35, 10, 35));
}

TEST_F(ReadContentTest, GivesUpTheTimeSliceAfterARoundOfStalledStreams)
{
    FakeTime time;
    WorkerRequest another;
    char buffer[10];
    const auto readTheOther = [&] {
        return ReadContent(static_cast<HttpBaseRequest*>(&another), 0, buffer, sizeof buffer);
    };
    const size_t before = FakeTime::YieldsOfThisThread();
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(readTheOther(), 0);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 0u);
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 1u);
    EXPECT_EQ(readTheOther(), 0);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 1u);
}

TEST_F(ReadContentTest, DataStartsANewGrace)
{
    FakeTime time(5000);
    read();
    time.advanceMs(101);
    read();
    EXPECT_THAT(time.sleeps(), ElementsAre(10));
    mRequest.getResponseDevice().writeBytes("x", 1);
    mRequest.getResponseDevice().flush();
    EXPECT_EQ(read(), 1);
    EXPECT_EQ(read(), 0);
    time.advanceMs(100);
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(time.sleeps(), ElementsAre(10));
}

TEST_F(ReadContentTest, DoesNotClearThePendingFlagWithoutData)
{
    FakeTime time(5000);
    DispatchAccess::bodyPending(mRequest) = true;
    EXPECT_EQ(read(), 0);
    EXPECT_TRUE(DispatchAccess::bodyPending(mRequest));
}

// Counts the completions of a server that is never started.
class CountingImpl : public http::HttpServerImpl
{
public:
    explicit CountingImpl(std::function<void()>& action) : mAction(action) {}

    HttpBaseRequest* createRequest() override { return nullptr; }
    void handleRequest(HttpBaseRequest*) override {}
    void onNewWebSocket(http::WebSocket*) override {}
    void onServerStopped() override {}
    void onRequestCompleted() override
    {
        ++completions;
        if (mAction)
            mAction();
    }

    size_t completions = 0;

private:
    std::function<void()>& mAction;
};

ConnectionContext* ContextOf(HttpBaseRequest& request)
{
    ConnectionContext* context = impl::ContextRegistry::Add("/x", nullptr);
    context->request = &request;
    return context;
}

class RequestCompletedTest : public ::testing::Test
{
protected:
    RequestCompletedTest()
    {
        DispatchAccess::connection(mRequest) = connection();
        mSlot = ContextOf(mRequest);
    }

    // The callback does not dereference the connection.
    MHD_Connection* connection() { return reinterpret_cast<MHD_Connection*>(&mNoConnection); }

    void complete(unsigned code)
    {
        impl::RequestCompleted(&mServer, connection(), &mSlot,
                               static_cast<MHD_RequestTerminationCode>(code));
    }

    char mNoConnection = 0;
    std::function<void()> mOnCompleted;
    CountingImpl* mImpl = new CountingImpl(mOnCompleted);
    http::HttpServer mServer{mImpl};
    WorkerRequest mRequest;
    void* mSlot = nullptr;
};

TEST_F(RequestCompletedTest, FreesTheContextAndFinishesTheRequest)
{
    EXPECT_FALSE(mRequest.isCompleted());
    complete(0);
    EXPECT_EQ(mSlot, nullptr);
    EXPECT_EQ(DispatchAccess::connection(mRequest), nullptr);
    EXPECT_TRUE(mRequest.isCompleted());  // and the mutex is free again
    EXPECT_EQ(mImpl->completions, 1u);
}

TEST_F(RequestCompletedTest, WithoutRequestOnlyTheContextIsFreed)
{
    static_cast<ConnectionContext*>(mSlot)->request = nullptr;
    complete(1);
    EXPECT_EQ(mSlot, nullptr);
    EXPECT_EQ(mImpl->completions, 0u);
    EXPECT_FALSE(mRequest.isCompleted());
    EXPECT_EQ(DispatchAccess::connection(mRequest), connection());
    EXPECT_FALSE(mRequest.getResponseDevice().hasDeviceError());
}

TEST_F(RequestCompletedTest, ApplicationIsToldUnderTheResponseDevicesMutexBeforeTheError)
{
    bool othersLockOut = false;
    bool connectionCleared = false;
    bool completed = false;
    bool inError = true;
    std::unique_ptr<BackgroundCall> locking;
    mOnCompleted = [&] {
        locking = std::make_unique<BackgroundCall>(
            [&] { qvMutexLocker locker(&DispatchAccess::mutex(mRequest.getResponseDevice())); });
        othersLockOut = locking->isBlocked();
        connectionCleared = DispatchAccess::connection(mRequest) == nullptr;
        completed = DispatchAccess::completed(mRequest);
        inError = mRequest.getResponseDevice().hasDeviceError();
    };
    complete(5);
    EXPECT_TRUE(locking->waitForEnd());
    EXPECT_TRUE(othersLockOut);
    EXPECT_TRUE(connectionCleared);
    EXPECT_TRUE(completed);
    EXPECT_FALSE(inError);
    EXPECT_EQ(mImpl->completions, 1u);
    EXPECT_TRUE(mRequest.getResponseDevice().hasDeviceError());
}

// The request that learns of its completion.
class CompletedRequest : public WorkerRequest
{
public:
    void onCompleted(int terminationCode) override { action(terminationCode); }

    std::function<void(int)> action;
};

TEST_F(RequestCompletedTest, TheRequestIsToldAfterTheApplicationUnderTheSameLock)
{
    for (const unsigned code : {0u, 2u, 5u, 9u}) {
        SCOPED_TRACE(code);
        CompletedRequest request;
        std::vector<int> told;
        mOnCompleted = [&] { told.push_back(-1); };
        std::unique_ptr<BackgroundCall> locking;
        request.action = [&](int terminationCode) {
            told.push_back(terminationCode);
            EXPECT_TRUE(DispatchAccess::completed(request));
            EXPECT_EQ(DispatchAccess::connection(request), nullptr);
            EXPECT_FALSE(request.getResponseDevice().hasDeviceError());
            locking = std::make_unique<BackgroundCall>([&] {
                qvMutexLocker locker(&DispatchAccess::mutex(request.getResponseDevice()));
                told.push_back(-2);
            });
            EXPECT_TRUE(locking->isBlocked());
        };
        void* slot = ContextOf(request);
        impl::RequestCompleted(&mServer, connection(), &slot,
                               static_cast<MHD_RequestTerminationCode>(code));
        EXPECT_TRUE(locking->waitForEnd());
        EXPECT_THAT(told, ElementsAre(-1, static_cast<int>(code), -2));
        EXPECT_EQ(request.getResponseDevice().hasDeviceError(), code >= 1 && code <= 5);
    }
}

TEST_F(RequestCompletedTest, EachTerminationCodeHasItsText)
{
    const struct
    {
        const char* name;
        unsigned code;
        const char* error;
    } rows[] = {
        {"completed", MHD_REQUEST_TERMINATED_COMPLETED_OK, ""},
        {"error", MHD_REQUEST_TERMINATED_WITH_ERROR, "Http response device : WriteError"},
        {"timeout", MHD_REQUEST_TERMINATED_TIMEOUT_REACHED,
         "Http response device : TimeoutReached"},
        {"shutdown", MHD_REQUEST_TERMINATED_DAEMON_SHUTDOWN,
         "Http response device : DaemonShutdown"},
        {"read error", MHD_REQUEST_TERMINATED_READ_ERROR, "Http response device : ReadError"},
        {"client abort", MHD_REQUEST_TERMINATED_CLIENT_ABORT, "Http response device : ClientAbort"},
        {"first unknown", 6, ""},
        {"second unknown", 7, ""},
        {"far above", 1000, ""},
    };
    unsigned number = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (number < 8) {
            EXPECT_EQ(row.code, number++);
        }
        FakeTime time;
        WorkerRequest request;
        void* slot = ContextOf(request);
        const size_t completionsBefore = mImpl->completions;
        impl::RequestCompleted(&mServer, connection(), &slot,
                               static_cast<MHD_RequestTerminationCode>(row.code));
        const bool lost = *row.error != '\0';
        EXPECT_EQ(slot, nullptr);
        EXPECT_TRUE(request.isCompleted());
        EXPECT_EQ(mImpl->completions, completionsBefore + 1);
        EXPECT_EQ(request.getResponseDevice().getDeviceErrorMsg(), row.error);
        EXPECT_EQ(request.getResponseDevice().hasDeviceError(), lost);
        EXPECT_FALSE(request.getReceiveDevice().hasDeviceError());
        EXPECT_EQ(time.wakes(), lost ? 1u : 0u);
    }
    impl::ContextRegistry::Remove(static_cast<ConnectionContext*>(mSlot));
}

TEST_F(RequestCompletedTest, LeavesTheThrottleAlone)
{
    Throttle::OfThisThread().reset();
    Throttle::OfThisThread().pause(nullptr, qvSystemUtils::GetTimeBaseMs());
    const int64_t since = impl::TestAccess::waitSinceMs(Throttle::OfThisThread());
    complete(0);
    EXPECT_EQ(impl::TestAccess::waitSinceMs(Throttle::OfThisThread()), since);
    Throttle::OfThisThread().reset();
}

TEST_F(RequestCompletedTest, WriterThatWaitsForSpaceIsWokenByALostConnection)
{
    HttpResponseDevice& device = mRequest.getResponseDevice();
    const std::string full(262145, 'x');
    ASSERT_EQ(device.writeBytes(full.data(), full.size()), full.size());

    FakeTime time;
    time.onWait([&](FakeTime::Wait&) { complete(5); });
    const std::string more(65536, 'y');
    EXPECT_EQ(device.writeBytes(more.data(), more.size()), more.size());
    EXPECT_EQ(time.waits().size(), 1u);
    EXPECT_EQ(time.wakes(), 1u);
    EXPECT_EQ(device.writeBytes("z", 1), 0u);
}

// Writes a body in pieces of many sizes from its own thread, as an application does.
void WriteBody(TestRequest& request, const std::string& body, unsigned seed)
{
    request.serveOnThisThread();
    std::mt19937 random(seed);
    for (size_t at = 0; at < body.size();) {
        const size_t largest = random() % 4 == 0 ? 200000 : 3000;
        const size_t piece = std::min<size_t>(1 + random() % largest, body.size() - at);
        ASSERT_EQ(request.getResponseDevice().writeBytes(body.data() + at, piece), piece);
        at += piece;
        if (random() % 16 == 0)
            request.getResponseDevice().flush();
    }
    request.getResponseDevice().endSending();
}

TEST(ReadContentThreads, ReaderGetsWhatTheWriterWrote)
{
    for (const size_t blockSize : {65536u, 262000u, 1000u}) {
        SCOPED_TRACE(blockSize);
        const std::string body = PatternBytes(blockSize < 65536 ? 1500000 : 6000000);
        TestRequest request;
        std::thread writer([&] { WriteBody(request, body, 7); });
        std::string received;
        std::vector<char> buffer(blockSize);
        ssize_t got = 0;
        HttpBaseRequest* const closure = &request;
        while ((got = ReadContent(closure, received.size(), buffer.data(), buffer.size())) >= 0)
            received.append(buffer.data(), static_cast<size_t>(got));
        writer.join();
        EXPECT_EQ(got, kEndOfStream);
        EXPECT_TRUE(received == body) << received.size() << " of " << body.size();
        EXPECT_EQ(request.getResponseDevice().getSentBytes(), body.size());
        EXPECT_EQ(request.getResponseDevice().getDataSize(), 0u);
    }
    Throttle::OfThisThread().reset();
}

TEST(ReadContentThreads, LostConnectionEndsAWriterThatNobodyReads)
{
    std::function<void()> nothing;
    http::HttpServer server(new CountingImpl(nothing));
    TestRequest request;
    std::atomic<bool> refused = false;
    std::thread writer([&] {
        request.serveOnThisThread();
        const std::string piece(65536, 'x');
        while (request.getResponseDevice().writeBytes(piece.data(), piece.size()) != 0) {
        }
        refused = true;
    });
    // The writer waits, or is about to, once this much is ready.
    while (request.getResponseDevice().getDataSize() <= 262144)
        std::this_thread::yield();
    void* slot = ContextOf(request);
    impl::RequestCompleted(&server, nullptr, &slot, MHD_REQUEST_TERMINATED_CLIENT_ABORT);
    writer.join();
    EXPECT_TRUE(refused);
    EXPECT_TRUE(request.isCompleted());
    EXPECT_EQ(request.getResponseDevice().getDeviceErrorMsg(),
              "Http response device : ClientAbort");
}

}  // namespace
}  // namespace qv::tests

// Bodies in both directions while memory runs out: accepted bytes arrive once and in order, also
// after a call that failed.

#include "failure_injection/Support.h"
#include "support/FakeTime.h"
#include "support/RecordingApplication.h"
#include "support/TestRequest.h"

#include <Wendrel/HttpServer.h>

#include "request/ContextRegistry.h"
#include "request/DispatchAccess.h"
#include "streaming/StreamCallbacks.h"
#include "streaming/Throttle.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace qv::tests
{
namespace
{

using Access = impl::DispatchAccess;

constexpr size_t kChunk = 65536;

// Allocates, as a callback of an application may.
void Allocate()
{
    const std::string copy = kLongText;
    EXPECT_EQ(copy.size(), kLongText.size());
}

// The receive device.

void Feed(HttpBaseRequest& request, const std::string& bytes)
{
    HttpReceiveDevice& device = request.getReceiveDevice();
    qvMutexLocker locker(&Access::mutex(device));
    EXPECT_EQ(device.writeBytes(bytes.data(), bytes.size()), bytes.size());
}

void EndFeed(HttpBaseRequest& request)
{
    HttpReceiveDevice& device = request.getReceiveDevice();
    qvMutexLocker locker(&Access::mutex(device));
    device.endFeed();
}

std::string ReadAll(HttpReceiveDevice& device)
{
    std::string all(1 << 20, '\0');
    all.resize(device.readBytes(all.data(), all.size()));
    return all;
}

// A feed of `size` bytes with `before` bytes in the device, one of whose calls fails.
Operation Feeding(const char* name, size_t before, size_t size, Points points = Points::Some)
{
    return {name,
            [before, size](Attempt& attempt) {
                FakeTime time;
                WorkerRequest request;
                HttpReceiveDevice& device = request.getReceiveDevice();
                std::string expected = PatternBytes(before);
                Feed(request, expected);

                const std::string piece = PatternBytes(size, before);
                if (attempt([&] { Feed(request, piece); }))
                    expected += piece;
                const std::string rest = PatternBytes(10, before + size);
                Feed(request, rest);
                expected += rest;

                // The queue's own count is right: a reader that wants more is not woken.
                time.onWait([&](FakeTime::Wait& wait) {
                    if (wait.number == 0)
                        Feed(request, "x");
                    else
                        EndFeed(request);
                });
                expected += "x";
                std::string all(expected.size() + 1, '\0');
                all.resize(device.readBytes(all.data(), all.size()));
                EXPECT_TRUE(all == expected) << all.size() << " bytes, not " << expected.size();
                EXPECT_EQ(device.getReceivedBytes(), expected.size());
                EXPECT_TRUE(device.atEnd());
                EXPECT_FALSE(device.hasDeviceError());
                if (testing::Test::HasFailure())
                    return;
                EXPECT_FALSE(time.waits().at(0).woken);
            },
            points};
}

TEST(ReceiveDeviceFailures, FedBytesAreTakenWholeOrNotAtAll)
{
    FailEachCallOf({
        Feeding("feed: into an empty queue", 0, 100),
        Feeding("feed: into unused capacity", 100, 100, Points::None),
        Feeding("feed: the last of the unused capacity", 100, kChunk - 100, Points::None),
        Feeding("feed: beyond the unused capacity", kChunk - 50, 100),
        Feeding("feed: a full chunk", kChunk, kChunk),
        Feeding("feed: more than a chunk", 10, 2 * kChunk),
    });
}

TEST(ReceiveDeviceFailures, ARefusalIsAnErrorOrAnException)
{
    FailEachCallOf({{"feed: after its end",
                     [](Attempt& attempt) {
                         WorkerRequest request;
                         EndFeed(request);
                         HttpReceiveDevice& device = request.getReceiveDevice();
                         EXPECT_TRUE(attempt([&] {
                             qvMutexLocker locker(&Access::mutex(device));
                             EXPECT_EQ(device.writeBytes("a", 1), 0u);
                         }));
                         EXPECT_EQ(device.getDeviceErrorMsg(), "no more feed");
                     },
                     Points::None},
                    {"read: nothing for six minutes", [](Attempt& attempt) {
                         FakeTime time;
                         time.onWait([&](FakeTime::Wait&) { time.advanceMs(200000); });
                         WorkerRequest request;
                         HttpReceiveDevice& device = request.getReceiveDevice();
                         char byte = 0;
                         if (!attempt([&] { EXPECT_EQ(device.readBytes(&byte, 1), 0u); })) {
                             EXPECT_FALSE(device.hasDeviceError());
                             EXPECT_EQ(device.readBytes(&byte, 1), 0u);
                         }
                         EXPECT_EQ(device.getDeviceErrorMsg(),
                                   "Wait too long without incoming data");
                         device.reset();
                         Feed(request, "a");
                         EndFeed(request);
                         EXPECT_EQ(ReadAll(device), "a");
                     }}});
}

TEST(ReceiveDeviceFailures, AnExceptionOfACallbackLeavesTheDeviceUsable)
{
    for (const bool isListener : {false, true}) {
        FailEachCall(isListener ? "read: the wait listener needs memory"
                                : "read: the keep-alive callback needs memory",
                     [&](Attempt& attempt) {
                         FakeTime time;
                         WorkerRequest request;
                         HttpReceiveDevice& device = request.getReceiveDevice();
                         if (isListener)
                             request.listener.action = &Allocate;
                         else
                             request.setKeepAliveCallback(&Allocate, 10);
                         size_t waits = 0;
                         time.onWait([&](FakeTime::Wait&) {
                             if (++waits == 3) {
                                 Feed(request, "abc");
                                 EndFeed(request);
                             }
                         });
                         char bytes[10];
                         size_t got = 0;
                         const bool done =
                             attempt([&] { got = device.readBytes(bytes, sizeof bytes); });
                         EXPECT_EQ(done, !attempt.hasFailed());
                         // The lock is free, and nobody is counted as waiting.
                         if (!done)
                             got = device.readBytes(bytes, sizeof bytes);
                         EXPECT_EQ(std::string(bytes, got), "abc");
                         EXPECT_EQ(waits, 3u);
                     });
    }
}

TEST(ReceiveDeviceFailures, ReadingNeedsNoMemory)
{
    FailEachCallOf(
        {{"read: what is there, and what comes",
          [](Attempt& attempt) {
              FakeTime time;
              WorkerRequest request;
              Feed(request, PatternBytes(3 * kChunk));
              time.onWait([&](FakeTime::Wait&) { EndFeed(request); });
              std::string all(4 * kChunk, '\0');
              HttpReceiveDevice& device = request.getReceiveDevice();
              EXPECT_TRUE(attempt([&] { all.resize(device.readBytes(all.data(), all.size())); }));
              EXPECT_TRUE(all == PatternBytes(3 * kChunk));
          },
          Points::None},
         {"end of the feed, reset",
          [](Attempt& attempt) {
              WorkerRequest request;
              EXPECT_TRUE(attempt([&] {
                  EndFeed(request);
                  request.getReceiveDevice().reset();
              }));
          },
          Points::None}});
}

// The response device.

std::string TakeAll(HttpResponseDevice& device)
{
    std::vector<char> out;
    qvMutexLocker locker(&Access::mutex(device));
    device.getData(out);
    return std::string(out.begin(), out.end());
}

// A write of `size` bytes after `before` bytes; then all is ended and taken.
Operation Writing(const char* name, size_t before, size_t size, Points points = Points::Some)
{
    return {name,
            [before, size](Attempt& attempt) {
                WorkerRequest request;
                HttpResponseDevice& device = request.getResponseDevice();
                std::string expected = PatternBytes(before);
                device.writeBytes(expected.data(), before);

                const std::string piece = PatternBytes(size, before);
                uint64_t taken = 0;
                if (attempt([&] { taken = device.writeBytes(piece.data(), size); }))
                    expected += piece;
                EXPECT_EQ(taken, expected.size() - before);
                EXPECT_EQ(device.getSentBytes(), expected.size());
                EXPECT_LE(device.getDataSize(), expected.size());

                const std::string rest = PatternBytes(10, before + size);
                EXPECT_EQ(device.writeBytes(rest.data(), rest.size()), rest.size());
                device.endSending();
                expected += rest;
                EXPECT_EQ(device.getDataSize(), expected.size());
                EXPECT_TRUE(TakeAll(device) == expected);
                EXPECT_EQ(device.getDataSize(), 0u);
                EXPECT_FALSE(device.hasDeviceError());
            },
            points};
}

TEST(ResponseDeviceFailures, WrittenBytesAreTakenWholeOrNotAtAll)
{
    FailEachCallOf({
        Writing("write: into an empty queue", 0, 100),
        Writing("write: into unused capacity", 100, 100, Points::None),
        Writing("write: the last of the unused capacity", 100, kChunk - 100, Points::None),
        Writing("write: beyond the unused capacity", kChunk - 50, 100),
        Writing("write: a full chunk", kChunk, kChunk),
        Writing("write: more than a chunk", 10, 2 * kChunk),
    });
}

// One operation on a device that holds 100 bytes which nobody has fetched.
template <typename Operate> Operation OnDevice(const char* name, Operate operate)
{
    return {name,
            [operate](Attempt& attempt) {
                WorkerRequest request;
                HttpResponseDevice& device = request.getResponseDevice();
                const std::string bytes = PatternBytes(100);
                device.writeBytes(bytes.data(), bytes.size());
                EXPECT_TRUE(attempt([&] { operate(device); }));
                device.endSending();
                EXPECT_TRUE(TakeAll(device) == bytes);
            },
            Points::None};
}

TEST(ResponseDeviceFailures, HandingOverNeedsNoMemory)
{
    FailEachCallOf({
        OnDevice("flush", [](HttpResponseDevice& device) { device.flush(); }),
        OnDevice("endSending", [](HttpResponseDevice& device) { device.endSending(); }),
        OnDevice("setResponseReady", [](HttpResponseDevice& device) { device.setResponseReady(); }),
        {"write: waiting for capacity",
         [](Attempt& attempt) {
             FakeTime time;
             WorkerRequest request;
             HttpResponseDevice& device = request.getResponseDevice();
             const std::string full = PatternBytes(5 * kChunk);
             device.writeBytes(full.data(), full.size());
             const std::string rest = PatternBytes(kChunk - 1, full.size());
             device.writeBytes(rest.data(), rest.size());
             std::string sent(full.size() + kChunk, '\0');
             time.onWait([&](FakeTime::Wait& wait) {
                 bool ended = false;
                 EXPECT_EQ(device.sendChunksThreadSafe(sent.data(), full.size(), ended, ended),
                           full.size());
                 EXPECT_TRUE(wait.woken || time.wakes() > 0);
             });
             EXPECT_TRUE(attempt([&] { device.flush(); }));
             EXPECT_EQ(time.waits().size(), 1u);
             bool ended = false;
             EXPECT_EQ(device.sendChunksThreadSafe(sent.data() + full.size(), kChunk, ended, ended),
                       rest.size());
             EXPECT_TRUE(sent.substr(0, full.size() + rest.size()) == full + rest);
         },
         Points::None},
    });
}

TEST(ResponseDeviceFailures, BytesThatCannotBeFetchedStay)
{
    FailEachCallOf({{"getData", [](Attempt& attempt) {
                         WorkerRequest request;
                         HttpResponseDevice& device = request.getResponseDevice();
                         // Two chunks: a single one changes hands without memory.
                         const std::string bytes = PatternBytes(100000);
                         device.writeBytes(bytes.data(), bytes.size() - 10);
                         device.writeBytes(bytes.data() + bytes.size() - 10, 10);
                         device.endSending();
                         std::vector<char> got;
                         const auto get = [&] {
                             qvMutexLocker locker(&Access::mutex(device));
                             device.getData(got);
                         };
                         if (!attempt(get)) {
                             EXPECT_FALSE(device.atEnd());
                             EXPECT_EQ(device.getDataSize(), bytes.size());
                             get();
                         }
                         EXPECT_TRUE(std::string(got.begin(), got.end()) == bytes);
                         EXPECT_TRUE(device.atEnd());
                     }}});
}

TEST(ResponseDeviceFailures, AnErrorIsSetWholeOrNotAtAll)
{
    const auto make = [] { return std::make_unique<WorkerRequest>(); };
    const auto look = [](WorkerRequest& request) {
        HttpResponseDevice& device = request.getResponseDevice();
        EXPECT_EQ(device.hasDeviceError(), !device.getDeviceErrorMsg().empty());
        // The lock is free.
        qvMutexLocker locker(&Access::mutex(device));
        return device.getDeviceErrorMsg();
    };
    FailEachCallOf({
        AllOrNothing(
            "readBytes of the response device", make,
            [](WorkerRequest& request) {
                char byte = 0;
                request.getResponseDevice().readBytes(&byte, 1);
            },
            look),
        AllOrNothing(
            "setDeviceError", make,
            [](WorkerRequest& request) { request.getResponseDevice().setDeviceError(kLongText); },
            look),
        AllOrNothing(
            "setConnectionLost", make,
            [](WorkerRequest& request) {
                HttpResponseDevice& device = request.getResponseDevice();
                qvMutexLocker locker(&Access::mutex(device));
                device.setConnectionLost("WriteError");
            },
            look),
    });
}

TEST(ResponseDeviceFailures, AWriterIsWokenAlsoWhenThereIsNoMemoryForTheReason)
{
    FailEachCallOf({{"setConnectionLost: with a writer that waits", [](Attempt& attempt) {
                         FakeTime time;
                         WorkerRequest request;
                         HttpResponseDevice& device = request.getResponseDevice();
                         attempt([&] {
                             qvMutexLocker locker(&Access::mutex(device));
                             device.setConnectionLost("WriteError");
                         });
                         EXPECT_EQ(time.wakes(), 1u);
                     }}});
}

// The daemon's callbacks.

// A server that has not been started, with an application that may need memory at the end of a
// request.
struct Callbacks
{
    Callbacks()
    {
        auto made = std::make_unique<Application>(daemon);
        application = made.get();
        server = std::make_unique<http::HttpServer>(made.release());
        impl::Throttle::OfThisThread().reset();
    }

    class Application : public RecordingApplication
    {
    public:
        using RecordingApplication::RecordingApplication;
        void onRequestCompleted() override
        {
            ++completed;
            if (needsMemory)
                Allocate();
        }

        int completed = 0;
        bool needsMemory = false;
    };

    FakeTime time;
    FailingDaemon daemon;
    Application* application = nullptr;
    std::unique_ptr<http::HttpServer> server;
};

TEST(StreamCallbackFailures, ReadingContentNeedsNoMemory)
{
    const struct
    {
        const char* name;
        size_t ready;
        bool isEnded;
        bool isLost;
        ssize_t result;
    } rows[] = {
        {"content reader: bytes", 70000, false, false, 65536},
        {"content reader: nothing yet", 0, false, false, 0},
        {"content reader: the end", 0, true, false, MHD_CONTENT_READER_END_OF_STREAM},
        {"content reader: the client has closed", 10, true, true,
         MHD_CONTENT_READER_END_WITH_ERROR},
    };
    for (const auto& row : rows) {
        FailEachCall(
            row.name,
            [&](Attempt& attempt) {
                FakeTime time;
                impl::Throttle::OfThisThread().reset();
                WorkerRequest request;
                HttpResponseDevice& device = request.getResponseDevice();
                const std::string bytes = PatternBytes(row.ready);
                device.writeBytes(bytes.data(), bytes.size());
                if (row.isEnded)
                    device.endSending();
                if (row.isLost)
                    device.setDeviceError("closed");
                std::vector<char> buffer(65536);
                ssize_t result = 0;
                EXPECT_TRUE(attempt([&] {
                    for (int i = 0; i < (row.ready == 0 ? 300 : 1); ++i)
                        result = impl::ReadContent(&request, 0, buffer.data(), buffer.size());
                }));
                EXPECT_EQ(result, row.result);
            },
            Points::None);
    }
}

TEST(StreamCallbackFailures, ACompletedRequestIsCompletedWhateverComesOutOfTheCallback)
{
    const struct
    {
        const char* name;
        MHD_RequestTerminationCode code;
        const char* text;
        bool needsMemory;
    } rows[] = {
        {"request completed", MHD_REQUEST_TERMINATED_COMPLETED_OK, "", false},
        {"request completed: WriteError", MHD_REQUEST_TERMINATED_WITH_ERROR,
         "Http response device : WriteError", false},
        {"request completed: TimeoutReached", MHD_REQUEST_TERMINATED_TIMEOUT_REACHED,
         "Http response device : TimeoutReached", false},
        {"request completed: DaemonShutdown", MHD_REQUEST_TERMINATED_DAEMON_SHUTDOWN,
         "Http response device : DaemonShutdown", false},
        {"request completed: ReadError", MHD_REQUEST_TERMINATED_READ_ERROR,
         "Http response device : ReadError", false},
        {"request completed: ClientAbort", MHD_REQUEST_TERMINATED_CLIENT_ABORT,
         "Http response device : ClientAbort", false},
        {"request completed: the application needs memory", MHD_REQUEST_TERMINATED_CLIENT_ABORT,
         "Http response device : ClientAbort", true},
    };
    for (const auto& row : rows) {
        const bool canFail = row.needsMemory || *row.text != '\0';
        FailEachCall(
            row.name,
            [&](Attempt& attempt) {
                Callbacks callbacks;
                callbacks.application->needsMemory = row.needsMemory;
                WorkerRequest request;
                MHD_Connection& connection = callbacks.daemon.connection();
                Access::connection(request) = &connection;
                impl::ConnectionContext* context = impl::ContextRegistry::Add(kLongText, nullptr);
                context->request = &request;
                void* slot = context;
                const bool done = attempt([&] {
                    impl::RequestCompleted(callbacks.server.get(), &connection, &slot, row.code);
                });
                // The text of the error becomes shorter; only the application's exceptions pass.
                EXPECT_TRUE(done || (row.needsMemory && attempt.hasFailed()));
                EXPECT_EQ(slot, nullptr);
                // Takes the lock, which is free.
                EXPECT_TRUE(request.isCompleted());
                EXPECT_EQ(Access::connection(request), nullptr);
                EXPECT_EQ(callbacks.application->completed, 1);
                const std::string error = request.getResponseDevice().getDeviceErrorMsg();
                const std::string text = done ? row.text : "";
                const bool isShort = error == text.substr(text.rfind(' ') + 1);
                EXPECT_TRUE(error == text || (attempt.hasFailed() && isShort)) << error;
            },
            canFail ? Points::Some : Points::None);
    }
}

}  // namespace
}  // namespace qv::tests

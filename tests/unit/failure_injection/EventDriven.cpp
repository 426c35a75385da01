// Event-driven mode while memory runs out: no connection stays suspended, and no lent memory is
// lost.

#include "failure_injection/Support.h"
#include "support/TestRequest.h"

#include <Wendrel/BodySource.h>

#include "listener/Connection.h"
#include "listener/ConnectionTable.h"
#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"
#include "server/EventStream.h"

#include <atomic>
#include <memory>
#include <string>

namespace qv::tests
{
namespace
{

using Access = impl::DispatchAccess;

class CountingRecord : public impl::ConnectionRecord
{
public:
    void resume() override { ++resumed; }
    void continueUpload() override { ++continued; }
    void discardUpload() override { ++discarded; }

    int resumed = 0;
    int continued = 0;
    int discarded = 0;
};

// The error has the longer text when there is memory for it.
TEST(AbortFailures, AResponseIsResumedAndInErrorWithoutMemory)
{
    FailEachCall("abort: a response that waits", [](Attempt& attempt) {
        CountingRecord record;
        TestRequest request;
        Access::record(request) = &record;
        HttpResponseDevice& device = request.getResponseDevice();
        {
            const qvMutexLocker locker(&Access::mutex(device));
            Access::isSuspended(device) = true;
        }
        std::atomic<bool> aborted{false};
        EXPECT_TRUE(attempt([&] { Access::abort(device, "DaemonShutdown", false, aborted); }));
        EXPECT_TRUE(aborted);
        EXPECT_EQ(record.resumed, 1);
        EXPECT_EQ(device.getDeviceErrorMsg(),
                  attempt.hasFailed() ? "DaemonShutdown" : "Http response device : DaemonShutdown");
    });
}

TEST(AbortFailures, AnUploadIsContinuedWithoutMemoryForTheError)
{
    FailEachCall("abort: an upload that is paused", [](Attempt& attempt) {
        CountingRecord record;
        TestRequest request;
        Access::record(request) = &record;
        HttpReceiveDevice& device = request.getReceiveDevice();
        {
            const qvMutexLocker locker(&Access::mutex(device));
            Access::pauseFeed(device);
        }
        attempt([&] { Access::abort(device, kLongText); });
        EXPECT_EQ(record.continued, 1);
    });
}

TEST(SourceFailures, LentMemoryIsReleasedWhenAnyCallFails)
{
    const auto text = std::make_shared<const std::string>(kLongText);
    FailEachCall("queue: a response from memory", [&](Attempt& attempt) {
        {
            FailingDaemon daemon;
            impl::ConnectionTable table({}, 0);
            const auto record = std::make_shared<impl::Connection>(table, -1, impl::Peer{});
            TestRequest request;
            Access::record(request) = record.get();
            EXPECT_TRUE(request.getResponseDevice().setBodySource(BodySource::fromString(text)));
            MHD_Result result = MHD_NO;
            const bool done = attempt(
                [&] { result = impl::QueueSource(request, *record, &daemon.connection(), {}); });
            EXPECT_EQ(done && result == MHD_YES, !attempt.hasFailed());
        }
        EXPECT_EQ(text.use_count(), 1);
    });
}

TEST(SourceFailures, ASourceIsSetOrDestroyed)
{
    const auto text = std::make_shared<const std::string>(kLongText);
    const BodyResumer resumer;
    FailEachCall("set: a source with a resumer", [&](Attempt& attempt) {
        {
            CountingRecord record;
            TestRequest request;
            Access::record(request) = &record;
            HttpResponseDevice& device = request.getResponseDevice();
            bool isSet = false;
            attempt([&] {
                isSet = device.setBodySource(BodySource::fromCallback(
                    [text](uint64_t, char*, size_t) -> BodyRead { return {BodyRead::End}; },
                    resumer));
            });
            EXPECT_EQ(Access::source(device) != nullptr, isSet);
            EXPECT_EQ(text.use_count(), isSet ? 2 : 1);
        }
        EXPECT_EQ(text.use_count(), 1);
    });
}

}  // namespace
}  // namespace qv::tests

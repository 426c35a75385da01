// Event-driven mode while memory runs out: no connection stays suspended.

#include "failure_injection/Support.h"
#include "support/TestRequest.h"

#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"

#include <atomic>

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

    int resumed = 0;
    int continued = 0;
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

}  // namespace
}  // namespace qv::tests

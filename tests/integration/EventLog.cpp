// Event-driven mode: what ends of requests write to the log.

#include "support/EventRun.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::kLimit;
using integration::onOneThread;
using integration::processLog;
using integration::RawClient;
using integration::waitUntil;
using qv::http::ServerOptions;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kInternalError =
    "libmicrohttpd: Application reported internal error, closing connection.";

TEST(Log, HasNoInternalErrorForARequestThatIsAborted)
{
    EventRun run([](EventRequest&) {}, onOneThread());
    RawClient waiting(run.port());
    ASSERT_TRUE(waiting.send(getRequest("/")));
    ASSERT_TRUE(run.request(0));
    RawClient uploading(run.port());
    ASSERT_TRUE(uploading.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\nbody"));
    ASSERT_TRUE(run.request(1));
    waiting.close();
    EXPECT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    RawClient left(run.port());
    ASSERT_TRUE(left.send(getRequest("/")));
    ASSERT_TRUE(run.request(2));
    EXPECT_FALSE(run.server().shutDown(std::chrono::milliseconds(0)));
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(run.request(i)->aborts, 1);
    EXPECT_THAT(processLog->lines(kInternalError), IsEmpty());
}

TEST(Log, HasTheInternalErrorOfAResponseThatTheDaemonRefuses)
{
    EventRun run([](EventRequest& request) {
        if (request.getOriginalFullUrl() == "/impossible")
            request.respondHere(1000, "");
    });
    RawClient aborted(run.port());
    ASSERT_TRUE(aborted.send(getRequest("/")));
    ASSERT_TRUE(run.request(0));
    aborted.close();
    EXPECT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    RawClient refused(run.port());
    ASSERT_TRUE(refused.send(getRequest("/impossible")));
    EXPECT_TRUE(refused.isClosedByServer());
    EXPECT_THAT(processLog->lines(kInternalError), SizeIs(1));
}

}  // namespace

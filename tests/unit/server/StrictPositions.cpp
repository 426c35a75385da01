// The test of the daemon before a strict server starts.

#include "server/StrictPositions.h"

#include "support/RecordingDaemon.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace
{

using qv::impl::TestStrictPositions;
using qv::tests::RecordingDaemon;
using ::testing::SizeIs;
using ::testing::StartsWith;

// The fake shows no position of any text.
TEST(TestStrictPositions, FailsWithADaemonThatDoesNotShowPositions)
{
    const RecordingDaemon daemon;
    EXPECT_EQ(TestStrictPositions(),
              "ServerOptions::strictRequests is not possible with libmicrohttpd 0.0.0 (fake): it "
              "does not show folded lines, bare LF and NUL; set it to false");
    // Again: a failure is not remembered.
    EXPECT_NE(TestStrictPositions(), "");
    EXPECT_THAT(daemon.starts(), SizeIs(2));
    EXPECT_THAT(daemon.stops(), SizeIs(2));
}

TEST(TestStrictPositions, FailsWithoutADaemonToTest)
{
    for (const char* function : {"MHD_start_daemon", "MHD_add_connection"}) {
        SCOPED_TRACE(function);
        RecordingDaemon daemon;
        daemon.fail(function);
        errno = EMFILE;
        EXPECT_EQ(TestStrictPositions(),
                  "cannot test the daemon for ServerOptions::strictRequests: Too many open files");
    }
}

}  // namespace

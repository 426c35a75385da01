// Bringing the library up and down, nested.

#include <Wendrel/HttpRequest.h>
#include <Wendrel/Wendrel.h>

#include <Ostrand/Ostrand.h>
#include <Quenby/Quenby.h>
#include <qvSystem/LibInitCounter.h>

#include <gmock/gmock.h>

#include <string>

#include <microhttpd.h>

namespace qv::tests
{
namespace
{

using ::testing::IsEmpty;
using ::testing::SizeIs;

// The registered version of the daemon; "none" without one.
std::string DaemonVersion()
{
    const auto infos = GetThirdPartyLibVersionInfos();
    const auto found = infos.find("libmicrohttpd");
    return found == infos.end() ? "none" : found->second;
}

void ExpectUp()
{
    EXPECT_TRUE(IsWendrelInitialized());
    EXPECT_TRUE(IsOstrandInitialized());
    EXPECT_TRUE(json::IsQvQuenbyInitialized());
    EXPECT_THAT(HttpBaseRequest::sRequestTypes, SizeIs(9));
    EXPECT_EQ(DaemonVersion(), MHD_get_version());
}

void ExpectDown()
{
    EXPECT_FALSE(IsWendrelInitialized());
    EXPECT_FALSE(IsOstrandInitialized());
    EXPECT_FALSE(json::IsQvQuenbyInitialized());
    EXPECT_THAT(HttpBaseRequest::sRequestTypes, IsEmpty());
    EXPECT_EQ(DaemonVersion(), "none");
}

TEST(Wendrel, IsDownUntilInitialized)
{
    ExpectDown();
}

TEST(Wendrel, FirstInitializationBringsUpAndLastTerminationTakesDown)
{
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        initializeWendrel();
        ExpectUp();
        terminateWendrel();
        ExpectDown();
    }
}

TEST(Wendrel, NestedInitializationsNeedAsManyTerminations)
{
    constexpr int kDepth = 5;
    for (int i = 0; i < kDepth; ++i)
        initializeWendrel();
    for (int i = 1; i < kDepth; ++i) {
        terminateWendrel();
        ExpectUp();
    }
    terminateWendrel();
    ExpectDown();
}

TEST(Wendrel, FurtherInitializationsAndTerminationsDoNoWork)
{
    initializeWendrel();
    impl::RegisterThirdPartyLibVersionInfo("libmicrohttpd", "left alone");
    HttpBaseRequest::sRequestTypes.erase("PATCH");

    initializeWendrel();
    EXPECT_EQ(DaemonVersion(), "left alone");
    EXPECT_THAT(HttpBaseRequest::sRequestTypes, SizeIs(8));
    terminateWendrel();
    EXPECT_EQ(DaemonVersion(), "left alone");
    EXPECT_THAT(HttpBaseRequest::sRequestTypes, SizeIs(8));

    terminateWendrel();
    ExpectDown();
}

TEST(Wendrel, LeavesWhatTheApplicationInitializedItself)
{
    initializeOstrand("");
    json::initializeQvQuenby();
    initializeWendrel();
    terminateWendrel();
    EXPECT_TRUE(IsOstrandInitialized());
    EXPECT_TRUE(json::IsQvQuenbyInitialized());
    json::terminateQvQuenby();
    terminateOstrand();
    ExpectDown();
}

TEST(Wendrel, TerminationWithoutInitializationChangesNothing)
{
    terminateWendrel();
    ExpectDown();
    initializeWendrel();
    ExpectUp();
    terminateWendrel();
    ExpectDown();
}

}  // namespace
}  // namespace qv::tests

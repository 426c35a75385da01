// The JSON library's coming up and going down.

#include <Quenby/Quenby.h>

#include <qvSystem/LibInitCounter.h>

#include <gtest/gtest.h>

namespace qv::tests
{
namespace
{

TEST(Quenby, IsInitialisedBetweenTheFirstAndTheLastCall)
{
    const auto versions = GetThirdPartyLibVersionInfos();
    EXPECT_FALSE(json::IsQvQuenbyInitialized());
    json::initializeQvQuenby();
    EXPECT_TRUE(json::IsQvQuenbyInitialized());
    json::initializeQvQuenby();
    json::terminateQvQuenby();
    EXPECT_TRUE(json::IsQvQuenbyInitialized());
    EXPECT_EQ(GetThirdPartyLibVersionInfos(), versions);
    json::terminateQvQuenby();
    EXPECT_FALSE(json::IsQvQuenbyInitialized());
}

TEST(Quenby, ReportsATerminationTooMany)
{
    ::testing::internal::CaptureStderr();
    json::terminateQvQuenby();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "quenby: terminated more often than initialised\n");
    EXPECT_FALSE(json::IsQvQuenbyInitialized());
}

}  // namespace
}  // namespace qv::tests

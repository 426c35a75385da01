// The HTTP helper library's coming up and going down.

#include <Ostrand/Ostrand.h>

#include <qvSystem/LibInitCounter.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

TEST(Ostrand, IsInitialisedBetweenTheFirstAndTheLastCall)
{
    EXPECT_FALSE(IsOstrandInitialized());
    initializeOstrand("");
    EXPECT_TRUE(IsOstrandInitialized());
    initializeOstrand("");
    terminateOstrand();
    EXPECT_TRUE(IsOstrandInitialized());
    terminateOstrand();
    EXPECT_FALSE(IsOstrandInitialized());
}

TEST(Ostrand, RegistersNoThirdPartyLibrary)
{
    const auto versions = GetThirdPartyLibVersionInfos();
    initializeOstrand("");
    EXPECT_EQ(GetThirdPartyLibVersionInfos(), versions);
    terminateOstrand();
}

TEST(Ostrand, ReportsATerminationTooMany)
{
    ::testing::internal::CaptureStderr();
    terminateOstrand();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "ostrand: terminated more often than initialised\n");
    EXPECT_FALSE(IsOstrandInitialized());
}

TEST(Ostrand, CountsRightWhenManyThreadsUseIt)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 2000; ++round) {
                initializeOstrand("");
                EXPECT_TRUE(IsOstrandInitialized());
                terminateOstrand();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(IsOstrandInitialized());
}

}  // namespace
}  // namespace qv::tests

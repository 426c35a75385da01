// The HTTP helper library's coming up and going down.

#include <Ostrand/Ostrand.h>

#include <qvSystem/LibInitCounter.h>

#include <gmock/gmock.h>

#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

using ::testing::Contains;
using ::testing::MatchesRegex;
using ::testing::Pair;

size_t RegisteredUrlLibraries()
{
    return GetThirdPartyLibVersionInfos().count("Boost.URL");
}

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

TEST(Ostrand, RegistersTheUrlLibraryWhileItIsInitialised)
{
    EXPECT_EQ(RegisteredUrlLibraries(), 0u);
    initializeOstrand("");
    initializeOstrand("");
    EXPECT_THAT(GetThirdPartyLibVersionInfos(),
                Contains(Pair("Boost.URL", MatchesRegex("1\\.[0-9]+(\\.[0-9]+)?"))));
    terminateOstrand();
    EXPECT_EQ(RegisteredUrlLibraries(), 1u);
    terminateOstrand();
    EXPECT_EQ(RegisteredUrlLibraries(), 0u);
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
                EXPECT_EQ(RegisteredUrlLibraries(), 1u);
                terminateOstrand();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(IsOstrandInitialized());
    EXPECT_EQ(RegisteredUrlLibraries(), 0u);
}

}  // namespace
}  // namespace qv::tests

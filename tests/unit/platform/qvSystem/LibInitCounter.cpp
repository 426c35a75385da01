// The initialisation count, and the registry of third-party libraries.

#include <qvSystem/LibInitCounter.h>

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

using ::testing::Contains;
using ::testing::MatchesRegex;
using ::testing::Pair;

constexpr int kThreads = 8;

void OnManyThreads(const std::function<void(int)>& work)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back(work, i);
    for (auto& thread : threads)
        thread.join();
}

TEST(LibInitCounter, TellsTheFirstInitialisationAndTheLastTermination)
{
    impl::LibInitCounter counter("test", true);
    EXPECT_FALSE(counter.isInitialized());
    EXPECT_TRUE(counter.incrementInitCounter());
    EXPECT_TRUE(counter.isInitialized());
    EXPECT_FALSE(counter.incrementInitCounter());
    EXPECT_FALSE(counter.decrementInitCounter());
    EXPECT_TRUE(counter.isInitialized());
    EXPECT_TRUE(counter.decrementInitCounter());
    EXPECT_FALSE(counter.isInitialized());
    EXPECT_TRUE(counter.incrementInitCounter());
}

TEST(LibInitCounter, NeverGoesBelowZero)
{
    impl::LibInitCounter counter("test", false);
    EXPECT_FALSE(counter.decrementInitCounter());
    EXPECT_FALSE(counter.decrementInitCounter());
    EXPECT_FALSE(counter.isInitialized());
    EXPECT_TRUE(counter.incrementInitCounter());
    EXPECT_TRUE(counter.isInitialized());
}

TEST(LibInitCounter, ReportsATerminationTooManyOnlyWhenStrict)
{
    impl::LibInitCounter strict("strict library", true);
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(strict.decrementInitCounter());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "strict library: terminated more often than initialised\n");

    impl::LibInitCounter lax("lax library", false);
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(lax.decrementInitCounter());
    EXPECT_TRUE(strict.incrementInitCounter());
    EXPECT_TRUE(strict.decrementInitCounter());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(LibInitCounter, HasOneFirstAndOneLastAmongManyThreads)
{
    impl::LibInitCounter counter("test", true);
    std::atomic<int> firsts{0};
    std::atomic<int> lasts{0};
    OnManyThreads([&](int) { firsts += counter.incrementInitCounter(); });
    EXPECT_EQ(firsts, 1);
    OnManyThreads([&](int) { lasts += counter.decrementInitCounter(); });
    EXPECT_EQ(lasts, 1);
    EXPECT_FALSE(counter.isInitialized());
}

TEST(LibInitCounter, StaysAtZeroWhenManyThreadsTerminateTooOften)
{
    impl::LibInitCounter counter("test", false);
    std::atomic<int> firsts{0};
    std::atomic<int> lasts{0};
    OnManyThreads([&](int thread) {
        for (int round = 0; round < 2000; ++round) {
            if ((thread + round) % 3 == 0)
                firsts += counter.incrementInitCounter();
            else
                lasts += counter.decrementInitCounter();
        }
    });
    EXPECT_GT(firsts, 0);
    EXPECT_EQ(firsts - lasts, counter.isInitialized() ? 1 : 0);
}

TEST(VersionRegistry, ListsWhatIsRegistered)
{
    std::string name = "a library";
    std::string version = "1.2.3";
    impl::RegisterThirdPartyLibVersionInfo(name.c_str(), version.c_str());
    name = version = "overwritten";  // both texts were copied
    EXPECT_THAT(GetThirdPartyLibVersionInfos(), Contains(Pair("a library", "1.2.3")));

    impl::RegisterThirdPartyLibVersionInfo("a library", "4.5");
    EXPECT_THAT(GetThirdPartyLibVersionInfos(), Contains(Pair("a library", "4.5")));

    impl::UnRegisterThirdPartyLibVersionInfo("a library");
    EXPECT_EQ(GetThirdPartyLibVersionInfos().count("a library"), 0u);
}

TEST(VersionRegistry, ForgetsAnUnknownNameWithoutEffect)
{
    const auto before = GetThirdPartyLibVersionInfos();
    impl::UnRegisterThirdPartyLibVersionInfo("never registered");
    EXPECT_EQ(GetThirdPartyLibVersionInfos(), before);
}

TEST(VersionRegistry, HoldsTheDependenciesOfTheSystemLibrary)
{
    EXPECT_THAT(GetThirdPartyLibVersionInfos(),
                Contains(Pair("spdlog", MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"))));
}

TEST(VersionRegistry, GivesACopy)
{
    auto copy = GetThirdPartyLibVersionInfos();
    copy["only in the copy"] = "1";
    EXPECT_EQ(GetThirdPartyLibVersionInfos().count("only in the copy"), 0u);
}

TEST(VersionRegistry, TakesManyThreadsAtOnce)
{
    const auto before = GetThirdPartyLibVersionInfos();
    OnManyThreads([](int thread) {
        const std::string name = "library " + std::to_string(thread);
        for (int round = 0; round < 200; ++round) {
            impl::RegisterThirdPartyLibVersionInfo(name.c_str(), "1");
            EXPECT_EQ(GetThirdPartyLibVersionInfos().count(name), 1u);
            impl::UnRegisterThirdPartyLibVersionInfo(name.c_str());
        }
    });
    EXPECT_EQ(GetThirdPartyLibVersionInfos(), before);
}

}  // namespace
}  // namespace qv::tests

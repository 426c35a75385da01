// The version texts and numbers.

#include <Wendrel/Wendrel.h>

#include <gmock/gmock.h>

#include <string>

namespace
{

using ::testing::MatchesRegex;
using ::testing::StrEq;
using Wendrel::Version;

TEST(Version, NumbersOfTheRelease)
{
    EXPECT_EQ(Version::GetMajor(), 3u);
    EXPECT_EQ(Version::GetMinor(), 0u);
    EXPECT_EQ(Version::GetRelease(), 0u);
}

TEST(Version, StampsAreOfTheirForm)
{
    EXPECT_THAT(Version::GetCommitId(), MatchesRegex("[0-9a-f]{16}"));
    EXPECT_GE(Version::GetYear(), 2026u);
    EXPECT_LE(Version::GetYear(), 9999u);
    EXPECT_GE(Version::GetMonth(), 1u);
    EXPECT_LE(Version::GetMonth(), 12u);
}

TEST(Version, ShortTextsIgnoreTheirArgument)
{
    for (const bool reserved : {false, true}) {
        EXPECT_THAT(Version::GetDescStringMajorMinor(reserved), StrEq("3.0"));
        EXPECT_THAT(Version::GetDescStringMajorMinorRelease(reserved), StrEq("3.0.0"));
    }
}

TEST(Version, SecondArgumentAloneAddsTheCommitId)
{
    const std::string plain = "3.0.0." + std::to_string(Version::GetRevision());
    const std::string withCommitId = plain + " #" + Version::GetCommitId();
    for (const bool reserved : {false, true}) {
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(reserved, false), plain);
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(reserved, true), withCommitId);
    }
}

TEST(Version, DateTextEndsWithYearAndMonthWithoutLeadingZero)
{
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(),
              Version::GetDescStringMajorMinorReleaseRevision(false, true) + std::string(" ") +
                  std::to_string(Version::GetYear()) + "-" + std::to_string(Version::GetMonth()));
}

TEST(Version, TextsAreConstants)
{
    EXPECT_EQ(Version::GetCommitId(), Version::GetCommitId());
    EXPECT_EQ(Version::GetDescStringMajorMinor(true), Version::GetDescStringMajorMinor(false));
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(true, true),
              Version::GetDescStringMajorMinorReleaseRevision(false, true));
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(),
              Version::GetDescStringMajorMinorReleaseRevisionDate());
}

TEST(Version, IsARelease)
{
    EXPECT_FALSE(Version::IsBeta());
    EXPECT_FALSE(Version::IsDebug());
    EXPECT_FALSE(Version::IsDev());
}

}  // namespace

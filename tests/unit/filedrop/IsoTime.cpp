// Texts of times.

#include "IsoTime.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace filedrop
{

constexpr int64_t kExample = 784887151;  // 15 November 1994, 08:12:31

TEST(IsoTime, HasMilliseconds)
{
    EXPECT_EQ(formatIsoTime(kExample, 250000000), "1994-11-15T08:12:31.250Z");
    EXPECT_EQ(formatIsoTime(kExample, 0), "1994-11-15T08:12:31.000Z");
    EXPECT_EQ(formatIsoTime(kExample, 999999999), "1994-11-15T08:12:31.999Z");
}

}  // namespace filedrop

// Sizes as people write them.

#include "ByteSize.h"

#include <gtest/gtest.h>

namespace filedrop
{

TEST(ByteSize, WritesSizesForPeople)
{
    EXPECT_EQ(formatByteSize(0), "0 bytes");
    EXPECT_EQ(formatByteSize(1), "1 byte");
    EXPECT_EQ(formatByteSize(1023), "1023 bytes");
    EXPECT_EQ(formatByteSize(1024), "1 KiB");
    EXPECT_EQ(formatByteSize(1536), "1.5 KiB");
    EXPECT_EQ(formatByteSize(10737418240), "10 GiB");
    EXPECT_EQ(formatByteSize(9223372036854775807u), "8388608 TiB");
}

}  // namespace filedrop

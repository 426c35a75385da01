// Sizes as people write them.

#include "ByteSize.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace filedrop
{

TEST(ByteSize, ReadsNumbersWithAndWithoutUnit)
{
    const struct
    {
        const char* text;
        uint64_t bytes;
    } rows[] = {
        {"0", 0},
        {"1", 1},
        {"17B", 17},
        {"1K", 1024},
        {"1k", 1024},
        {"1KB", 1024},
        {"1KiB", 1024},
        {"1 KiB", 1024},
        {"500M", 524288000},
        {"10G", 10737418240},
        {"10gib", 10737418240},
        {"2T", 2199023255552},
        {"007", 7},
        {"9223372036854775807", 9223372036854775807u},
        {"8388607T", 9223370937343148032u},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(parseByteSize(row.text), row.bytes);
    }
}

TEST(ByteSize, RefusesAnythingElse)
{
    const char* rows[] = {
        "",
        " ",
        "G",
        "-1",
        "+1",
        "1.5G",
        "1,5G",
        "1P",
        "1GG",
        "1Gi",
        "1 G B",
        "1iB",
        "0x10",
        "ten",
        "1e3",
        " 1",
        "9223372036854775808",
        "8388608T",
        "99999999999999999999999",
    };
    for (const char* text : rows) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(parseByteSize(text));
    }
}

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

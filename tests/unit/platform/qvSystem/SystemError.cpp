// Texts of errno values.

#include <qvSystem/SystemError.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace qv::tests
{
namespace
{

TEST(SystemError, GivesTheTextOfTheSystem)
{
    const struct
    {
        int value;
        const char* text;
    } rows[] = {
        {0, "Success"},
        {ENOENT, "No such file or directory"},
        {ECONNREFUSED, "Connection refused"},
        {EADDRINUSE, "Address already in use"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(SystemError(row.value).toString(), row.text);
        EXPECT_EQ(SystemError(row.value).getValue(), row.value);
    }
}

TEST(SystemError, NamesTheNumberWhenThereIsNoText)
{
    EXPECT_EQ(SystemError(99999).toString(), "Unknown error 99999");
    EXPECT_EQ(SystemError(-5).toString(), "Unknown error -5");
}

}  // namespace
}  // namespace qv::tests

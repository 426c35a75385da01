// Names of downloads.

#include "Disposition.h"

#include <gtest/gtest.h>

namespace qv::kit
{
namespace
{

TEST(Disposition, NamesDownloads)
{
    const struct
    {
        const char* name;
        const char* value;
    } rows[] = {
        {"report.pdf", "attachment; filename=\"report.pdf\""},
        {"two words.txt", "attachment; filename=\"two words.txt\""},
        {"semi;colon,comma", "attachment; filename=\"semi;colon,comma\""},
        {"say \"hi\".txt",
         "attachment; filename=\"say _hi_.txt\"; filename*=UTF-8''say%20%22hi%22.txt"},
        {"back\\slash", "attachment; filename=\"back_slash\"; filename*=UTF-8''back%5Cslash"},
        {"100%25.txt", "attachment; filename=\"100_25.txt\"; filename*=UTF-8''100%2525.txt"},
        {"\xc3\xa9t\xc3\xa9.txt",
         "attachment; filename=\"_t_.txt\"; filename*=UTF-8''%C3%A9t%C3%A9.txt"},
        {"\xf0\x9f\x8e\x89", "attachment; filename=\"_\"; filename*=UTF-8''%F0%9F%8E%89"},
        {"it's (1)*.\xe2\x82\xac",
         "attachment; filename=\"it's (1)*._\"; filename*=UTF-8''it%27s%20%281%29%2A.%E2%82%AC"},
        {"a\r\nb", "attachment; filename=\"a__b\""},
        {"../a", "attachment; filename=\".._a\""},
        {"\xff.txt", "attachment; filename=\"_.txt\""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(attachment(row.name), row.value);
    }
}

}  // namespace
}  // namespace qv::kit

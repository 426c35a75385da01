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
        {"100%25.txt", "attachment; filename=\"100_25.txt\"; filename*=UTF-8''100%2525.txt"},
        {"\xc3\xa9t\xc3\xa9.txt",
         "attachment; filename=\"_t_.txt\"; filename*=UTF-8''%C3%A9t%C3%A9.txt"},
        {"\xf0\x9f\x8e\x89", "attachment; filename=\"_\"; filename*=UTF-8''%F0%9F%8E%89"},
        {"it's (1).\xe2\x82\xac",
         "attachment; filename=\"it's (1)._\"; filename*=UTF-8''it%27s%20%281%29.%E2%82%AC"},
        // As names that clients send.
        {"say \"hi\"?.txt", "attachment; filename=\"say _hi__.txt\""},
        {"a\r\nb", "attachment; filename=\"ab\""},
        {"../a", "attachment; filename=\"a\""},
        {"back\\slash", "attachment; filename=\"slash\""},
        {"\xff.txt", "attachment; filename=\"_.txt\""},
        {"invoice\u202efdp.exe", "attachment; filename=\"invoicefdp.exe\""},
        {".profile", "attachment; filename=\"profile\""},
        {"con.txt", "attachment; filename=\"_con.txt\""},
        {"/", "attachment; filename=\"file\""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(attachment(row.name), row.value);
    }
}

}  // namespace
}  // namespace qv::kit

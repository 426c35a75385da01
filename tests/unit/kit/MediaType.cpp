// Types of files by their names.

#include "MediaType.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace qv::kit
{
namespace
{

TEST(MediaType, IsFoundByExtension)
{
    const struct
    {
        const char* name;
        const char* type;
    } rows[] = {
        {"a.txt", "text/plain; charset=utf-8"},
        {"a.TXT", "text/plain; charset=utf-8"},
        {"a.tar.gz", "application/gzip"},
        {"photo.JPeG", "image/jpeg"},
        {"a.pdf", "application/pdf"},
        {"clip.mp4", "video/mp4"},
        {"a.json", "application/json"},
        {"a.zip", "application/zip"},
        {"a", "application/octet-stream"},
        {"a.", "application/octet-stream"},
        {".txt", "application/octet-stream"},
        {"txt", "application/octet-stream"},
        {"a.b.gz", "application/gzip"},
        {"module.MJS", "text/javascript; charset=utf-8"},
        {"a.ttf", "font/ttf"},
        {"a.7z", "application/x-7z-compressed"},
        {"a.zst", "application/zstd"},
        {"", "application/octet-stream"},
        {"..", "application/octet-stream"},
        {"a..", "application/octet-stream"},
        {"a..txt", "text/plain; charset=utf-8"},
        {"a.unknown", "application/octet-stream"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(mediaType(row.name), row.type);
    }
}

TEST(MediaType, ComesFromTheMachineBeyondTheWeb)
{
    if (!std::filesystem::exists("/usr/share/mime/globs2"))
        GTEST_SKIP() << "shared-mime-info is not installed";
    EXPECT_EQ(mediaType("a.rpm"), "application/x-rpm");
    EXPECT_EQ(mediaType("A.PY"), "text/x-python; charset=utf-8");
    EXPECT_EQ(mediaType("a.tar.lz"), "application/x-lzip-compressed-tar");
}

}  // namespace
}  // namespace qv::kit

// Names come from whoever may write to the directory: each is escaped.

#include "Listing.h"

#include "Markup.h"
#include "Text.h"
#include "websocket/Utf8Check.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

namespace qv::kit
{
namespace
{

struct CloseDirectory
{
    void operator()(DIR* stream) const { closedir(stream); }
};

[[noreturn]] void fail()
{
    throw std::system_error(errno, std::generic_category(), "cannot list a directory");
}

bool isPlainInPath(char c)
{
    constexpr std::string_view kMarks = "-._~!$()*+,;=:@";
    return isLetterOrDigit(c) || kMarks.find(c) != kMarks.npos;
}

std::string isoTime(int64_t seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

std::string rowOf(const std::string& href, const std::string& name, const std::string& bytes,
                  const std::string& time)
{
    return "<tr><td><a href=\"" + href + "\">" + name + "</a></td><td>" + bytes + "</td><td>" +
           time + "</td></tr>\n";
}

}  // namespace

Listing readListing(FileDescriptor&& directory,
                    const std::function<bool(const std::string& name)>& isServed,
                    const std::function<FileDescriptor(const std::string& name)>& open)
{
    const std::unique_ptr<DIR, CloseDirectory> stream(fdopendir(directory.get()));
    if (!stream)
        fail();
    const int descriptor = directory.release();
    Listing listing;
    size_t examined = 0;
    for (errno = 0; const dirent* const entry = readdir(stream.get()); errno = 0) {
        const std::string name = entry->d_name;
        // A target that is not UTF-8 is refused.
        if (!websocket::isUtf8(name) || !isServed(name))
            continue;
        if (examined++ == kMaxListedNames) {
            listing.isCut = true;
            break;
        }
        struct stat status
        {};
        if (fstatat(descriptor, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISLNK(status.st_mode)) {
            const FileDescriptor target = open(name);
            if (!target.isOpen() || fstat(target.get(), &status) != 0)
                continue;
        }
        if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))
            listing.entries.push_back({name, S_ISDIR(status.st_mode),
                                       static_cast<uint64_t>(status.st_size),
                                       status.st_mtim.tv_sec});
    }
    if (!listing.isCut && errno != 0)
        fail();
    std::sort(listing.entries.begin(), listing.entries.end(),
              [](const Listing::Entry& left, const Listing::Entry& right) {
                  return left.name < right.name;
              });
    return listing;
}

std::string listingPage(const Listing& listing, const std::string& path, bool isRoot)
{
    const std::string title = "Index of " + htmlText(path);
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head><meta charset=\"utf-8\"><title>" + title +
        "</title></head>\n<body>\n<h1>" + title +
        "</h1>\n<table>\n<tr><th>Name</th><th>Bytes</th><th>Modified</th></tr>\n";
    if (!isRoot)
        page += rowOf("../", "../", "", "");
    for (const Listing::Entry& entry : listing.entries) {
        const char* const slash = entry.isDirectory ? "/" : "";
        // A name with a colon would be a scheme otherwise.
        page += rowOf("./" + percentEncoded(entry.name, &isPlainInPath) + slash,
                      htmlText(entry.name) + slash,
                      entry.isDirectory ? std::string() : std::to_string(entry.bytes),
                      isoTime(entry.modifiedSeconds));
    }
    page += "</table>\n";
    if (listing.isCut)
        page += "<p>There are more names.</p>\n";
    return page + "</body>\n</html>\n";
}

std::string listingJson(const Listing& listing)
{
    std::string json = R"({"entries":[)";
    bool isFirst = true;
    for (const Listing::Entry& entry : listing.entries) {
        json += (std::exchange(isFirst, false) ? R"({"name":)" : R"(,{"name":)") +
                jsonText(entry.name) + R"(,"type":")" +
                (entry.isDirectory ? "directory\"" : "file\",\"size\":") +
                (entry.isDirectory ? std::string() : std::to_string(entry.bytes)) +
                R"(,"modified":")" + isoTime(entry.modifiedSeconds) + "\"}";
    }
    return json + "],\"complete\":" + (listing.isCut ? "false}" : "true}");
}

}  // namespace qv::kit

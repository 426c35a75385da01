// The names in a directory, as a page and as JSON.
#ifndef WENDREL_KIT_SRC_LISTING_H
#define WENDREL_KIT_SRC_LISTING_H

#include "FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qv::kit
{

struct Listing
{
    struct Entry
    {
        std::string name;
        bool isDirectory;
        uint64_t bytes;
        int64_t modifiedSeconds;  // since 1970
    };

    std::vector<Entry> entries;  // in order of their names
    bool isCut = false;          // at the limit
};

// Names of a directory that are looked at; more are not listed.
constexpr size_t kMaxListedNames = 10000;

// The regular files and directories in `directory` whose names are UTF-8 and `isServed` accepts.
// Symbolic links are opened by `open`. Throws std::system_error when it cannot be read.
Listing readListing(FileDescriptor&& directory,
                    const std::function<bool(const std::string& name)>& isServed,
                    const std::function<FileDescriptor(const std::string& name)>& open);

// `path`: of the directory, decoded.
std::string listingPage(const Listing& listing, const std::string& path, bool isRoot);

std::string listingJson(const Listing& listing);

}  // namespace qv::kit

#endif

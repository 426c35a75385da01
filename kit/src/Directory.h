// Files of a directory at the paths of a route.
#ifndef WENDREL_KIT_SRC_DIRECTORY_H
#define WENDREL_KIT_SRC_DIRECTORY_H

#include "FileDescriptor.h"

#include <Wendrel/kit/Files.h>
#include <Wendrel/kit/Request.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

// Constant: any number of threads serve requests at once.
class Directory
{
public:
    // Serves the path behind the first `prefixSegments` segments of the target. Throws
    // std::system_error when `path` is no directory.
    Directory(const std::string& path, const DirectoryOptions& options, size_t prefixSegments);

    void serve(Request& request) const;

private:
    struct Place;

    FileDescriptor openRoot() const;
    [[noreturn]] void failToServe() const;
    FileDescriptor openAt(const Place& place, const std::string& path) const;
    bool isServed(std::string_view name) const;
    bool resolve(const Request& request, Place& place) const;
    void serveDirectory(Request& request, const Place& place, FileDescriptor&& directory) const;
    bool serveIndex(Request& request, const Place& place) const;
    void serveFile(Request& request, const Place& place, FileDescriptor&& file) const;
    void serveListing(Request& request, const Place& place, FileDescriptor&& directory) const;

    const std::string mPath;  // absolute
    const DirectoryOptions mOptions;
    const size_t mPrefixSegments;
};

}  // namespace qv::kit

#endif

// A path becomes names, each checked; the system keeps them below the directory.

#include "Directory.h"

#include "Accept.h"
#include "Beneath.h"
#include "Exchange.h"
#include "FileResponse.h"
#include "Listing.h"
#include "Text.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr int kMovedPermanently = 301;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;

bool isRegular(const FileDescriptor& file)
{
    struct stat status
    {};
    return file.isOpen() && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
}

bool isDirectory(const FileDescriptor& file)
{
    struct stat status
    {};
    return file.isOpen() && fstat(file.get(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string join(const std::string& directory, const std::string& name)
{
    return directory.empty() ? name : directory + "/" + name;
}

// Relative to the target: a path that begins with two slashes would be another host.
std::string withSlash(const std::string& target)
{
    const size_t end = std::min(target.find('?'), target.size());
    const std::string path = target.substr(0, end);
    return "./" + path.substr(path.rfind('/') + 1) + "/" + target.substr(end);
}

bool wantsJson(std::string_view accept)
{
    bool isNamed = false;
    const int html = weightOfType(accept, "text/html", isNamed);
    return weightOfType(accept, "application/json", isNamed) > html && isNamed;
}

}  // namespace

// Below the directory.
struct Directory::Place
{
    int root;               // the directory itself
    std::string path;       // names joined by slashes
    bool hasSlash = false;  // at its end
};

Directory::Directory(const std::string& path, const DirectoryOptions& options,
                     size_t prefixSegments)
    : mPath(std::filesystem::absolute(path)), mOptions(options), mPrefixSegments(prefixSegments)
{
    if (!openRoot().isOpen())
        failToServe();
}

// For each request: the directory may be replaced by another one.
FileDescriptor Directory::openRoot() const
{
    return FileDescriptor(open(mPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

void Directory::failToServe() const
{
    throw std::system_error(errno, std::generic_category(), "cannot serve the directory " + mPath);
}

FileDescriptor Directory::openAt(const Place& place, const std::string& path) const
{
    return openBeneath(place.root, path, mOptions.links);
}

bool Directory::isServed(std::string_view name) const
{
    const auto isRefused = [](char c) { return c == '/' || c == '\\' || isControl(c); };
    if (name.empty() || name == "." || name == "..")
        return false;
    return (mOptions.hidden || name.front() != '.') &&
           std::none_of(name.begin(), name.end(), isRefused);
}

bool Directory::resolve(const Request& request, Place& place) const
{
    const std::vector<std::string>& names = request.mExchange->getUrl().pathSegments();
    place.hasSlash = names.empty();
    for (size_t at = mPrefixSegments; at < names.size(); ++at) {
        if (names[at].empty() && at + 1 == names.size()) {
            place.hasSlash = true;
            return true;
        }
        if (!isServed(names[at]))
            return false;
        place.path = join(place.path, names[at]);
    }
    return true;
}

void Directory::serve(Request& request) const
{
    const FileDescriptor root = openRoot();
    if (!root.isOpen()) {
        if (!isExhausted(errno))
            failToServe();
        respondFailure(*request.mExchange, std::move(request.mHead), mPath, errno);
        return;
    }
    Place place{root.get(), std::string()};
    if (!resolve(request, place)) {
        request.replyError(kNotFound);
        return;
    }
    FileDescriptor file = openAt(place, place.path);
    if (!file.isOpen() && errno == EACCES) {
        // The names in it are not to be known; its files may be.
        const FileDescriptor closed = openDirectoryBeneath(place.root, place.path, mOptions.links);
        errno = EACCES;
        if (closed.isOpen()) {
            serveDirectory(request, place, FileDescriptor());
            return;
        }
    }
    if (isDirectory(file))
        serveDirectory(request, place, std::move(file));
    else if (file.isOpen() && place.hasSlash)
        request.replyError(kNotFound);
    else
        serveFile(request, place, std::move(file));
}

// A directory that is not open must not be read.
void Directory::serveDirectory(Request& request, const Place& place,
                               FileDescriptor&& directory) const
{
    if (!place.hasSlash) {
        request.setHeader("Location", withSlash(request.target()));
        request.reply(kMovedPermanently);
    } else if (serveIndex(request, place)) {
        return;
    } else if (!mOptions.listing) {
        request.replyError(kNotFound);
    } else if (!directory.isOpen()) {
        request.replyError(kForbidden);
    } else {
        serveListing(request, place, std::move(directory));
    }
}

void Directory::serveFile(Request& request, const Place& place, FileDescriptor&& file) const
{
    const int error = errno;
    const std::string name = place.path.substr(place.path.rfind('/') + 1);
    FileOptions options;
    options.cacheControl = mOptions.cacheControl;
    options.tag = mOptions.tag;
    options.precompressed = mOptions.precompressed;
    const auto openSibling = [&](const char* extension) {
        return openAt(place, place.path + extension);
    };
    errno = error;
    respondFile(*request.mExchange, std::move(request.mHead), std::move(file), name, options,
                openSibling);
}

bool Directory::serveIndex(Request& request, const Place& place) const
{
    for (const std::string& name : mOptions.index) {
        const Place index{place.root, join(place.path, name)};
        FileDescriptor file = openAt(index, index.path);
        const bool isNone = file.isOpen() ? !isRegular(file) : isMissing(errno);
        if (isNone)
            continue;
        serveFile(request, index, std::move(file));
        return true;
    }
    return false;
}

void Directory::serveListing(Request& request, const Place& place, FileDescriptor&& directory) const
{
    const Listing listing = readListing(
        std::move(directory), [this](const std::string& name) { return isServed(name); },
        [&](const std::string& name) { return openAt(place, join(place.path, name)); });
    request.addHeader("Vary", "Accept");
    setCacheControl(request.mHead, mOptions.cacheControl);
    const std::string& accept = request.header("Accept");
    if (wantsJson(accept))
        request.reply(listingJson(listing), ContentType::json());
    else
        request.reply(listingPage(listing, request.path(), place.path.empty()),
                      ContentType::html());
}

}  // namespace qv::kit

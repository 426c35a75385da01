// The kernel keeps a path below its root; without its help each name is opened by itself.

#include "Beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::kit
{
namespace
{

// A pipe without a writer must not be waited for.
constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
constexpr int kDirectoryFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int kMaxLinks = 40;
constexpr int kMaxAttempts = 8;

FileDescriptor failed(int error)
{
    errno = error;
    return FileDescriptor();
}

class Walk
{
public:
    Walk(int root, const std::string& path, SymbolicLinks links, int flags)
        : mRoot(root), mLinks(links), mFlags(flags)
    {
        push(path);
    }

    FileDescriptor run()
    {
        while (!mRest.empty()) {
            const std::string name = std::move(mRest.back());
            mRest.pop_back();
            if (name.empty() || name == ".")
                continue;
            if (name == "..") {
                if (mDirectories.empty())
                    return failed(EXDEV);
                mDirectories.pop_back();
                continue;
            }
            FileDescriptor next(openat(current(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            struct stat status
            {};
            if (!next.isOpen() || fstat(next.get(), &status) != 0)
                return FileDescriptor();
            if (S_ISDIR(status.st_mode))
                mDirectories.push_back(std::move(next));
            else if (S_ISLNK(status.st_mode) && !follow(next))
                return FileDescriptor();
            else if (!S_ISLNK(status.st_mode))
                // It may have been replaced by a link since.
                return mRest.empty()
                           ? FileDescriptor(openat(current(), name.c_str(), mFlags | O_NOFOLLOW))
                           : failed(ENOTDIR);
        }
        return FileDescriptor(openat(current(), ".", mFlags));
    }

private:
    int current() const { return mDirectories.empty() ? mRoot : mDirectories.back().get(); }

    // The names of `path` come before all others.
    void push(std::string_view path)
    {
        while (!path.empty()) {
            const size_t slash = path.rfind('/');
            const size_t begin = slash == path.npos ? 0 : slash + 1;
            mRest.emplace_back(path.substr(begin));
            path = path.substr(0, slash == path.npos ? 0 : slash);
        }
    }

    bool follow(const FileDescriptor& link)
    {
        errno = ELOOP;
        if (mLinks == SymbolicLinks::Refuse || ++mFollowed > kMaxLinks)
            return false;
        std::array<char, PATH_MAX> target;
        const ssize_t size = readlinkat(link.get(), "", target.data(), target.size());
        if (size < 0)
            return false;
        const std::string_view path(target.data(), static_cast<size_t>(size));
        errno = EXDEV;
        if (path.empty() || path.front() == '/')
            return false;
        push(path);
        return true;
    }

    const int mRoot;
    const SymbolicLinks mLinks;
    const int mFlags;
    std::vector<FileDescriptor> mDirectories;  // from the root on
    std::vector<std::string> mRest;            // the next name is the last
    int mFollowed = 0;
};

FileDescriptor walkWith(int flags, int root, const std::string& path, SymbolicLinks links)
{
    if (path.size() >= PATH_MAX)
        return failed(ENAMETOOLONG);
    return Walk(root, path, links, flags).run();
}

FileDescriptor openWith(int flags, int root, const std::string& path, SymbolicLinks links)
{
    open_how how{};
    how.flags = static_cast<uint64_t>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    if (links == SymbolicLinks::Refuse)
        how.resolve |= RESOLVE_NO_SYMLINKS;
    const char* const name = path.empty() ? "." : path.c_str();
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        FileDescriptor file(static_cast<int>(syscall(SYS_openat2, root, name, &how, sizeof how)));
        if (file.isOpen())
            return file;
        // A directory on the way has been renamed meanwhile.
        if (errno == EAGAIN || errno == EINTR)
            continue;
        // An old kernel, or a filter of system calls.
        if (errno == ENOSYS || errno == EPERM)
            break;
        return file;
    }
    return walkWith(flags, root, path, links);
}

}  // namespace

FileDescriptor openBeneath(int root, const std::string& path, SymbolicLinks links)
{
    return openWith(kReadFlags, root, path, links);
}

FileDescriptor openDirectoryBeneath(int root, const std::string& path, SymbolicLinks links)
{
    return openWith(kDirectoryFlags, root, path, links);
}

FileDescriptor walkBeneath(int root, const std::string& path, SymbolicLinks links)
{
    return walkWith(kReadFlags, root, path, links);
}

}  // namespace qv::kit

// All that touches the disk. A file appears under its name only when it is complete and on
// the disk; before that it has a temporary name in the same directory.

#include "FileStore.h"

#include "FileName.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace filedrop
{

namespace
{

constexpr mode_t kFileMode = 0666;  // reduced by the umask of the process
constexpr uint64_t kWriteOutBytes = 8u << 20;

std::string errorText(int error)
{
    char buffer[256];
    return strerror_r(error, buffer, sizeof buffer);
}

StoreResult resultOfErrno()
{
    switch (errno) {
    case ENOENT:
    case ELOOP:  // a symbolic link
    case ENXIO:  // a socket
        return StoreResult::NotFound;
    case ENAMETOOLONG:
        return StoreResult::NameTooLong;
    case EISDIR:
    case ENOTDIR:
    case ENOTEMPTY:
        return StoreResult::NameTaken;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return StoreResult::NoSpace;
    default:
        return StoreResult::Failed;
    }
}

FileInfo infoOf(const std::string& name, const struct stat& status)
{
    FileInfo info;
    info.name = name;
    info.size = static_cast<uint64_t>(status.st_size);
    info.modifiedSeconds = status.st_mtim.tv_sec;
    info.modifiedNanoseconds = status.st_mtim.tv_nsec;
    return info;
}

// Calls `visit` with each name in the directory. The descriptor's own position is not used,
// so that threads can do this at once.
bool forEachName(int directory, const std::function<void(const std::string&)>& visit)
{
    const int fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    DIR* stream = fdopendir(fd);
    if (stream == nullptr) {
        ::close(fd);
        return false;
    }
    errno = 0;
    while (const dirent* entry = readdir(stream)) {
        visit(entry->d_name);
        errno = 0;
    }
    const int error = errno;
    closedir(stream);
    errno = error;
    return error == 0;
}

bool isRegularFile(int directory, const std::string& name, struct stat& status)
{
    return fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode);
}

std::string randomTemporaryName()
{
    unsigned char bytes[12];
    if (getentropy(bytes, sizeof bytes) != 0)
        return {};
    std::string name = kTemporaryPrefix;
    for (const unsigned char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        name += digits;
    }
    return name;
}

}  // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept
{
    if (this != &other) {
        close();
        mFd = other.release();
    }
    return *this;
}

int Descriptor::release()
{
    return std::exchange(mFd, -1);
}

bool Descriptor::close()
{
    const int fd = release();
    return fd < 0 || ::close(fd) == 0;
}

Upload::Upload(const FileStore& store, Descriptor fd, std::string temporaryName)
    : mStore(store), mFd(std::move(fd)), mTemporaryName(std::move(temporaryName))
{}

Upload::~Upload()
{
    if (!mNamed)
        unlinkat(mStore.mDirectory.get(), mTemporaryName.c_str(), 0);
}

StoreResult Upload::write(const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(mFd.get(), data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return resultOfErrno();
        data += written;
        size -= static_cast<size_t>(written);
        mSize += static_cast<uint64_t>(written);
    }
    // The disk is kept busy from the start; otherwise all of a large file would be waited
    // for at its end. This only begins the writing, so that its result does not matter.
    if (mSize - mWriteOutFrom >= kWriteOutBytes) {
        sync_file_range(mFd.get(), static_cast<off_t>(mWriteOutFrom),
                        static_cast<off_t>(mSize - mWriteOutFrom), SYNC_FILE_RANGE_WRITE);
        mWriteOutFrom = mSize;
    }
    return StoreResult::Done;
}

StoreResult Upload::commit(const std::string& name)
{
    if (fsync(mFd.get()) != 0 || !mFd.close())
        return resultOfErrno();
    const StoreResult result = mStore.rename(mTemporaryName, name);
    mNamed = result == StoreResult::Done || result == StoreResult::Replaced;
    return result;
}

FileStore::FileStore(Descriptor directory) : mDirectory(std::move(directory)) {}

std::unique_ptr<FileStore> FileStore::open(const std::string& path, std::string& error)
{
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.isOpen()) {
        error = "cannot open directory '" + path + "': " + errorText(errno);
        return nullptr;
    }
    // A file system without locks is served all the same.
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        error = "directory '" + path + "' is served by another filedrop";
        return nullptr;
    }
    std::unique_ptr<FileStore> store(new FileStore(std::move(fd)));
    if (!store->removeLeftovers()) {
        error = "cannot read directory '" + path + "': " + errorText(errno);
        return nullptr;
    }
    if (!store->beginUpload()) {
        error = "cannot write to directory '" + path + "': " + errorText(errno);
        return nullptr;
    }
    return store;
}

bool FileStore::removeLeftovers()
{
    std::vector<std::string> leftovers;
    const bool read = forEachName(mDirectory.get(), [&](const std::string& name) {
        if (isTemporaryName(name))
            leftovers.push_back(name);
    });
    for (const std::string& name : leftovers) {
        if (unlinkat(mDirectory.get(), name.c_str(), 0) == 0)
            ++mRemovedLeftovers;
    }
    return read;
}

bool FileStore::list(std::vector<FileInfo>& files) const
{
    files.clear();
    const bool read = forEachName(mDirectory.get(), [&](const std::string& name) {
        struct stat status;
        if (refusalOfName(name).empty() && isRegularFile(mDirectory.get(), name, status))
            files.push_back(infoOf(name, status));
    });
    const int error = errno;
    std::sort(files.begin(), files.end(),
              [](const FileInfo& a, const FileInfo& b) { return a.name < b.name; });
    errno = error;
    return read;
}

StoreResult FileStore::openFile(const std::string& name, Descriptor& fd, FileInfo& info) const
{
    // Without O_NONBLOCK, opening a pipe would wait for someone to write into it.
    Descriptor opened(openat(mDirectory.get(), name.c_str(),
                             O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!opened.isOpen())
        return resultOfErrno();
    struct stat status;
    if (fstat(opened.get(), &status) != 0)
        return StoreResult::Failed;
    if (!S_ISREG(status.st_mode))
        return StoreResult::NotFound;
    posix_fadvise(opened.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    info = infoOf(name, status);
    fd = std::move(opened);
    return StoreResult::Done;
}

StoreResult FileStore::remove(const std::string& name) const
{
    struct stat status;
    if (fstatat(mDirectory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return resultOfErrno();
    if (!S_ISREG(status.st_mode))
        return StoreResult::NotFound;
    return unlinkat(mDirectory.get(), name.c_str(), 0) == 0 ? StoreResult::Done : resultOfErrno();
}

std::unique_ptr<Upload> FileStore::beginUpload() const
{
    std::string name = randomTemporaryName();
    if (name.empty())
        return nullptr;
    Descriptor fd(openat(mDirectory.get(), name.c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!fd.isOpen())
        return nullptr;
    return std::unique_ptr<Upload>(new Upload(*this, std::move(fd), std::move(name)));
}

StoreResult FileStore::rename(const std::string& from, const std::string& to) const
{
    const int directory = mDirectory.get();
    StoreResult result = StoreResult::Done;
    if (renameat2(directory, from.c_str(), directory, to.c_str(), RENAME_NOREPLACE) != 0) {
        // EINVAL: a file system that cannot do this; then looking first has to be enough.
        if (errno != EEXIST && errno != EINVAL)
            return resultOfErrno();
        struct stat status;
        const bool exists = fstatat(directory, to.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        if (exists && !S_ISREG(status.st_mode))
            return StoreResult::NameTaken;
        if (renameat(directory, from.c_str(), directory, to.c_str()) != 0)
            return resultOfErrno();
        result = exists ? StoreResult::Replaced : StoreResult::Done;
    }
    fsync(directory);
    return result;
}

}  // namespace filedrop

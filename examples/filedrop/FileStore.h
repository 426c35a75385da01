/// The directory that is served.
#ifndef FILEDROP_FILESTORE_H
#define FILEDROP_FILESTORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace filedrop
{

/// A file descriptor that is closed with its owner.
class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : mFd(fd) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : mFd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;

    int get() const { return mFd; }
    bool isOpen() const { return mFd >= 0; }
    int release();

    /// False, with errno, when the system reports a late error.
    bool close();

private:
    int mFd;
};

/// The properties of one file.
struct FileInfo
{
    std::string name;
    uint64_t size = 0;
    int64_t modifiedSeconds = 0;  ///< since 1970
    int64_t modifiedNanoseconds = 0;
};

/// The result of an operation on the directory.
enum class StoreResult {
    Done,       ///< and, for an upload, the name was new
    Replaced,   ///< an upload took the place of an older file
    NotFound,   ///< there is no regular file of this name
    NameTaken,  ///< by something that is not a regular file
    NameTooLong,
    NoSpace,  ///< disk full, quota used up, or larger than the file system takes
    Failed
};

class FileStore;

/// A file on its way in. Until `commit` it has a name of its own that no client can use; an
/// upload that is destroyed before leaves nothing behind. Used by one thread.
class Upload
{
public:
    ~Upload();
    Upload(const Upload&) = delete;
    Upload& operator=(const Upload&) = delete;

    /// Appends `size` bytes. Done, NoSpace or Failed, the last two with errno.
    StoreResult write(const char* data, size_t size);

    /// Brings the bytes to the disk and gives the file its name, in one step. `name` must
    /// have passed `refusalOfName`.
    StoreResult commit(const std::string& name);

    uint64_t size() const { return mSize; }

private:
    friend class FileStore;

    Upload(const FileStore& store, Descriptor fd, std::string temporaryName);

    const FileStore& mStore;
    Descriptor mFd;
    std::string mTemporaryName;
    uint64_t mSize = 0;
    uint64_t mWriteOutFrom = 0;
    bool mNamed = false;
};

/// One directory, held open: everything is done relative to its descriptor, and no symbolic
/// link in it is followed. Any thread.
class FileStore
{
public:
    /// Opens the directory at `path`, locks it for this process, and removes the remains of uploads
    /// of a crashed process. On failure returns null and sets `error` to one line with the reason.
    static std::unique_ptr<FileStore> open(const std::string& path, std::string& error);

    /// The regular files that a client can name, sorted by name. False, with errno, when
    /// the directory cannot be read.
    bool list(std::vector<FileInfo>& files) const;

    /// Opens a regular file for reading. Done, NotFound, NameTooLong, or Failed with errno.
    StoreResult openFile(const std::string& name, Descriptor& fd, FileInfo& info) const;

    /// Done, NotFound, NameTooLong, or Failed with errno.
    StoreResult remove(const std::string& name) const;

    /// Begins an upload; null, with errno, when no file can be made.
    std::unique_ptr<Upload> beginUpload() const;

    /// How many leftovers `open` removed.
    unsigned int removedLeftovers() const { return mRemovedLeftovers; }

private:
    friend class Upload;

    explicit FileStore(Descriptor directory);

    StoreResult rename(const std::string& from, const std::string& to) const;
    bool removeLeftovers();

    Descriptor mDirectory;
    unsigned int mRemovedLeftovers = 0;
};

}  // namespace filedrop

#endif

// A descriptor that is closed with its owner.
#ifndef WENDREL_KIT_SRC_FILEDESCRIPTOR_H
#define WENDREL_KIT_SRC_FILEDESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qv::kit
{

class FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) : mNumber(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept : mNumber(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(mNumber, other.mNumber);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    // `errno` stays that of the operation before.
    ~FileDescriptor()
    {
        const int error = errno;
        if (isOpen())
            close(mNumber);
        errno = error;
    }

    int get() const { return mNumber; }
    bool isOpen() const { return mNumber >= 0; }
    int release() { return std::exchange(mNumber, -1); }

private:
    int mNumber = -1;
};

}  // namespace qv::kit

#endif

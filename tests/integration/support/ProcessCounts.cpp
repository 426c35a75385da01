// Counts of this process, read from /proc.

#include "ProcessCounts.h"

#include "Waiting.h"

#include <dirent.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace integration
{
namespace
{

size_t countEntries(const char* folder)
{
    size_t count = 0;
    DIR* opened = ::opendir(folder);
    while (::readdir(opened))
        ++count;
    ::closedir(opened);
    return count;
}

}  // namespace

size_t countDescriptors()
{
    return countEntries("/proc/self/fd");
}

// The first thread of a process brings a sanitizer's own with it: one has been there before, and
// has left the list, which it does a little later than join() returns.
size_t countThreads()
{
    static const bool hadThread = [] {
        pid_t number = 0;
        std::thread([&] { number = ::gettid(); }).join();
        const std::string entry = "/proc/self/task/" + std::to_string(number);
        return waitUntil([&] { return ::access(entry.c_str(), F_OK) != 0; });
    }();
    return hadThread ? countEntries("/proc/self/task") : 0;
}

}  // namespace integration

// The access log: lines are collected under a mutex, and written by one thread without it.

#include "AccessWriter.h"

#include "AccessText.h"
#include "KitLog.h"

#include <qvSystem/SystemError.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr const char* kName = "access log";

// Neither a FIFO without a reader nor one that is full holds the thread.
constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr mode_t kMode = 0640;

// Lines of this time are written together when requests follow one another.
constexpr unsigned long kBatchIntervalMs = 20;

// Lines of so many bytes do not wait for its end.
constexpr size_t kMaxBatchBytes = 262144;

uint64_t countLines(std::string_view lines)
{
    return static_cast<uint64_t>(std::count(lines.begin(), lines.end(), '\n'));
}

}  // namespace

AccessWriter::AccessWriter(std::string path, AccessLog format)
    : mPath(std::move(path)), mFormat(format)
{}

AccessWriter::AccessWriter(Sink sink, AccessLog format) : mSink(std::move(sink)), mFormat(format) {}

AccessWriter::~AccessWriter()
{
    stop();
}

std::string AccessWriter::start()
{
    std::string why;
    if (!mSink && !openFile(why))
        return why;
    {
        const qvMutexLocker locker(&mMutex);
        mIsStopping = false;
    }
    mThread = std::thread(&AccessWriter::run, this);
    return std::string();
}

void AccessWriter::stop()
{
    {
        const qvMutexLocker locker(&mMutex);
        mIsStopping = true;
    }
    mQueued.wakeAll();
    if (mThread.joinable())
        mThread.join();
    closeFile();
}

void AccessWriter::write(const CompletedRequest& request) noexcept
{
    try {
        // Keeps its memory from line to line.
        static thread_local std::string line;
        line.clear();
        if (line.capacity() > kMaxBatchBytes)
            line.shrink_to_fit();
        appendAccessLine(line, request, mFormat, std::chrono::system_clock::now());
        line += '\n';
        if (enqueue(line))
            return;
    } catch (...) {
        // No memory: the line is lost.
    }
    ++mLost;
}

// False when the queue is full.
bool AccessWriter::enqueue(std::string_view line)
{
    bool wakes = false;
    {
        const qvMutexLocker locker(&mMutex);
        const size_t before = mQueue.size();
        if (before + line.size() > kMaxQueueBytes)
            return false;
        mQueue += line;
        wakes = std::exchange(mIsAwaited, false) ||
                (before < kMaxBatchBytes && mQueue.size() >= kMaxBatchBytes);
    }
    if (wakes)
        mQueued.wakeOne();
    return true;
}

void AccessWriter::reopen()
{
    {
        const qvMutexLocker locker(&mMutex);
        mIsReopening = true;
    }
    mQueued.wakeOne();
}

void AccessWriter::run()
{
    // A pipe whose reader has left is an error of the write, not the end of the process.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    std::string lines;
    while (takeLines(lines)) {
    }
}

// Writes the next lines; false after the last ones. The memory of both texts is used again.
bool AccessWriter::takeLines(std::string& lines)
{
    const bool follows = !lines.empty();
    lines.clear();
    if (lines.capacity() > kMaxBatchBytes)
        lines.shrink_to_fit();
    bool isReopening = false;
    bool isStopping = false;
    {
        const qvMutexLocker locker(&mMutex);
        if (follows && !mIsStopping && !mIsReopening && mQueue.size() < kMaxBatchBytes)
            mQueued.wait(&mMutex, kBatchIntervalMs);
        while (mQueue.empty() && !mIsStopping && !mIsReopening) {
            mIsAwaited = true;
            mQueued.wait(&mMutex, qvWaitCondition::kNoTimeout);
        }
        mIsAwaited = false;
        lines.swap(mQueue);
        isReopening = std::exchange(mIsReopening, false);
        isStopping = mIsStopping;
    }
    if (isReopening && !mSink)
        reopenFile();
    writeLines(lines);
    tellLost();
    return !isStopping;
}

bool AccessWriter::openFile(std::string& why)
{
    const int file = open(mPath.c_str(), kFlags, kMode);
    if (file < 0) {
        why = "cannot write the access log " + mPath + ": " + SystemError(errno).toString();
        return false;
    }
    closeFile();
    mFile = file;
    mIsTorn = false;
    return true;
}

void AccessWriter::closeFile()
{
    if (mFile >= 0)
        close(std::exchange(mFile, -1));
}

// Lines go to the old file until the new one can be opened.
void AccessWriter::reopenFile() noexcept
{
    try {
        std::string why;
        if (!openFile(why))
            LogOfRoute(kName, why);
    } catch (...) {
        // No memory for the reason.
    }
}

void AccessWriter::writeLines(std::string_view lines) noexcept
{
    if (lines.empty())
        return;
    if (mSink)
        giveToSink(lines);
    else
        writeToFile(lines);
}

void AccessWriter::giveToSink(std::string_view lines) noexcept
{
    while (!lines.empty()) {
        const size_t end = lines.find('\n');
        try {
            mSink(lines.substr(0, end));
        } catch (...) {
            ++mLost;
        }
        lines.remove_prefix(end + 1);
    }
}

// Lines that cannot be written are lost.
void AccessWriter::writeToFile(std::string_view lines) noexcept
{
    if (mIsTorn && ::write(mFile, "\n", 1) != 1) {
        mLost += countLines(lines);
        return;
    }
    mIsTorn = false;
    while (!lines.empty()) {
        const ssize_t written = ::write(mFile, lines.data(), lines.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            mLost += countLines(lines);
            return;
        }
        mIsTorn = lines[static_cast<size_t>(written) - 1] != '\n';
        lines.remove_prefix(static_cast<size_t>(written));
    }
}

void AccessWriter::tellLost() noexcept
{
    const uint64_t lost = mLost;
    if (lost == mToldLost)
        return;
    try {
        LogOfRoute(kName, std::to_string(lost - mToldLost), " lines are lost");
    } catch (...) {
        // No memory for the line.
    }
    mToldLost = lost;
}

}  // namespace qv::kit

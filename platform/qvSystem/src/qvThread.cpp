// A thread that can be started again.

#include <qvSystem/qvThread.h>

#include <qvSystem/Rollback.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <new>

namespace qv
{
namespace
{

constexpr size_t kMaxNameBytes = 15;

// Limit of waits, so that their end can be computed.
constexpr unsigned long kMaxTimeoutMs = 1000UL * 3600 * 24 * 365;

void setNameOfCallingThread(const std::string& name)
{
    if (!name.empty())
        pthread_setname_np(pthread_self(), name.substr(0, kMaxNameBytes).c_str());
}

}  // namespace

qvThread::qvThread() = default;

qvThread::~qvThread()
{
    if (mThread.joinable())
        mThread.join();
}

bool qvThread::startThread(const char* name)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mRunning)
        return false;
    if (mThread.joinable())
        mThread.join();
    // Set before there is a thread: it may end before this returns.
    mRunning = true;
    Rollback started([this] { mRunning = false; });
    mThread = std::thread([this, ownName = std::string(name ? name : "")] {
        setNameOfCallingThread(ownName);
        runAndReport();
    });
    started.commit();
    ++mRunNumber;
    return true;
}

void qvThread::runAndReport()
{
    run();
    std::lock_guard<std::mutex> lock(mMutex);
    mRunning = false;
    mEnded.notify_all();
}

bool qvThread::waitThread(unsigned long timeoutMs)
{
    return waitThread(timeoutMs, getRunNumber());
}

bool qvThread::waitThread(unsigned long timeoutMs, uint32_t run)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (mRunNumber == run && mThread.get_id() == std::this_thread::get_id())
        return false;
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(std::min(timeoutMs, kMaxTimeoutMs));
    return mEnded.wait_until(lock, end, [&] { return !mRunning || mRunNumber != run; });
}

uint32_t qvThread::getRunNumber() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mRunNumber;
}

void qvThread::msleep(unsigned long ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min(ms, kMaxTimeoutMs)));
}

const std::string& qvThread::CurrentThreadId()
{
    // Never destroyed: the C library ends the process when it has no memory to note a destructor.
    // The text needs none of its own.
    alignas(std::string) thread_local char place[sizeof(std::string)];
    thread_local const std::string* id = nullptr;
    if (!id)
        id = new (place) std::string(std::to_string(gettid()));
    return *id;
}

}  // namespace qv

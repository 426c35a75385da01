// The threads that drive upgraded connections.

#include "bare/EchoLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace bench
{
namespace
{

constexpr int kNoTimeout = -1;

}  // namespace

EchoLoop::EchoLoop(unsigned workers) : mWakeUp(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    mPolled.push_back({mWakeUp, POLLIN, 0});
    for (unsigned i = 0; i < workers; ++i)
        mWorkers.emplace_back(&EchoLoop::work, this);
    mPollThread = std::thread(&EchoLoop::poll, this);
}

EchoLoop::~EchoLoop()
{
    stop();
    ::close(mWakeUp);
}

void EchoLoop::add(int socket, MHD_UpgradeResponseHandle* handle)
{
    giveBack(std::make_unique<EchoConnection>(socket, handle));
}

// A connection that comes too late is closed by its destructor.
void EchoLoop::giveBack(Connection connection)
{
    bool wake = false;
    {
        const std::lock_guard locker(mBackMutex);
        if (mStopping)
            return;
        mBack.push_back(std::move(connection));
        wake = !std::exchange(mWoken, true);
    }
    if (wake)
        eventfd_write(mWakeUp, 1);
}

void EchoLoop::stop()
{
    {
        const std::lock_guard locker(mBackMutex);
        mStopping = true;
    }
    eventfd_write(mWakeUp, 1);
    if (mPollThread.joinable())
        mPollThread.join();
    {
        const std::lock_guard locker(mReadyMutex);
        mWorkersEnd = true;
    }
    mReadyArrived.notify_all();
    for (std::thread& worker : mWorkers)
        worker.join();
    mWorkers.clear();
    mReady.clear();
    mIdle.clear();
    mBack.clear();
}

void EchoLoop::poll()
{
    while (collect()) {
        if (::poll(mPolled.data(), mPolled.size(), kNoTimeout) <= 0)
            continue;
        if (mPolled.front().revents != 0) {
            eventfd_t count = 0;
            eventfd_read(mWakeUp, &count);
        }
        handOverReady();
    }
}

// Moves returned connections to the idle ones; false when the loop stops.
bool EchoLoop::collect()
{
    const std::lock_guard locker(mBackMutex);
    for (Connection& connection : mBack) {
        mPolled.push_back({connection->getSocket(), connection->getEvents(), 0});
        mIdle.push_back(std::move(connection));
    }
    mBack.clear();
    mWoken = false;
    return !mStopping;
}

void EchoLoop::handOverReady()
{
    size_t handed = 0;
    {
        const std::lock_guard locker(mReadyMutex);
        for (size_t i = 0; i < mIdle.size();) {
            if (mPolled[i + 1].revents == 0) {
                ++i;
                continue;
            }
            mReady.push_back(std::move(mIdle[i]));
            mIdle[i] = std::move(mIdle.back());
            mIdle.pop_back();
            mPolled[i + 1] = mPolled.back();
            mPolled.pop_back();
            ++handed;
        }
    }
    for (; handed > 0; --handed)
        mReadyArrived.notify_one();
}

// Waits for the next one; none when the loop stops.
EchoLoop::Connection EchoLoop::takeReady()
{
    std::unique_lock locker(mReadyMutex);
    mReadyArrived.wait(locker, [this] { return mWorkersEnd || !mReady.empty(); });
    if (mWorkersEnd)
        return nullptr;
    Connection connection = std::move(mReady.front());
    mReady.pop_front();
    return connection;
}

void EchoLoop::work()
{
    while (Connection connection = takeReady()) {
        if (connection->serve())
            giveBack(std::move(connection));
    }
}

}  // namespace bench

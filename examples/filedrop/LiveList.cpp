// The list of files, pushed to the pages that have opened a WebSocket.

#include "LiveList.h"

#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

namespace filedrop
{

namespace
{

constexpr std::chrono::seconds kLookPeriod(2);

qv::kit::WebSocketHub::Options hubOptions()
{
    qv::kit::WebSocketHub::Options options;
    options.workers = 2;
    return options;
}

}  // namespace

// A page that listens; it has nothing to say.
class LiveList::Connection : public qv::kit::HubConnection
{
public:
    explicit Connection(qv::http::WebSocket&& upgraded) : HubConnection(std::move(upgraded)) {}

    void onMessageReceived(std::vector<uint8_t>&, bool) override {}

    uint64_t number = 0;  // of the list it has; used by the pushing thread alone
};

LiveList::LiveList(Source source)
    : mSource(std::move(source)), mHub(hubOptions()), mThread(&LiveList::push, this)
{}

LiveList::~LiveList()
{
    close();
}

void LiveList::add(qv::http::WebSocket* upgraded)
{
    mHub.adopt<Connection>(upgraded);
    listChanged();
}

void LiveList::listChanged()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mStale = true;
    mChanged.notify_all();
}

void LiveList::close()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mClosed)
            return;
        mClosed = true;
        mChanged.notify_all();
    }
    mThread.join();
    mHub.close(std::chrono::milliseconds(0));
}

void LiveList::push()
{
    std::unique_lock<std::mutex> lock(mMutex);
    const auto isDue = [this] { return mStale || mClosed; };
    while (!mClosed) {
        mStale = false;
        lock.unlock();
        const bool anyone = mHub.getCount() > 0;
        if (anyone) {
            if (const auto text = mSource())
                send(*text);
        }
        lock.lock();
        if (anyone)
            mChanged.wait_for(lock, kLookPeriod, isDue);
        else
            mChanged.wait(lock, isDue);
    }
}

void LiveList::send(const std::string& text)
{
    if (mNumber == 0 || text != mSent) {
        mSent = text;
        ++mNumber;
    }
    mHub.forEach([this](qv::kit::HubConnection& each) {
        auto& connection = static_cast<Connection&>(each);
        if (connection.number == mNumber)
            return;
        connection.number = mNumber;
        connection.sendText(mSent);
    });
}

}  // namespace filedrop

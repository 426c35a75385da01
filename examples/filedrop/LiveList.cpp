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

constexpr unsigned long kPollIntervalMs = 2000;

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
    const qv::qvMutexLocker locker(&mMutex);
    mStale = true;
    mChanged.wakeAll();
}

void LiveList::close()
{
    {
        const qv::qvMutexLocker locker(&mMutex);
        if (mClosed)
            return;
        mClosed = true;
        mChanged.wakeAll();
    }
    mThread.join();
    mHub.close(std::chrono::milliseconds(0));
}

void LiveList::push()
{
    bool anyone = false;
    while (waitUntilDue(anyone)) {
        anyone = mHub.getCount() > 0;
        if (!anyone)
            continue;
        if (const auto text = mSource())
            send(*text);
    }
}

// While anyone listens, the directory is looked at now and then: others may change it. False when
// the list has been closed.
bool LiveList::waitUntilDue(bool anyone)
{
    const qv::qvMutexLocker locker(&mMutex);
    // A wake-up without reason costs one look at the directory.
    if (!mStale && !mClosed && anyone)
        mChanged.wait(&mMutex, kPollIntervalMs);
    while (!mStale && !mClosed && !anyone)
        mChanged.wait(&mMutex, qv::qvWaitCondition::kNoTimeout);
    mStale = false;
    return !mClosed;
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

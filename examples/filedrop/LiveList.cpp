// The list of files, pushed to the pages that listen.

#include "LiveList.h"

#include <cstddef>
#include <new>
#include <string_view>
#include <utility>

namespace filedrop
{

namespace
{

using qv::kit::websocket::PreparedMessage;
using qv::kit::websocket::QueuePolicy;
using qv::kit::websocket::SendResult;
using qv::kit::websocket::Session;
using qv::kit::websocket::SessionHandler;
using qv::kit::websocket::WebSocketOptions;

constexpr unsigned long kPollIntervalMs = 2000;
constexpr size_t kMaxMessageBytes = 1024;  // pages send nothing

}  // namespace

// A page.
class LiveList::Listener : public SessionHandler
{
public:
    explicit Listener(LiveList& list) : mList(list) {}

    void onOpen(const std::shared_ptr<Session>& session) override
    {
        mSession = session;
        mList.add(*this);
    }

    void onDrained(Session&) override { mList.listChanged(); }

    void onClose(Session&, uint16_t, std::string_view, bool) override
    {
        mList.remove(*this);
        mSession.reset();
    }

    // Under the mutex of the list. A page that has not received the previous list yet gets the
    // newest one afterwards.
    void update(const PreparedMessage& message, uint64_t number)
    {
        if (mNumber == number || mSession->send(message) != SendResult::Queued)
            return;
        mNumber = number;
        mList.mCounter += message.payload().size();
    }

private:
    LiveList& mList;
    std::shared_ptr<Session> mSession;  // from onOpen to onClose
    uint64_t mNumber = 0;               // of the list it has
};

LiveList::LiveList(Source source, std::atomic<uint64_t>& counter)
    : mSource(std::move(source)), mCounter(counter), mThread(&LiveList::push, this)
{}

LiveList::~LiveList()
{
    {
        const qv::qvMutexLocker locker(&mMutex);
        mEnds = true;
    }
    mChanged.wakeAll();
    mThread.join();
}

WebSocketOptions LiveList::options()
{
    WebSocketOptions options;
    options.maxMessageBytes = kMaxMessageBytes;
    options.sendQueueBytes = 1;  // a list of any size, and no second one
    options.queuePolicy = QueuePolicy::Refuse;
    return options;
}

std::shared_ptr<SessionHandler> LiveList::listen()
{
    return std::make_shared<Listener>(*this);
}

void LiveList::add(Listener& listener)
{
    {
        const qv::qvMutexLocker locker(&mMutex);
        mListeners.insert(&listener);
        mStale = true;
    }
    mChanged.wakeAll();
}

void LiveList::remove(Listener& listener)
{
    const qv::qvMutexLocker locker(&mMutex);
    mListeners.erase(&listener);
}

void LiveList::listChanged()
{
    {
        const qv::qvMutexLocker locker(&mMutex);
        mStale = true;
    }
    mChanged.wakeAll();
}

size_t LiveList::listenerCount() const
{
    const qv::qvMutexLocker locker(&mMutex);
    return mListeners.size();
}

void LiveList::push()
{
    while (waitUntilDue()) {
        try {
            update();
            sendToAll();
        } catch (const std::bad_alloc&) {
            // The next look sends the list to the pages that do not have it.
        }
    }
}

// While anybody listens, the directory is looked at now and then: others may change it. False at
// the end.
bool LiveList::waitUntilDue()
{
    const qv::qvMutexLocker locker(&mMutex);
    // A wake-up without reason costs one look at the directory.
    if (!mStale && !mEnds && !mListeners.empty())
        mChanged.wait(&mMutex, kPollIntervalMs);
    while (!mEnds && mListeners.empty())
        mChanged.wait(&mMutex, qv::qvWaitCondition::kNoTimeout);
    mStale = false;
    return !mEnds;
}

void LiveList::update()
{
    std::optional<std::string> text = mSource();
    if (!text || (mMessage && *text == mText))
        return;
    mMessage = PreparedMessage::text(*text);
    mText = std::move(*text);
    ++mNumber;
}

void LiveList::sendToAll()
{
    if (!mMessage)
        return;
    const qv::qvMutexLocker locker(&mMutex);
    for (Listener* const listener : mListeners)
        listener->update(*mMessage, mNumber);
}

}  // namespace filedrop

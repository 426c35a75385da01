// Topics of server-sent events. A topic is shared with the callbacks of its streams, which may end
// on other threads.

#include <Wendrel/kit/EventStream.h>

#include "EventText.h"

#include <qvSystem/ForkSafety.h>
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <map>
#include <new>
#include <thread>
#include <utility>

namespace qv::kit
{
namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kUnavailable = 503;
constexpr const char* kRetryAfterSeconds = "1";
constexpr std::string_view kComment = ":\n\n";
constexpr milliseconds kMaxHeartbeat = std::chrono::hours(24 * 365);  // times stay in their range

// Differs from that of an earlier process.
std::string makeEpoch()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

EventStreamOptions limited(EventStreamOptions options)
{
    options.heartbeat = std::min(options.heartbeat, kMaxHeartbeat);
    return options;
}

}  // namespace

class EventStream::Topic : public std::enable_shared_from_this<Topic>
{
public:
    explicit Topic(const EventStreamOptions& options)
        : mOptions(limited(options)), mEpoch(makeEpoch())
    {}

    void subscribe(DeferredStream stream, const std::string& lastId);
    void publish(std::string_view event, std::string_view data, std::string_view id);
    void close();
    size_t subscribers() const;
    bool isClosed() const;
    size_t queueBytes() const { return mOptions.queueBytes; }
    std::chrono::milliseconds heartbeat() const { return mOptions.heartbeat; }

    // Sends a comment when it is due. The time of the next one.
    Clock::time_point beat() noexcept;

private:
    using Streams = std::map<uint64_t, DeferredStream>;

    struct Event
    {
        std::string id;
        std::string text;
    };

    bool appendReplay(const std::string& lastId, std::string& text) const QV_REQUIRES(mMutex);
    void forgetOld() QV_REQUIRES(mMutex);
    Streams send(std::string_view text, bool isEvent) noexcept QV_REQUIRES(mMutex);
    static void finish(Streams& streams);
    void remove(uint64_t key);

    const EventStreamOptions mOptions;
    const std::string mEpoch;
    mutable qvMutex mMutex;
    Streams mStreams QV_GUARDED_BY(mMutex);
    std::deque<Event> mHistory QV_GUARDED_BY(mMutex);
    size_t mHistoryBytes QV_GUARDED_BY(mMutex) = 0;
    uint64_t mLastKey QV_GUARDED_BY(mMutex) = 0;
    uint64_t mLastNumber QV_GUARDED_BY(mMutex) = 0;
    Clock::time_point mLastSent QV_GUARDED_BY(mMutex) = Clock::now();
    bool mIsClosed QV_GUARDED_BY(mMutex) = false;
};

// The thread of all heartbeats of the process, while there is a topic.
class EventStream::Heart
{
public:
    static std::shared_ptr<Heart> get();

    Heart() : mThread([beats = mBeats] { beats->run(); }) {}

    // The last event stream may be destroyed by the thread itself, which ends a stream whose
    // objects hold it.
    ~Heart()
    {
        // A child process has no such thread, and its mutex may be held.
        if (isOfParent()) {
            mThread.detach();
            return;
        }
        mBeats->stop();
        if (mThread.get_id() == std::this_thread::get_id())
            mThread.detach();
        else
            mThread.join();
    }

    Heart(const Heart&) = delete;
    Heart& operator=(const Heart&) = delete;

    void add(const std::shared_ptr<Topic>& topic, Clock::time_point when)
    {
        mBeats->add(topic, when);
    }

private:
    struct Shared
    {
        qvMutex mutex;
        std::weak_ptr<Heart> heart QV_GUARDED_BY(mutex);
    };

    static Shared& shared();
    static void lockForFork() QV_NO_THREAD_SAFETY_ANALYSIS { shared().mutex.lock(); }
    static void unlockAfterFork() QV_NO_THREAD_SAFETY_ANALYSIS { shared().mutex.unlock(); }
    bool isOfParent() const { return mProcess != getpid(); }

    // Shared with the thread.
    class Beats
    {
    public:
        void add(const std::shared_ptr<Topic>& topic, Clock::time_point when)
        {
            {
                const qvMutexLocker locker(&mMutex);
                mEntries.emplace(when, topic);
            }
            mChanged.wakeAll();
        }

        void stop()
        {
            {
                const qvMutexLocker locker(&mMutex);
                mIsStopping = true;
            }
            mChanged.wakeAll();
        }

        void run();

    private:
        qvMutex mMutex;
        qvWaitCondition mChanged;
        std::multimap<Clock::time_point, std::weak_ptr<Topic>> mEntries QV_GUARDED_BY(mMutex);
        bool mIsStopping QV_GUARDED_BY(mMutex) = false;
    };

    const pid_t mProcess = getpid();
    const std::shared_ptr<Beats> mBeats = std::make_shared<Beats>();
    std::thread mThread;
};

// Never destroyed: a fork may come later.
EventStream::Heart::Shared& EventStream::Heart::shared()
{
    static Shared& theShared = *new Shared;
    static const bool isHeld = (holdAcrossForks<&lockForFork, &unlockAfterFork>(), true);
    static_cast<void>(isHeld);
    return theShared;
}

std::shared_ptr<EventStream::Heart> EventStream::Heart::get()
{
    Shared& known = shared();
    const qvMutexLocker locker(&known.mutex);
    std::shared_ptr<Heart> heart = known.heart.lock();
    if (!heart || heart->isOfParent())
        known.heart = heart = std::make_shared<Heart>();
    return heart;
}

// Entries are moved, not made: there may be no memory.
void EventStream::Heart::Beats::run()
{
    qvMutexLocker locker(&mMutex);
    while (!mIsStopping) {
        if (mEntries.empty()) {
            mChanged.wait(&mMutex, qvWaitCondition::kNoTimeout);
            continue;
        }
        const auto left =
            std::chrono::ceil<milliseconds>(mEntries.begin()->first - Clock::now()).count();
        if (left > 0) {
            mChanged.wait(&mMutex, static_cast<unsigned long>(left));
            continue;
        }
        auto entry = mEntries.extract(mEntries.begin());
        const std::shared_ptr<Topic> topic = entry.mapped().lock();
        if (!topic)
            continue;
        locker.unlock();
        entry.key() = topic->beat();
        locker.relock();
        mEntries.insert(std::move(entry));
    }
}

// The events behind the last one. Not found: the whole history, which is newer than any event that
// has left it. False when it is more than a queue holds; then the first of them, at least one.
bool EventStream::Topic::appendReplay(const std::string& lastId, std::string& text) const
{
    auto event = std::find_if(mHistory.rbegin(), mHistory.rend(), [&](const Event& kept) {
                     return kept.id == lastId;
                 }).base();
    if (event == mHistory.begin() && lastId.empty())
        event = mHistory.end();
    const size_t headBytes = text.size();
    for (; event != mHistory.end(); ++event) {
        const size_t replayed = text.size() - headBytes;
        if (replayed != 0 && replayed + event->text.size() > mOptions.queueBytes)
            return false;
        text += event->text;
    }
    return true;
}

void EventStream::Topic::subscribe(DeferredStream stream, const std::string& lastId)
{
    uint64_t key = 0;
    {
        const qvMutexLocker locker(&mMutex);
        key = ++mLastKey;
    }
    // Before the stream is shared: it may have ended already. The callback finds it then, or
    // `isGone` below is true.
    stream.onGone([topic = weak_from_this(), key] {
        if (const auto self = topic.lock())
            self->remove(key);
    });
    {
        const qvMutexLocker locker(&mMutex);
        if (stream.isGone())
            return;
        if (!mIsClosed) {
            std::string text(kComment);
            if (mOptions.retry.count() > 0)
                text += "retry: " + std::to_string(mOptions.retry.count()) + "\n\n";
            // Without space or memory for all missed events the stream ends: the client comes back
            // for the others.
            const bool isWhole = appendReplay(lastId, text);
            if (stream.write(text) != StreamWrite::Full && isWhole) {
                mStreams.emplace(key, std::move(stream));
                return;
            }
        }
    }
    stream.finish();
}

void EventStream::Topic::remove(uint64_t key)
{
    Streams removed;  // destroyed without the mutex
    const qvMutexLocker locker(&mMutex);
    auto node = mStreams.extract(key);
    if (!node.empty())
        removed.insert(std::move(node));
}

void EventStream::Topic::forgetOld()
{
    while (mHistory.size() > mOptions.historyEvents ||
           (mHistoryBytes > mOptions.historyBytes && !mHistory.empty())) {
        mHistoryBytes -= mHistory.front().text.size();
        mHistory.pop_front();
    }
}

// The streams that end. A client for which there is no memory is a slow one: it gets the event from
// the history when it comes back.
EventStream::Topic::Streams EventStream::Topic::send(std::string_view text, bool isEvent) noexcept
{
    Streams ended;
    mLastSent = Clock::now();
    for (auto entry = mStreams.begin(); entry != mStreams.end();) {
        const auto stream = entry++;
        StreamWrite outcome = StreamWrite::Full;
        bool hasMemory = true;
        try {
            outcome = stream->second.write(text);
        } catch (const std::bad_alloc&) {
            hasMemory = false;
        }
        // Gone: its callback removes it.
        const bool isSlow = outcome == StreamWrite::Full && isEvent &&
                            mOptions.slowClient == SlowClient::Disconnect;
        if (isSlow || !hasMemory)
            ended.insert(mStreams.extract(stream));
    }
    return ended;
}

void EventStream::Topic::finish(Streams& streams)
{
    for (auto& [key, stream] : streams)
        stream.finish();
}

void EventStream::Topic::publish(std::string_view event, std::string_view data, std::string_view id)
{
    Streams ended;
    {
        const qvMutexLocker locker(&mMutex);
        if (mIsClosed)
            return;
        Event made;
        made.id = id.empty() ? mEpoch + "-" + std::to_string(mLastNumber + 1) : std::string(id);
        made.text = makeEventText(event, data, made.id);
        // Kept first: nobody gets an event that the history does not have.
        mHistory.push_back(std::move(made));
        ++mLastNumber;
        ended = send(mHistory.back().text, true);
        mHistoryBytes += mHistory.back().text.size();
        forgetOld();
    }
    finish(ended);
}

Clock::time_point EventStream::Topic::beat() noexcept
{
    Streams ended;
    Clock::time_point next;
    {
        const qvMutexLocker locker(&mMutex);
        next = mLastSent + mOptions.heartbeat;
        if (next <= Clock::now()) {
            ended = send(kComment, false);
            next = mLastSent + mOptions.heartbeat;
        }
    }
    finish(ended);
    return next;
}

void EventStream::Topic::close()
{
    Streams ended;
    {
        const qvMutexLocker locker(&mMutex);
        mIsClosed = true;
        ended.swap(mStreams);
    }
    finish(ended);
}

size_t EventStream::Topic::subscribers() const
{
    const qvMutexLocker locker(&mMutex);
    return mStreams.size();
}

bool EventStream::Topic::isClosed() const
{
    const qvMutexLocker locker(&mMutex);
    return mIsClosed;
}

EventStream::EventStream(const EventStreamOptions& options)
    : mHeart(options.heartbeat.count() > 0 ? Heart::get() : nullptr),
      mTopic(std::make_shared<Topic>(options))
{
    if (mHeart)
        mHeart->add(mTopic, Clock::now() + mTopic->heartbeat());
}

EventStream::~EventStream()
{
    close();
}

void EventStream::subscribe(Request& request)
{
    if (mTopic->isClosed()) {
        request.setHeader("Retry-After", kRetryAfterSeconds);
        request.replyError(kUnavailable);
        return;
    }
    const ContentType type("text/event-stream");
    // For proxies: do not keep it, do not collect it.
    request.setHeader("Cache-Control", "no-store");
    request.setHeader("X-Accel-Buffering", "no");
    const bool isHead = request.method() == Method::Head;
    const std::string lastId = request.header("Last-Event-ID");
    DeferredStream stream = request.defer().startStream(type, 200, mTopic->queueBytes());
    if (isHead) {
        stream.finish();
        return;
    }
    mTopic->subscribe(std::move(stream), lastId);
}

void EventStream::publish(std::string_view event, std::string_view data, std::string_view id)
{
    mTopic->publish(event, data, id);
}

void EventStream::close()
{
    mTopic->close();
}

size_t EventStream::subscribers() const
{
    return mTopic->subscribers();
}

}  // namespace qv::kit

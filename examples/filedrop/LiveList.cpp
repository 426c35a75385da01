// The list of files, pushed to the pages that listen.

#include "LiveList.h"

#include <qvSystem/qvSystemUtils.h>

#include <utility>

namespace filedrop
{

namespace
{

using qv::kit::Request;
using qv::kit::StreamWrite;

constexpr unsigned long kPollIntervalMs = 2000;

// Shorter than the time after which proxies close a silent connection.
constexpr int64_t kHeartbeatIntervalMs = 15000;

constexpr std::string_view kHeartbeat = ":\n\n";
constexpr std::string_view kRetry = "retry: 2000\n\n";  // milliseconds

qv::kit::ContentType eventStream()
{
    return qv::kit::ContentType("text/event-stream");
}

}  // namespace

LiveList::LiveList(Source source, std::atomic<uint64_t>& counter)
    : mSource(std::move(source)), mCounter(counter), mThread(&LiveList::push, this)
{}

LiveList::~LiveList()
{
    close();
    mThread.join();
}

void LiveList::add(Request& request)
{
    AccessLine line(request);
    if (request.method() == qv::kit::Method::Head) {
        line.write(200, request.reply(200, std::string(), eventStream()), 0);
        return;
    }
    // A proxy that collects a response before it passes it on would keep the list for itself.
    request.setHeader("X-Accel-Buffering", "no");
    qv::kit::DeferredResponse later = request.defer();
    std::list<Listener> added;
    added.push_back({later.startStream(eventStream()), std::move(line)});
    added.back().stream.onWritable([this] { listChanged(); });
    write(added.back(), kRetry);
    {
        const qv::qvMutexLocker locker(&mMutex);
        if (!mClosed)
            mNew.splice(mNew.end(), added);
        mStale = true;
    }
    mChanged.wakeAll();
    if (!added.empty())
        end(added.front());
}

void LiveList::listChanged()
{
    {
        const qv::qvMutexLocker locker(&mMutex);
        mStale = true;
    }
    mChanged.wakeAll();
}

void LiveList::close()
{
    {
        const qv::qvMutexLocker locker(&mMutex);
        mClosed = true;
    }
    mChanged.wakeAll();
}

void LiveList::push()
{
    while (waitUntilDue()) {
        removeClosed();
        if (mListeners.empty())
            continue;
        update();
        for (Listener& listener : mListeners)
            send(listener);
    }
    for (Listener& listener : mListeners)
        end(listener);
    mListeners.clear();
}

// Takes new listeners over. While anybody listens, the directory is looked at now and then: others
// may change it. False when the list has been closed.
bool LiveList::waitUntilDue()
{
    const qv::qvMutexLocker locker(&mMutex);
    // A wake-up without reason costs one look at the directory.
    if (!mStale && !mClosed && !mListeners.empty())
        mChanged.wait(&mMutex, kPollIntervalMs);
    while (!mStale && !mClosed && mListeners.empty())
        mChanged.wait(&mMutex, qv::qvWaitCondition::kNoTimeout);
    mStale = false;
    mListeners.splice(mListeners.end(), mNew);
    return !mClosed;
}

// JSON has no line breaks in it: the list is one line of data.
void LiveList::update()
{
    const std::optional<std::string> text = mSource();
    if (!text)
        return;
    std::string event = "data: " + *text + "\n\n";
    if (mNumber != 0 && event == mEvent)
        return;
    mEvent = std::move(event);
    ++mNumber;
}

// A listener that is slower than the changes gets the newest list when its queue has space again.
void LiveList::send(Listener& listener)
{
    if (listener.number != mNumber) {
        if (write(listener, mEvent))
            listener.number = mNumber;
    } else if (qv::qvSystemUtils::GetTimeBaseMs() - listener.writtenMs >= kHeartbeatIntervalMs) {
        write(listener, kHeartbeat);
    }
}

// Whether the queue has taken it.
bool LiveList::write(Listener& listener, std::string_view event)
{
    if (listener.stream.write(event) != StreamWrite::Taken)
        return false;
    listener.writtenMs = qv::qvSystemUtils::GetTimeBaseMs();
    listener.sentBytes += event.size();
    mCounter += event.size();
    return true;
}

void LiveList::removeClosed()
{
    for (auto listener = mListeners.begin(); listener != mListeners.end();) {
        if (listener->stream.isGone()) {
            end(*listener);
            listener = mListeners.erase(listener);
        } else {
            ++listener;
        }
    }
}

void LiveList::end(Listener& listener)
{
    listener.stream.finish();
    listener.line.write(200, true, listener.sentBytes);
}

}  // namespace filedrop

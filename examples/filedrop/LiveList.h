/// The list of files, pushed to the pages that listen.
#ifndef FILEDROP_LIVELIST_H
#define FILEDROP_LIVELIST_H

#include "AccessLine.h"

#include <Wendrel/kit/DeferredResponse.h>
#include <Wendrel/kit/Request.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace filedrop
{

/// Sends each listener the list as server-sent events: when it begins to listen and whenever the
/// list has become another one. Looks by itself every two seconds while anybody listens, as files
/// also come and go behind the server's back. A listener occupies no thread.
class LiveList
{
public:
    /// Makes the text to be sent, of one line; none when the directory cannot be read. Called on
    /// the thread of this object alone, from the construction on.
    using Source = std::function<std::optional<std::string>()>;

    /// `counter` grows by each byte sent.
    LiveList(Source source, std::atomic<uint64_t>& counter);

    /// Closes and waits for the thread.
    ~LiveList();

    LiveList(const LiveList&) = delete;
    LiveList& operator=(const LiveList&) = delete;

    /// Responds to `request` with the list from now on; with an empty stream when the list has been
    /// closed. Thread: that of the handler.
    void add(qv::kit::Request& request);

    /// The list may have become another one. Any thread.
    void listChanged();

    /// Has the thread end all responses. Any thread; does not wait.
    void close();

private:
    struct Listener
    {
        qv::kit::DeferredStream stream;
        AccessLine line;
        uint64_t number = 0;  // of the list it has
        int64_t writtenMs = 0;
        uint64_t sentBytes = 0;
    };

    void push();
    bool waitUntilDue();
    void update();
    void send(Listener& listener);
    bool write(Listener& listener, std::string_view event);
    void removeClosed();
    static void end(Listener& listener);

    const Source mSource;
    std::atomic<uint64_t>& mCounter;
    qv::qvMutex mMutex;
    qv::qvWaitCondition mChanged;
    std::list<Listener> mNew QV_GUARDED_BY(mMutex);
    bool mStale QV_GUARDED_BY(mMutex) = false;
    bool mClosed QV_GUARDED_BY(mMutex) = false;

    // Used by the thread alone.
    std::list<Listener> mListeners;
    std::string mEvent;    // the list that was sent last
    uint64_t mNumber = 0;  // of that list

    std::thread mThread;  // last: uses all above
};

}  // namespace filedrop

#endif

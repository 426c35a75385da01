/// The list of files, pushed to the pages that listen.
#ifndef FILEDROP_LIVELIST_H
#define FILEDROP_LIVELIST_H

#include <Wendrel/kit/websocket/PreparedMessage.h>
#include <Wendrel/kit/websocket/Session.h>
#include <Wendrel/kit/websocket/WebSocketOptions.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

namespace filedrop
{

/// Sends each WebSocket session the list: when it is opened and whenever the list has become
/// another one. Looks by itself every two seconds while anybody listens, as files also come and go
/// behind the server's back.
class LiveList
{
public:
    /// Makes the text to be sent; none when the directory cannot be read. Called on the thread of
    /// this object alone, from the construction on.
    using Source = std::function<std::optional<std::string>()>;

    /// `counter` grows by each byte of a sent list.
    LiveList(Source source, std::atomic<uint64_t>& counter);

    /// All sessions have been closed by then. Waits for the thread.
    ~LiveList();

    LiveList(const LiveList&) = delete;
    LiveList& operator=(const LiveList&) = delete;

    /// Those of the sessions.
    static qv::kit::websocket::WebSocketOptions options();

    /// The callbacks for a session. Any thread.
    std::shared_ptr<qv::kit::websocket::SessionHandler> listen();

    /// The list may have become another one. Any thread.
    void listChanged();

    /// Open sessions. Any thread.
    size_t listenerCount() const;

private:
    class Listener;

    void add(Listener& listener);
    void remove(Listener& listener);
    void push();
    bool waitUntilDue();
    void update();
    void sendToAll();

    const Source mSource;
    std::atomic<uint64_t>& mCounter;
    mutable qv::qvMutex mMutex;
    qv::qvWaitCondition mChanged;
    std::set<Listener*> mListeners QV_GUARDED_BY(mMutex);  // their sessions own them
    bool mStale QV_GUARDED_BY(mMutex) = false;
    bool mEnds QV_GUARDED_BY(mMutex) = false;

    // Used by the thread alone.
    std::string mText;                                            // the list that was sent last
    std::optional<qv::kit::websocket::PreparedMessage> mMessage;  // the same
    uint64_t mNumber = 0;                                         // of that list

    std::thread mThread;  // last: uses all above
};

}  // namespace filedrop

#endif

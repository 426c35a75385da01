/// The list of files, pushed to the pages that have opened a WebSocket.
#ifndef FILEDROP_LIVELIST_H
#define FILEDROP_LIVELIST_H

#include <Wendrel/kit/WebSocketHub.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

namespace filedrop
{

/// Sends each connection the list when it opens and whenever it has become another one. Looks by
/// itself every two seconds while there are connections, as files also come and go behind the
/// server's back.
class LiveList
{
public:
    /// Makes the text to be sent; none when the directory cannot be read. Called on the thread of
    /// this object alone, from the construction on.
    using Source = std::function<std::optional<std::string>()>;

    explicit LiveList(Source source);

    /// Closes.
    ~LiveList();

    LiveList(const LiveList&) = delete;
    LiveList& operator=(const LiveList&) = delete;

    /// Takes the connection over. Any thread.
    void add(qv::http::WebSocket* upgraded);

    /// The list may have become another one. Any thread.
    void listChanged();

    /// Closes all connections; must be called while the daemon is running. Once is enough.
    void close();

private:
    class Connection;

    void push();
    bool waitUntilDue(bool anyone);
    void send(const std::string& text);

    const Source mSource;
    qv::kit::WebSocketHub mHub;
    qv::qvMutex mMutex;
    qv::qvWaitCondition mChanged;
    bool mStale QV_GUARDED_BY(mMutex) = false;
    bool mClosed QV_GUARDED_BY(mMutex) = false;
    std::string mSent;     // used by the thread alone
    uint64_t mNumber = 0;  // of the list that was sent last; likewise
    std::thread mThread;   // last: uses all above
};

}  // namespace filedrop

#endif

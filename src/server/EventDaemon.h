// A daemon of event-driven mode: one thread, no listening socket, connections from the listener.
#ifndef WENDREL_SERVER_EVENTDAEMON_H
#define WENDREL_SERVER_EVENTDAEMON_H

#include "listener/ConnectionTable.h"
#include "listener/Listener.h"
#include "request/AddressSet.h"
#include "request/AllowedHosts.h"
#include "request/MemoryBudget.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct MHD_Daemon;

namespace qv
{
namespace http
{
class HttpServer;
}
}  // namespace qv

namespace qv::impl
{

class EventDaemon final : public ConnectionSink
{
public:
    struct Settings
    {
        size_t connectionMemoryBytes = 0;
        uint64_t uploadQueueBytes = 0;  // 0: no limit
        bool halfClosedClients = false;
        AddressSet trustedProxies;
        AllowedHosts allowedHosts;
        bool strictRequests = false;
        std::shared_ptr<MemoryBudget> memoryBudget;  // null: no limit
        uint16_t httpsPort = 0;                      // of redirections
        std::vector<std::string> strictTransport;    // of each TLS; empty: none
    };

    EventDaemon(http::HttpServer& server, const Settings& settings, const ConnectionLimits& limits);

    // Stops the daemon. No connection is open any more, except the one of `nudge`.
    ~EventDaemon() override;
    EventDaemon(const EventDaemon&) = delete;
    EventDaemon& operator=(const EventDaemon&) = delete;

    // False when the system has no thread, no descriptor or no memory for it.
    bool start();

    // The listener that watches the connections, set before the first one.
    void setListener(Listener& listener) { mListener = &listener; }

    // Ends `run`: the daemon has no connection of a client any more. Listener thread.
    void stop();

    ConnectionTable& getTable() override { return mTable; }
    bool serve(int descriptor, const sockaddr* address, size_t bytes) override;
    void nudge() override;
    void stopNudging() override;
    void askForTurn(uint64_t turn) override;
    uint64_t getTurn() const override { return mTurn; }

    // A nudge has reached the application's side of the daemon's thread. Its thread.
    void takeTurn() { mTurn = mAskedTurn.load(); }

    // A socket that is never used: the daemon's descriptor of an upgraded connection becomes a
    // duplicate of it.
    int getReplacement() const { return mReplacement; }

    http::HttpServer& getServer() const { return mServer; }
    Listener& getListener() const { return *mListener; }
    const Settings& getSettings() const { return mSettings; }

private:
    bool openNudge();
    bool sendNudge(const char* data, size_t size);

    http::HttpServer& mServer;
    const Settings mSettings;
    ConnectionTable mTable;
    Listener* mListener = nullptr;
    MHD_Daemon* mDaemon = nullptr;
    int mReplacement = -1;
    int mNudge = -1;  // our end of a connection that is no client's; listener thread
    std::atomic<uint64_t> mAskedTurn{0};
    std::atomic<uint64_t> mTurn{0};
};

}  // namespace qv::impl

#endif

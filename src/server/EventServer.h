// A run of event-driven mode: the daemons and the listener that feeds them.
#ifndef WENDREL_SERVER_EVENTSERVER_H
#define WENDREL_SERVER_EVENTSERVER_H

#include <Wendrel/ServerOptions.h>

#include "listener/Listener.h"
#include "server/EventDaemon.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qv::impl
{

// The fields of `options` that lie within its first `recordBytes`; defaults for the others.
http::ServerOptions ReadOptions(const http::ServerOptions& options, size_t recordBytes);

// Why the options are impossible; empty when they are not.
std::string CheckOptions(const http::ServerOptions& options);

class EventServer
{
public:
    // Opens the endpoints and starts the daemons. Null, with the reason in `failure`, when that is
    // not possible; then nothing is left open.
    static std::unique_ptr<EventServer>
    Open(http::HttpServer& server, const http::ServerOptions& options, std::string& failure);

    ~EventServer();
    EventServer(const EventServer&) = delete;
    EventServer& operator=(const EventServer&) = delete;

    const std::vector<std::string>& getEndpoints() const { return mEndpoints; }
    const std::vector<std::string>& getUrls() const { return mUrls; }
    Listener& getListener() { return *mListener; }

    // Why nothing has changed; empty on success. Any thread.
    std::string reloadCertificates();

private:
    EventServer() = default;

    bool startDaemons(http::HttpServer& server, const http::ServerOptions& options);

    std::shared_ptr<MemoryBudget> mMemoryBudget;  // null: no limit

    std::vector<std::string> mEndpoints;
    std::vector<std::string> mUrls;
    std::shared_ptr<TlsEngine> mTls;  // null: no secure endpoint
    std::vector<std::unique_ptr<EventDaemon>> mDaemons;
    std::unique_ptr<Listener> mListener;
};

}  // namespace qv::impl

#endif

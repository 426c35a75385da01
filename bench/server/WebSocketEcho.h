// The WebSocket echo of event-driven mode.
#ifndef BENCH_SERVER_WEBSOCKETECHO_H
#define BENCH_SERVER_WEBSOCKETECHO_H

#include "server/InlineRequest.h"
#include "server/Pool.h"
#include "support/Options.h"

#include <Wendrel/kit/websocket/Engine.h>

#include <chrono>
#include <memory>

namespace bench
{

// Echoes messages on event loops, or on the pool in worker mode.
class WebSocketEcho
{
public:
    // The pool outlives the object.
    WebSocketEcho(const Options& options, Pool& pool);

    // Responds to a handshake. Thread: the daemon's.
    void serve(InlineRequest& request);

    // Closes all connections.
    void shutDown(std::chrono::milliseconds limit) { mEngine.shutDown(limit); }

private:
    std::shared_ptr<const qv::kit::websocket::WebSocketOptions> mOptions;
    std::shared_ptr<qv::kit::websocket::SessionHandler> mHandler;
    qv::kit::websocket::Engine mEngine;
};

}  // namespace bench

#endif

/// From method and path to the handler that responds.
#ifndef WENDREL_KIT_ROUTER_H
#define WENDREL_KIT_ROUTER_H

#include <Wendrel/kit/Request.h>
#include <Wendrel/kit/websocket/Session.h>
#include <Wendrel/kit/websocket/WebSocketOptions.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qv::kit
{

class RouteTable;

/// Responds to a request. Called on a worker, unless the route says otherwise, by several threads
/// at once. An HttpError that leaves it becomes its response; anything else becomes 500 and a line
/// in the log that names the route.
using Handler = std::function<void(Request&)>;

/// Accepts a WebSocket: returns the object whose callbacks the session calls. It refuses as a
/// Handler responds (`reply`, `replyError`, HttpError), and returns null then. Headers that it sets
/// are sent with an acceptance, too; with `Sec-WebSocket-Protocol` it chooses one of the
/// subprotocols that the client offers, in place of the first of `WebSocketOptions::subprotocols`.
using WebSocketHandler = std::function<std::shared_ptr<websocket::SessionHandler>(Request&)>;

/// The options of one route, set before the server is started; later changes are refused with a
/// line in the log. Each operation returns the route.
class Route
{
public:
    /// The handler runs on the daemon thread of the connection, which serves other connections,
    /// too: it must not wait. For responses known at once. `Request::startStream` is refused there.
    Route& nonBlocking();

    /// The handler runs at once, on a worker, and reads the body while it is received. Otherwise it
    /// runs when the whole body has been received, so that a slow client holds no worker. Not
    /// together with `nonBlocking`.
    Route& streaming();

    /// For `Router::webSocket`: the callbacks of the sessions run on workers, where they may wait,
    /// in place of `WebSocketOptions::executor`. Those of one session are called in order and never
    /// two at once; a callback that waits delays no other session as long as a worker is free.
    /// Sessions and requests take turns. A message is copied once.
    Route& callbacksOnWorkers();

    /// Bytes of a body; 413 beyond it. By default `ServerOptions::maxBodyBytes`, for a streaming
    /// route no limit.
    Route& maxBodyBytes(uint64_t bytes);

    /// From the complete request, or in a streaming route from its head, to the beginning of the
    /// response, deferred ones included: then 503. By default none but
    /// `ServerOptions::responseTimeout`.
    Route& responseTimeout(std::chrono::milliseconds limit);

    /// Method and pattern: "GET /files/{name}".
    const std::string& name() const { return mName; }

    Route(const Route&) = delete;
    Route& operator=(const Route&) = delete;
    ~Route();

private:
    friend class RouteTable;
    friend class Exchange;
    friend class Router;
    Route(std::string name, Handler handler);
    bool mayChange() const;

    struct Parameter
    {
        std::string name;
        size_t segment;  // of the path
        bool isRest;
    };

    std::string mName;
    Handler mHandler;
    std::vector<Parameter> mParameters;
    std::chrono::milliseconds mResponseTimeout{0};
    uint64_t mMaxBodyBytes = 0;
    bool mHasMaxBodyBytes = false;
    bool mIsNonBlocking = false;
    bool mIsStreaming = false;
    bool mHasCallbacksOnWorkers = false;
    std::shared_ptr<websocket::WebSocketOptions> mSessionOptions;  // null: no WebSocket
    const bool* mIsFrozen = nullptr;
};

/// The routes of a server. Filled by one thread before the server is started; a route that is added
/// later is refused with a line in the log.
///
/// A pattern is a path whose segments are literal, `{name}` for one segment that is not empty, or,
/// at the end, `{name*}` for all the rest, also an empty one. It is compared with the decoded
/// segments of the target: an encoded slash stays inside its segment. Of several patterns that fit,
/// the one that is literal earlier is used. A pattern that is malformed, or that has a handler for
/// the method already, throws std::invalid_argument, whose text names it.
///
/// Without a route the response is 404, with one for other methods 405 with `Allow`. HEAD is served
/// by the handler for GET. OPTIONS without a handler, also of `*`, gets 204 with `Allow`.
class Router
{
public:
    Router();
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;
    ~Router();

    /// A route for GET, and for HEAD unless that has its own.
    Route& get(const std::string& pattern, Handler handler);
    /// A route for POST.
    Route& post(const std::string& pattern, Handler handler);
    /// A route for PUT.
    Route& put(const std::string& pattern, Handler handler);
    /// A route for DELETE.
    Route& del(const std::string& pattern, Handler handler);
    /// A route for PATCH.
    Route& patch(const std::string& pattern, Handler handler);
    /// A route for HEAD.
    Route& head(const std::string& pattern, Handler handler);
    /// A route for OPTIONS.
    Route& options(const std::string& pattern, Handler handler);
    /// A route for all methods but CONNECT that have no handler of their own for this pattern.
    Route& any(const std::string& pattern, Handler handler);

    /// A route for WebSockets. The handshake is checked before `handler` is called: 426 without a
    /// request for a WebSocket of version 13, 400 for a malformed one, 403 for an origin that is
    /// not allowed. Callbacks run on event loops, where they must not wait; see
    /// `Route::callbacksOnWorkers`. Sessions end with the server: `Server::stop` closes them with
    /// 1001.
    Route& webSocket(const std::string& pattern, websocket::WebSocketOptions options,
                     WebSocketHandler handler);

private:
    friend class ServerCore;
    std::unique_ptr<RouteTable> mTable;
};

}  // namespace qv::kit

#endif

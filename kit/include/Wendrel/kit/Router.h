/// From method and path to the handler that responds.
#ifndef WENDREL_KIT_ROUTER_H
#define WENDREL_KIT_ROUTER_H

#include <Wendrel/kit/Compression.h>
#include <Wendrel/kit/Files.h>
#include <Wendrel/kit/Hooks.h>
#include <Wendrel/kit/Request.h>
#include <Wendrel/kit/websocket/Session.h>
#include <Wendrel/kit/websocket/WebSocketOptions.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qv::kit
{

class RouteGroup;
class RouteTable;
struct HookTable;

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

    /// Compression of the responses, in place of `ServerOptions::compression`.
    Route& compression(const CompressionOptions& options);

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
    size_t mNumber = 0;  // from 1 on, in the order of the routes
    std::shared_ptr<websocket::WebSocketOptions> mSessionOptions;  // null: no WebSocket
    std::shared_ptr<const CompressionOptions> mCompression;        // null: that of the server
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

    /// A route for GET and HEAD that serves the files below the directory `path`: those of
    /// "/static" at "/static/...", of "/" at all paths without another route. Each file is sent as
    /// `Responder::replyFile` does. A path of a directory without a slash at its end is redirected
    /// to the one with it (301). Nothing outside of the directory is served, by no encoding and no
    /// symbolic link. Throws std::system_error when `path` is no directory; it may be replaced by
    /// another one later.
    Route& directory(const std::string& prefix, const std::string& path,
                     const DirectoryOptions& options = DirectoryOptions());

    /// A route for WebSockets. The handshake is checked before `handler` is called: 426 without a
    /// request for a WebSocket of version 13, 400 for a malformed one, 403 for an origin that is
    /// not allowed. Callbacks run on event loops, where they must not wait; see
    /// `Route::callbacksOnWorkers`. Sessions end with the server: `Server::stop` closes them with
    /// 1001.
    Route& webSocket(const std::string& pattern, websocket::WebSocketOptions options,
                     WebSocketHandler handler);

    /// `hook` runs before the handlers of all paths that begin with the segments of `prefix`: "/"
    /// for all, "/admin" for "/admin" and "/admin/users", not for "/administration"; `{name}`
    /// stands for any segment. Paths without a route, and OPTIONS, are included; requests that are
    /// malformed are not. Hooks run in the order in which they are added. A malformed prefix throws
    /// std::invalid_argument.
    void before(const std::string& prefix, Hook hook, HookThread thread = HookThread::Worker);

    /// `hook` runs before the head of each response to a path below `prefix` is sent; one for "/"
    /// also for malformed requests, whose path is empty. Otherwise as above.
    void after(const std::string& prefix, AfterHook hook);

    /// Both hooks of `middleware`.
    void use(const std::string& prefix, Middleware middleware);

    /// `hook` may replace the body of each error that the kit makes: of `replyError`, of an
    /// HttpError and of its own 400, 404, 405, 413, 500, 501 and 503. It replaces the one before.
    void onError(ErrorHook hook);

    /// Routes and hooks below `prefix`.
    RouteGroup group(const std::string& prefix);

private:
    friend class ServerCore;
    bool mayHook(const char* what) const;

    std::unique_ptr<RouteTable> mTable;
    std::unique_ptr<HookTable> mHooks;
};

/// Routes with a common prefix and hooks of their own. A plain value, which refers to its router;
/// each operation is that of the router, with the prefix before the pattern. The pattern "/" is
/// the prefix itself.
class RouteGroup
{
public:
    /// As `Router::group`.
    RouteGroup(Router& router, std::string prefix) : mRouter(&router), mPrefix(std::move(prefix))
    {
        if (!mPrefix.empty() && mPrefix.front() != '/')
            throw std::invalid_argument("the prefix \"" + mPrefix + "\" does not begin with /");
        while (!mPrefix.empty() && mPrefix.back() == '/')
            mPrefix.pop_back();
    }

    /// As `Router::get`.
    Route& get(const std::string& pattern, Handler handler) const
    {
        return mRouter->get(below(pattern), std::move(handler));
    }
    /// As `Router::post`.
    Route& post(const std::string& pattern, Handler handler) const
    {
        return mRouter->post(below(pattern), std::move(handler));
    }
    /// As `Router::put`.
    Route& put(const std::string& pattern, Handler handler) const
    {
        return mRouter->put(below(pattern), std::move(handler));
    }
    /// As `Router::del`.
    Route& del(const std::string& pattern, Handler handler) const
    {
        return mRouter->del(below(pattern), std::move(handler));
    }
    /// As `Router::patch`.
    Route& patch(const std::string& pattern, Handler handler) const
    {
        return mRouter->patch(below(pattern), std::move(handler));
    }
    /// As `Router::any`.
    Route& any(const std::string& pattern, Handler handler) const
    {
        return mRouter->any(below(pattern), std::move(handler));
    }
    /// As `Router::directory`.
    Route& directory(const std::string& prefix, const std::string& path,
                     const DirectoryOptions& options = DirectoryOptions()) const
    {
        return mRouter->directory(below(prefix), path, options);
    }
    /// As `Router::webSocket`.
    Route& webSocket(const std::string& pattern, websocket::WebSocketOptions options,
                     WebSocketHandler handler) const
    {
        return mRouter->webSocket(below(pattern), std::move(options), std::move(handler));
    }

    /// As `Router::before`, for the paths of the group.
    void before(Hook hook, HookThread thread = HookThread::Worker) const
    {
        mRouter->before(below("/"), std::move(hook), thread);
    }
    /// As `Router::after`, for the paths of the group.
    void after(AfterHook hook) const { mRouter->after(below("/"), std::move(hook)); }
    /// As `Router::use`, for the paths of the group.
    void use(Middleware middleware) const { mRouter->use(below("/"), std::move(middleware)); }

    /// A group within the group.
    RouteGroup group(const std::string& prefix) const { return {*mRouter, below(prefix)}; }

private:
    // Otherwise "/admin" and "users" were a path beside those of the group, without its hooks.
    std::string below(const std::string& pattern) const
    {
        if (pattern.empty() || pattern.front() != '/')
            throw std::invalid_argument("the pattern \"" + pattern + "\" does not begin with /");
        return pattern == "/" && !mPrefix.empty() ? mPrefix : mPrefix + pattern;
    }

    Router* mRouter;
    std::string mPrefix;  // without a slash at its end
};

}  // namespace qv::kit

#endif

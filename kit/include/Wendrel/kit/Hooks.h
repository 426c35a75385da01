/// Functions that an application runs around its handlers.
#ifndef WENDREL_KIT_HOOKS_H
#define WENDREL_KIT_HOOKS_H

#include <Wendrel/kit/ResponseHead.h>

#include <cstdint>
#include <functional>
#include <string>

namespace qv::kit
{

class Request;

/// Runs before the handler, when the head of the request has been received. A hook that responds
/// (`reply`, `replyError`, `defer`, HttpError) ends the chain: neither a further hook nor the
/// handler is called. Otherwise its headers, and values that it has given to `Request::attach`, are
/// the handler's. It cannot read the body. An exception that is no HttpError becomes 500 and a line
/// in the log.
using Hook = std::function<void(Request&)>;

/// The thread of a Hook.
enum class HookThread : uint8_t {
    Worker,  ///< it may wait. The body may be received meanwhile; a worker is held only for its
             ///< own time
    Daemon   ///< at once, before the body is asked for, unless an earlier hook needs a worker: it
             ///< must not wait
};

/// Runs when the response is known, before its head is sent: `status` and `head`, which it may
/// change, are those of the handler, of a deferred response, of the kit itself (404, 405, 413, 500,
/// 503) or of an accepted WebSocket (101). Once for a response. Thread: the one that responds,
/// without a lock: it must not wait. When an exception leaves it, or an impossible header, the
/// response becomes 500 without the headers, and a line is logged.
using AfterHook = std::function<void(const Request& request, int status, ResponseHead& head)>;

/// The body of an error, made by the kit, for `Router::onError`.
struct ErrorResponse
{
    int status;                  ///< 400 to 599
    const std::string& message;  ///< of `replyError` or of the HttpError; may be empty
    std::string body;            ///< as it is sent unless it is replaced
    ContentType type;            ///< of the body
};

/// Replaces bodies of errors. Thread: as an AfterHook, which runs later. After an exception the
/// body is that of the kit, and a line is logged.
using ErrorHook = std::function<void(const Request& request, ErrorResponse& response)>;

/// Hooks that belong together, for `Router::use`. A plain value; see `<Wendrel/kit/Middleware.h>`.
struct Middleware
{
    Hook before;                             ///< empty: none
    AfterHook after;                         ///< empty: none
    HookThread thread = HookThread::Worker;  ///< of `before`
};

}  // namespace qv::kit

#endif

// From an announced response to the daemon: the decision, and the response queued for it.
#ifndef WENDREL_SERVER_RESPONSEQUEUE_H
#define WENDREL_SERVER_RESPONSEQUEUE_H

#include <microhttpd.h>

#include <cstdint>
#include <vector>

namespace qv
{
class HttpBaseRequest;
class HttpResponseDevice;
class HttpResponseInterface;
namespace http
{
class HttpServerImpl;
}
}  // namespace qv

namespace qv::impl
{

// `Source`: in event-driven mode only, which decides on it itself.
enum class Decision : uint8_t { Wait, Queued, Error, Whole, Stream, Source };

// Reads the response state and moves it on. A body that is complete is moved to `body`. The
// device's mutex is held.
Decision Decide(HttpResponseDevice& device, HttpBaseRequest& request, std::vector<char>& body);

// Headers beside those of the application.
struct ExtraHeaders
{
    bool close = false;                     // the connection is closed after the response
    const char* strictTransport = nullptr;  // null: none
};

// How a response is sent.
struct SendOptions
{
    MHD_ContentReaderCallback reader;  // of a stream; its closure is the HttpBaseRequest
    const ExtraHeaders* extra;         // null: none
};

// Queues the head of the application as the response to an upgrade, without the headers that the
// daemon sets itself. `response` is destroyed. False when the daemon does not take it, or the head
// has no header "Upgrade".
bool QueueUpgradeHead(HttpBaseRequest& request, HttpResponseInterface& head,
                      MHD_Connection* connection, MHD_Response* response);

// Queues `response` with the application's head, and destroys it. Null: MHD_NO.
MHD_Result QueueResponse(HttpBaseRequest& request, HttpResponseInterface& head,
                         MHD_Connection* connection, MHD_Response* response,
                         const SendOptions& options);

// Queues the response that was decided on, unless it is a source.
MHD_Result QueueDecided(Decision decision, const http::HttpServerImpl& application,
                        MHD_Connection* connection, HttpBaseRequest& request,
                        HttpResponseInterface& head, std::vector<char>& body,
                        const SendOptions& options);

}  // namespace qv::impl

#endif

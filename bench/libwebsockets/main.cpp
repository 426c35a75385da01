// wendrel-bench-libwebsockets: an echo of WebSocket messages on libwebsockets.

#include "support/Options.h"
#include "support/StopSignal.h"

#include <libwebsockets.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <iostream>
#include <new>
#include <string>
#include <thread>

namespace
{

constexpr const char* kAbout =
    "On libwebsockets, with one thread: only messages on any path are echoed, with --websocket.";
constexpr size_t kReceiveBytes = 65536;
constexpr unsigned kServiceBytes = 131072;

struct Message
{
    std::string bytes;  // behind LWS_PRE bytes, which the library writes its header to
    bool isBinary = false;
};

// Lives in the memory that libwebsockets has for each connection.
struct Session
{
    std::deque<Message> replies;
    Message received;
};

void receive(lws* connection, Session& session, const void* bytes, size_t size)
{
    if (lws_is_first_fragment(connection)) {
        session.received.bytes.assign(LWS_PRE, '\0');
        session.received.isBinary = lws_frame_is_binary(connection) != 0;
    }
    session.received.bytes.append(static_cast<const char*>(bytes), size);
    if (!lws_is_final_fragment(connection) || lws_remaining_packet_payload(connection) != 0)
        return;
    session.replies.push_back(std::move(session.received));
    lws_callback_on_writable(connection);
}

int reply(lws* connection, Session& session)
{
    if (session.replies.empty())
        return 0;
    Message& message = session.replies.front();
    const size_t size = message.bytes.size() - LWS_PRE;
    auto* const payload = reinterpret_cast<unsigned char*>(message.bytes.data()) + LWS_PRE;
    const int sent =
        lws_write(connection, payload, size, message.isBinary ? LWS_WRITE_BINARY : LWS_WRITE_TEXT);
    session.replies.pop_front();
    if (!session.replies.empty())
        lws_callback_on_writable(connection);
    return sent < 0 ? -1 : 0;
}

int onEvent(lws* connection, lws_callback_reasons reason, void* user, void* bytes, size_t size)
{
    auto* const session = static_cast<Session*>(user);
    switch (reason) {
    case LWS_CALLBACK_ESTABLISHED:
        new (session) Session;
        return 0;
    case LWS_CALLBACK_CLOSED:
        session->~Session();
        return 0;
    case LWS_CALLBACK_RECEIVE:
        receive(connection, *session, bytes, size);
        return 0;
    case LWS_CALLBACK_SERVER_WRITEABLE:
        return reply(connection, *session);
    default:
        return lws_callback_http_dummy(connection, reason, user, bytes, size);
    }
}

const lws_protocols kProtocols[] = {
    {"echo", onEvent, sizeof(Session), kReceiveBytes, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0}};

}  // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    int exitCode = 0;
    if (!bench::parseOptions(argc, argv, {"wendrel-bench-libwebsockets", kAbout}, options,
                             exitCode))
        return exitCode;
    bench::StopSignal stopSignal;  // before any thread
    lws_set_log_level(0, nullptr);
    lws_context_creation_info info{};
    info.port = options.port;
    info.iface = "127.0.0.1";
    info.protocols = kProtocols;
    info.pt_serv_buf_size = kServiceBytes;
    lws_context* const context = lws_create_context(&info);
    if (!context) {
        std::cerr << "wendrel-bench-libwebsockets: cannot listen on port " << options.port
                  << std::endl;
        return 1;
    }
    std::atomic<bool> stops{false};
    std::thread serving([context, &stops] {
        while (!stops && lws_service(context, 0) >= 0) {
        }
    });
    bench::announceListening(options.port);
    stopSignal.wait();
    stops = true;
    lws_cancel_service(context);
    serving.join();
    lws_context_destroy(context);
    return 0;
}

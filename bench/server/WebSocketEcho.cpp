// The WebSocket echo of event-driven mode.

#include "server/WebSocketEcho.h"

#include <Wendrel/UpgradedConnection.h>

#include <utility>

namespace bench
{
namespace
{

namespace websocket = qv::kit::websocket;

constexpr size_t kMaxMessageBytes = 67108864;
constexpr size_t kQueueBytes = 134217728;
constexpr uint64_t kBudgetBytes = 1073741824;

class Handler : public websocket::SessionHandler
{
    void onText(websocket::Session& session, std::string_view text) override
    {
        session.sendText(text);
    }
    void onBinary(websocket::Session& session, websocket::BinaryView bytes) override
    {
        session.sendBinary(bytes);
    }
};

websocket::WebSocketOptions optionsOf(const Options& options, Pool& pool)
{
    websocket::WebSocketOptions made;
    made.maxMessageBytes = kMaxMessageBytes;
    made.sendQueueBytes = kQueueBytes;
    made.deflate = options.deflate;
    if (options.mode == Mode::Worker)
        made.executor = [&pool](std::function<void()> task) {
            return pool.submit(std::move(task));
        };
    return made;
}

}  // namespace

WebSocketEcho::WebSocketEcho(const Options& options, Pool& pool)
    : mOptions(std::make_shared<websocket::WebSocketOptions>(optionsOf(options, pool))),
      mHandler(std::make_shared<Handler>()),
      mEngine({.loops = options.threads, .memoryBudgetBytes = kBudgetBytes})
{}

void WebSocketEcho::serve(InlineRequest& request)
{
    websocket::HandshakeReply reply = websocket::checkHandshake(request, *mOptions);
    if (reply.status != 101) {
        request.refuse(reply.status, reply.reason, std::move(reply.headers));
        return;
    }
    request.upgrade(std::move(reply.headers),
                    [this, agreement = std::move(reply.agreement)](
                        std::unique_ptr<qv::UpgradedConnection> connection) {
                        mEngine.open(std::move(connection), agreement, mHandler, mOptions);
                    });
}

}  // namespace bench

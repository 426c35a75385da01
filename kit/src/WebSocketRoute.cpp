// From a handshake to its session.

#include "Exchange.h"
#include "KitLog.h"
#include "RouteTable.h"
#include "ServerCore.h"

#include <Wendrel/UpgradedConnection.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr int kSwitchingProtocols = 101;
constexpr const char* kProtocolHeader = "Sec-WebSocket-Protocol";

void checkOffered(const HttpBaseRequest& request, const std::string& subprotocol)
{
    const std::vector<std::string> offered = websocket::offeredSubprotocols(request);
    if (std::find(offered.begin(), offered.end(), subprotocol) == offered.end())
        throw std::logic_error("the client does not offer the subprotocol \"" + subprotocol + "\"");
}

}  // namespace

Route& Router::webSocket(const std::string& pattern, websocket::WebSocketOptions options,
                         WebSocketHandler handler)
{
    if (options.name.empty())
        options.name = "GET " + pattern;
    const auto shared = std::make_shared<websocket::WebSocketOptions>(std::move(options));
    Handler serve;
    if (handler) {
        serve = [shared, accept = std::move(handler)](Request& request) {
            Exchange::serveWebSocket(request, shared, accept);
        };
    }
    Route& route = mTable->add(Method::Get, pattern, std::move(serve));
    route.mSessionOptions = shared;
    mTable->noteWebSocket();
    return route;
}

void Exchange::serveWebSocket(Request& request,
                              const std::shared_ptr<const websocket::WebSocketOptions>& options,
                              const WebSocketHandler& accept)
{
    Exchange& exchange = *request.mExchange;
    websocket::HandshakeReply reply = websocket::checkHandshake(exchange, *options);
    if (reply.status != kSwitchingProtocols) {
        for (const auto& [key, header] : reply.headers)
            request.setHeader(header.first, header.second);
        request.replyError(static_cast<int>(reply.status), reply.reason);
        return;
    }
    auto upgrade = std::make_unique<Upgrade>();
    upgrade->handler = accept(request);
    if (!upgrade->handler)
        return;
    if (const std::string chosen = request.mHead.header(kProtocolHeader); !chosen.empty()) {
        checkOffered(exchange, chosen);
        reply = websocket::checkHandshake(exchange, *options, chosen);
    }
    for (const auto& [key, header] : reply.headers)
        request.mHead.setHeader(header.first, header.second);
    upgrade->agreement = std::move(reply.agreement);
    upgrade->options = options;
    exchange.acceptUpgrade(std::move(request.mHead), std::move(upgrade));
}

void Exchange::acceptUpgrade(ResponseHead&& head, std::unique_ptr<Upgrade> upgrade)
{
    if (!head.error().empty())
        throw std::logic_error(head.error());
    if (!claim(By::Application)) {
        reportClaimed(By::Application);
        return;
    }
    if (!callAfterHooks(head, kSwitchingProtocols)) {
        publishFailure();
        return;
    }
    mUpgrade = std::move(upgrade);
    mHead.set(std::move(head), kSwitchingProtocols);
    try {
        getResponseDevice().endSending();
        getResponseDevice().setResponseReady();
    } catch (...) {
        breakOff();
    }
}

// An exception would end the process.
void Exchange::onUpgraded(std::unique_ptr<UpgradedConnection> connection)
{
    try {
        mCore.openSession(MemoryAccount::of(*this), std::move(connection), mUpgrade->agreement,
                          mUpgrade->handler, mUpgrade->options);
    } catch (const std::exception& error) {
        log("the WebSocket session was not opened: ", error.what());
    }
}

}  // namespace qv::kit

// The opening handshake of WebSockets.

#include <Wendrel/kit/websocket/Handshake.h>

#include "src/Text.h"
#include "websocket/Deflate.h"

#include <Wendrel/HttpRequest.h>
#include <Wendrel/WebSocket.h>

#include <algorithm>
#include <list>
#include <optional>
#include <string_view>

namespace qv::kit::websocket
{
namespace
{

constexpr uint32_t kSwitching = 101;
constexpr uint32_t kBadRequest = 400;
constexpr uint32_t kForbidden = 403;
constexpr uint32_t kWrongMethod = 405;
constexpr uint32_t kUpgradeRequired = 426;

constexpr size_t kKeyCharacters = 24;  // 16 bytes in base64
constexpr size_t kKeyDigits = 22;
constexpr const char* kVersion = "13";

HandshakeReply refuse(uint32_t status, const char* reason)
{
    HandshakeReply reply;
    reply.status = status;
    reply.reason = reason;
    if (status == kUpgradeRequired) {
        reply.headers["upgrade"] = {"Upgrade", "websocket"};
        reply.headers["connection"] = {"Connection", "Upgrade"};
        reply.headers["sec-websocket-version"] = {"Sec-WebSocket-Version", kVersion};
    } else if (status == kWrongMethod) {
        reply.headers["allow"] = {"Allow", "GET"};
    }
    return reply;
}

bool hasElement(const HttpBaseRequest& request, const char* header, std::string_view element)
{
    const auto* const values = request.getHeader(header);
    return values && std::any_of(values->begin(), values->end(), [element](const auto& value) {
               return equalsIgnoringCase(trimmed(value), element);
           });
}

// The only line of a header, without spaces around; empty when there are several or none.
std::string_view onlyLine(const HttpBaseRequest& request, const char* header)
{
    const std::string* const line = request.getHeaders().findLine(header);
    return line ? trimmed(*line) : std::string_view();
}

bool isKey(std::string_view key)
{
    const auto isDigit = [](char c) {
        return (c >= '0' && c <= '9') || (toLower(c) >= 'a' && toLower(c) <= 'z') || c == '+' ||
               c == '/';
    };
    return key.size() == kKeyCharacters && key.substr(kKeyDigits) == "==" &&
           std::all_of(key.begin(), key.begin() + kKeyDigits, isDigit);
}

// "host" or "host:port", without the default port of the scheme.
std::string_view withoutDefaultPort(std::string_view authority, std::string_view scheme)
{
    const std::string_view suffix = equalsIgnoringCase(scheme, "https") ? ":443" : ":80";
    const bool hasDefault = authority.size() > suffix.size() &&
                            authority.substr(authority.size() - suffix.size()) == suffix;
    return hasDefault ? authority.substr(0, authority.size() - suffix.size()) : authority;
}

bool isSameOrigin(std::string_view origin, std::string_view host)
{
    const size_t end = origin.find("://");
    if (end == std::string_view::npos || host.empty())
        return false;
    const std::string_view scheme = origin.substr(0, end);
    return equalsIgnoringCase(withoutDefaultPort(origin.substr(end + 3), scheme),
                              withoutDefaultPort(host, scheme));
}

bool isAllowedOrigin(const HttpBaseRequest& request, const WebSocketOptions& options)
{
    if (!request.getHeader("origin"))
        return true;
    const std::string_view origin = onlyLine(request, "origin");
    const auto allows = [origin](const std::string& allowed) {
        return allowed == "*" || equalsIgnoringCase(allowed, origin);
    };
    return std::any_of(options.allowedOrigins.begin(), options.allowedOrigins.end(), allows) ||
           isSameOrigin(origin, onlyLine(request, "host"));
}

std::optional<HandshakeReply> findRefusal(const HttpBaseRequest& request,
                                          const WebSocketOptions& options)
{
    if (!hasElement(request, "upgrade", "websocket") ||
        !hasElement(request, "connection", "upgrade"))
        return refuse(kUpgradeRequired, "This resource requires an upgrade to WebSocket.");
    if (request.getRequestType() != HttpBaseRequest::GET)
        return refuse(kWrongMethod, "A WebSocket handshake requires the method GET.");
    if (onlyLine(request, "sec-websocket-version") != kVersion)
        return refuse(kUpgradeRequired, "Only version 13 of WebSocket is supported.");
    if (!isKey(onlyLine(request, "sec-websocket-key")))
        return refuse(kBadRequest, "Sec-WebSocket-Key is missing or malformed.");
    if (!isAllowedOrigin(request, options))
        return refuse(kForbidden, "The origin is not allowed.");
    return std::nullopt;
}

HandshakeReply accept(const HttpBaseRequest& request, const WebSocketOptions& options,
                      const std::string& subprotocol)
{
    HandshakeReply reply;
    std::string extensions;
    if (const auto* const offers = request.getHeader("sec-websocket-extensions")) {
        const auto agreed = negotiateDeflate(*offers, options, extensions);
        if (!agreed)
            return refuse(kBadRequest, "Sec-WebSocket-Extensions is malformed.");
        reply.agreement.deflate = *agreed;
    }
    reply.status = kSwitching;
    reply.agreement.subprotocol = subprotocol;
    const std::string key(onlyLine(request, "sec-websocket-key"));
    reply.headers["upgrade"] = {"Upgrade", "websocket"};
    reply.headers["sec-websocket-accept"] = {"Sec-WebSocket-Accept",
                                             http::WebSocket::ComputeSecret(key.c_str())};
    if (!subprotocol.empty())
        reply.headers["sec-websocket-protocol"] = {"Sec-WebSocket-Protocol", subprotocol};
    if (!extensions.empty())
        reply.headers["sec-websocket-extensions"] = {"Sec-WebSocket-Extensions", extensions};
    return reply;
}

}  // namespace

std::vector<std::string> offeredSubprotocols(const HttpBaseRequest& request)
{
    std::vector<std::string> offered;
    if (const auto* const values = request.getHeader("sec-websocket-protocol")) {
        for (const std::string& value : *values) {
            if (isToken(trimmed(value)))
                offered.emplace_back(trimmed(value));
        }
    }
    return offered;
}

HandshakeReply checkHandshake(const HttpBaseRequest& request, const WebSocketOptions& options)
{
    const std::vector<std::string> offered = offeredSubprotocols(request);
    for (const std::string& own : options.subprotocols) {
        if (std::find(offered.begin(), offered.end(), own) != offered.end())
            return checkHandshake(request, options, own);
    }
    return checkHandshake(request, options, std::string());
}

HandshakeReply checkHandshake(const HttpBaseRequest& request, const WebSocketOptions& options,
                              const std::string& subprotocol)
{
    if (auto refusal = findRefusal(request, options))
        return *refusal;
    return accept(request, options, subprotocol);
}

}  // namespace qv::kit::websocket

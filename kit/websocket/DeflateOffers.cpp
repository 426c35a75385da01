// The negotiation of permessage-deflate.

#include "websocket/Deflate.h"

#include "src/Text.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace qv::kit::websocket
{
namespace
{

constexpr int kMinWindowBits = 8;
constexpr int kMaxWindowBits = 15;
// The smallest window that zlib compresses with.
constexpr int kMinOwnWindowBits = 9;

struct Parameter
{
    std::string_view name;
    std::optional<std::string> value;
};

struct Offer
{
    std::string_view name;
    std::vector<Parameter> parameters;
};

// The parts between semicolons outside of quotes; false when a quote is not closed.
bool splitParts(std::string_view text, std::vector<std::string_view>& parts)
{
    bool isQuoted = false;
    size_t begin = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (isQuoted && text[i] == '\\')
            ++i;
        else if (text[i] == '"')
            isQuoted = !isQuoted;
        else if (text[i] == ';' && !isQuoted) {
            parts.push_back(trimmed(text.substr(begin, i - begin)));
            begin = i + 1;
        }
    }
    parts.push_back(trimmed(text.substr(begin)));
    return !isQuoted;
}

// A quoted value must be a token when its quotes and backslashes are taken off.
bool readValue(std::string_view text, std::string& value)
{
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') {
        value = text;
        return isToken(text);
    }
    text = text.substr(1, text.size() - 2);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && ++i == text.size())
            return false;
        value.push_back(text[i]);
    }
    return isToken(value);
}

bool readParameter(std::string_view text, Parameter& parameter)
{
    const size_t equals = text.find('=');
    parameter.name = trimmed(text.substr(0, equals));
    if (!isToken(parameter.name))
        return false;
    if (equals == std::string_view::npos)
        return true;
    parameter.value.emplace();
    return readValue(trimmed(text.substr(equals + 1)), *parameter.value);
}

bool readOffer(std::string_view text, Offer& offer)
{
    std::vector<std::string_view> parts;
    if (!splitParts(text, parts) || !isToken(parts.front()))
        return false;
    offer.name = parts.front();
    for (size_t i = 1; i < parts.size(); ++i) {
        Parameter parameter;
        if (!readParameter(parts[i], parameter))
            return false;
        offer.parameters.push_back(std::move(parameter));
    }
    return true;
}

// 8 to 15 without leading zeros; 0 for anything else.
int readWindowBits(const std::string& value)
{
    const bool isNumber =
        !value.empty() && value.size() <= 2 && value.front() != '0' &&
        std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
    const int bits = isNumber ? std::stoi(value) : 0;
    return bits >= kMinWindowBits && bits <= kMaxWindowBits ? bits : 0;
}

// The parameters of an offer.
struct Asked
{
    bool serverNoContextTakeover = false;
    bool clientNoContextTakeover = false;
    int serverMaxWindowBits = 0;  // 0: not asked for
    int clientMaxWindowBits = 0;
};

// False for an unknown, repeated or invalid parameter: the offer is declined.
bool take(const Parameter& parameter, Asked& asked)
{
    const auto setFlag = [&parameter](bool& flag) {
        const bool isNew = !flag;
        flag = true;
        return isNew && !parameter.value;
    };
    if (parameter.name == "server_no_context_takeover")
        return setFlag(asked.serverNoContextTakeover);
    if (parameter.name == "client_no_context_takeover")
        return setFlag(asked.clientNoContextTakeover);
    const bool isServers = parameter.name == "server_max_window_bits";
    if (!isServers && parameter.name != "client_max_window_bits")
        return false;
    int& bits = isServers ? asked.serverMaxWindowBits : asked.clientMaxWindowBits;
    if (bits != 0 || (isServers && !parameter.value))
        return false;
    bits = parameter.value ? readWindowBits(*parameter.value) : kMaxWindowBits;
    return bits != 0;
}

DeflateParameters agree(const Asked& asked, const WebSocketOptions& options, std::string& response)
{
    DeflateParameters agreed;
    agreed.isEnabled = true;
    response = "permessage-deflate";
    agreed.serverNoContextTakeover =
        options.serverNoContextTakeover || asked.serverNoContextTakeover;
    if (agreed.serverNoContextTakeover)
        response += "; server_no_context_takeover";
    agreed.clientNoContextTakeover =
        options.clientNoContextTakeover || asked.clientNoContextTakeover;
    if (agreed.clientNoContextTakeover)
        response += "; client_no_context_takeover";
    const int ownBits = std::clamp(options.serverMaxWindowBits, kMinOwnWindowBits, kMaxWindowBits);
    agreed.serverMaxWindowBits =
        asked.serverMaxWindowBits == 0 ? ownBits : std::min(ownBits, asked.serverMaxWindowBits);
    if (asked.serverMaxWindowBits != 0 || agreed.serverMaxWindowBits < kMaxWindowBits)
        response += "; server_max_window_bits=" + std::to_string(agreed.serverMaxWindowBits);
    // A client that does not name the parameter must not be sent it.
    if (asked.clientMaxWindowBits == 0)
        return agreed;
    const int wantedBits =
        std::clamp(options.clientMaxWindowBits, kMinOwnWindowBits, kMaxWindowBits);
    agreed.clientMaxWindowBits = std::min(wantedBits, asked.clientMaxWindowBits);
    if (agreed.clientMaxWindowBits < kMaxWindowBits)
        response += "; client_max_window_bits=" + std::to_string(agreed.clientMaxWindowBits);
    return agreed;
}

}  // namespace

std::optional<DeflateParameters> negotiateDeflate(const std::list<std::string>& offers,
                                                  const WebSocketOptions& options,
                                                  std::string& response)
{
    std::optional<DeflateParameters> agreed(std::in_place);
    for (const std::string& text : offers) {
        if (trimmed(text).empty())
            continue;
        Offer offer;
        if (!readOffer(text, offer))
            return std::nullopt;
        if (agreed->isEnabled || !options.deflate ||
            !equalsIgnoringCase(offer.name, "permessage-deflate"))
            continue;
        Asked asked;
        const bool isValid =
            std::all_of(offer.parameters.begin(), offer.parameters.end(),
                        [&asked](const Parameter& parameter) { return take(parameter, asked); });
        if (isValid)
            agreed = agree(asked, options, response);
    }
    return agreed;
}

}  // namespace qv::kit::websocket

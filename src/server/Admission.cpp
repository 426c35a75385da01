// Header lines are taken from the daemon as they were received, not split into values.

#include "server/Admission.h"

#include "request/Forwarded.h"
#include "server/Reply.h"

#include <strings.h>

#include <algorithm>
#include <optional>

namespace qv::impl
{
namespace
{

constexpr char kMisdirectedBody[] = "Misdirected Request";
constexpr uint16_t kHttpsPort = 443;
constexpr const char* kForwardedFor = "X-Forwarded-For";

struct Lines
{
    const char* name;
    HeaderLines values;
};

// Value iterator; `closure` is a Lines.
MHD_Result takeLine(void* closure, MHD_ValueKind, const char* name, const char* value)
{
    auto& lines = *static_cast<Lines*>(closure);
    if (strcasecmp(name, lines.name) == 0)
        lines.values.emplace_back(value ? value : "");
    return MHD_YES;
}

HeaderLines linesOf(MHD_Connection* connection, const char* name)
{
    Lines lines{name, {}};
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &takeLine, &lines);
    return std::move(lines.values);
}

// A target in absolute form has a host of its own, and its path behind it. Empty without a valid
// host.
std::string httpsUrlOf(uint16_t port, MHD_Connection* connection, const std::string& target)
{
    std::string host;
    std::string path = target;
    if (const auto authority = GetTargetAuthority(target)) {
        host = GetAuthorityHost(*authority);
        const auto end = static_cast<size_t>(authority->data() - target.data()) + authority->size();
        path = target.substr(end, target.find('#', end) - end);
    } else if (const HeaderLines values = linesOf(connection, MHD_HTTP_HEADER_HOST);
               values.size() == 1) {
        host = GetAuthorityHost(values.front());
    }
    if (host.empty())
        return host;
    if (path.empty() || path.front() != '/')
        path.insert(0, 1, '/');
    return "https://" + host + (port == kHttpsPort ? "" : ":" + std::to_string(port)) + path;
}

}  // namespace

bool IsHostAllowed(const AllowedHosts& hosts, MHD_Connection* connection, const std::string& target)
{
    if (hosts.isEmpty())
        return true;
    if (const auto authority = GetTargetAuthority(target))
        return hosts.contains(*authority);
    const HeaderLines values = linesOf(connection, MHD_HTTP_HEADER_HOST);
    const auto isAllowed = [&hosts](std::string_view value) { return hosts.contains(value); };
    return !values.empty() && std::all_of(values.begin(), values.end(), isAllowed);
}

MHD_Result RefuseHost(MHD_Connection* connection)
{
    MHD_Response* const response = MHD_create_response_from_buffer(
        sizeof kMisdirectedBody - 1, const_cast<char*>(kMisdirectedBody), MHD_RESPMEM_PERSISTENT);
    if (response) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    }
    return QueueAndDestroy(connection, MHD_HTTP_MISDIRECTED_REQUEST, response);
}

MHD_Result RedirectToHttps(uint16_t port, MHD_Connection* connection, const std::string& target,
                           unsigned& status)
{
    status = MHD_HTTP_BAD_REQUEST;
    const std::string url = httpsUrlOf(port, connection, target);
    MHD_Response* const response =
        MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    // Not with a target that would end the header.
    if (!url.empty() &&
        MHD_add_response_header(response, MHD_HTTP_HEADER_LOCATION, url.c_str()) == MHD_YES)
        status = MHD_HTTP_PERMANENT_REDIRECT;
    return QueueAndDestroy(connection, status, response);
}

IpAddress FindClientAddress(const AddressSet& trusted, MHD_Connection* connection,
                            const IpAddress& peer)
{
    std::optional<NetworkAddress> client;
    if (const HeaderLines list = linesOf(connection, kForwardedFor); !list.empty())
        client = FindClientInForwardedFor(list, trusted);
    else if (const HeaderLines elements = linesOf(connection, MHD_HTTP_HEADER_FORWARDED);
             !elements.empty())
        client = FindClientInForwarded(elements, trusted);
    return client ? client->toIpAddress() : peer;
}

}  // namespace qv::impl

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

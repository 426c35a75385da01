// The opening handshake of a WebSocket.

#include "server/UpgradeExchange.h"

#include <cstring>

namespace qv::impl
{

bool AsksForUpgrade(const char* upgrade, const char* connection)
{
    return upgrade && connection && std::strcmp(upgrade, "WebSocket") == 0 &&
           std::strstr(connection, "Upgrade");
}

std::optional<MHD_Result> AnswerUpgrade(http::HttpServer&, MHD_Connection*, const char*,
                                        const char*)
{
    return std::nullopt;
}

}  // namespace qv::impl

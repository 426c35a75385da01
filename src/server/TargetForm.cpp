// Request targets that are not in origin form: absolute form, and the asterisk of OPTIONS.

#include "server/TargetForm.h"

#include <Wendrel/HttpRequest.h>

#include "request/DispatchAccess.h"

#include <strings.h>

#include <list>
#include <string>
#include <string_view>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr const char* kHost = "host";

bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() &&
           strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace

bool SplitTarget(std::string_view method, std::string_view target, TargetParts& parts)
{
    if (target.empty() || target.front() == '/')
        return false;
    if (target == "*") {
        parts = {{}, {}};
        return method == "OPTIONS";
    }
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (!startsWith(target, scheme))
            continue;
        const std::string_view rest = target.substr(scheme.size());
        const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
        parts = {authority, rest.substr(authority.size())};
        // User information is an error, and a way to disguise a host.
        return !authority.empty() && authority.find('@') == std::string_view::npos;
    }
    return false;
}

void SetReceivedTarget(HttpBaseRequest& request, const std::string& received,
                       const TargetParts& parts)
{
    if (!request.hasParseError())
        DispatchAccess::originalFullUrl(request) = received;
    if (parts.authority.empty())
        return;
    http::HttpHeaders headers;
    for (const auto& [name, values] : request.getHeaders()) {
        if (name == kHost)
            continue;
        headers.addHeaderValues(std::string(name), std::list<std::string>(values),
                                *request.getHeaders().findLine(name));
    }
    headers.addHeaderValues(kHost, {std::string(parts.authority)});
    DispatchAccess::headers(request) = std::move(headers);
}

}  // namespace qv::impl

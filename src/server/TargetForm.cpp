// Request targets that are not in origin form: absolute form, and the asterisk of OPTIONS.

#include "server/TargetForm.h"

#include <Wendrel/HttpRequest.h>

#include "request/AllowedHosts.h"
#include "request/DispatchAccess.h"
#include "request/FieldText.h"

#include <list>
#include <string>
#include <string_view>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr const char* kHost = "host";

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
        if (!EqualsCaseless(target.substr(0, scheme.size()), scheme))
            continue;
        const std::string_view authority = GetTargetAuthority(target).value_or(std::string_view());
        parts = {authority, target.substr(scheme.size() + authority.size())};
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

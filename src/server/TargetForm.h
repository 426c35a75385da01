// Request targets that are not in origin form.
#ifndef WENDREL_SERVER_TARGETFORM_H
#define WENDREL_SERVER_TARGETFORM_H

#include <string>
#include <string_view>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

// The parts of a target such as "http://host:80/path?query", or "*".
struct TargetParts
{
    std::string_view authority;  // empty for "*"
    std::string_view origin;     // the path, if any, and the query
};

// False for a target in origin form, one that no origin server accepts, and a malformed one.
bool SplitTarget(std::string_view method, std::string_view target, TargetParts& parts);

// For a request that was given the origin form of `received`: keeps the target as received, and
// replaces the Host header by its authority. Before the application sees the request.
void SetReceivedTarget(HttpBaseRequest& request, const std::string& received,
                       const TargetParts& parts);

}  // namespace qv::impl

#endif

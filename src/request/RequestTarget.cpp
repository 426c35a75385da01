// The request target: bounded, parsed against a fixed local base, kept as text and as URL.

#include <Wendrel/HttpRequest.h>

#include <cstring>

namespace qv
{
namespace
{

constexpr size_t kTargetLimitBytes = 4096;

// The parser wants an absolute URL; host and port say nothing about the real ones.
constexpr const char* kBase = "http://127.0.0.1:80";

constexpr const char* kInvalidTarget = "Invalid URI";

}  // namespace

void HttpBaseRequest::setOriginalFullUrl(std::string&& target)
{
    if (target.size() > kTargetLimitBytes) {
        setParseError("URI is too long");
        mOriginalFullUrl = kInvalidTarget;
        return;
    }
    // Required: no slash is put in between, so that a target in another form than origin form
    // is refused by the parser.
    std::string error;
    mUrl.fromEncodedUtf8String(kBase + target, &error, true, kTargetLimitBytes, std::strlen(kBase));
    if (mUrl.isValid()) {
        mOriginalFullUrl = std::move(target);
        return;
    }
    setParseError("fail to parse request URI, " + error);
    mOriginalFullUrl = kInvalidTarget;
}

}  // namespace qv

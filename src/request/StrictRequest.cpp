// Requirements of RFC 9110 and RFC 9112 on a request head that two servers in a row could read
// differently.

#include "request/StrictRequest.h"

#include "request/FieldText.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace qv::impl
{
namespace
{

constexpr uint8_t kToken = 1;
constexpr uint8_t kTarget = 2;
constexpr uint8_t kRegisteredName = 4;
constexpr uint8_t kLiteral = 8;

// Of a host name, beside letters, digits and "%" with two digits.
constexpr std::string_view kNameMarks = "-._~!$&'()*+,;=";

constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7f;
constexpr size_t kByteValues = 256;

// Targets: browsers send more than the grammar has, but no fragment.
constexpr std::array<uint8_t, kByteValues> makeClasses()
{
    std::array<uint8_t, kByteValues> classes{};
    for (size_t i = 0; i < classes.size(); ++i) {
        const auto c = static_cast<unsigned char>(i);
        const auto text = static_cast<char>(i);
        if (IsAlphanumeric(text) || kTokenMarks.find(text) != std::string_view::npos)
            classes[i] |= kToken;
        if (c > kFirstPrintable && c != kDelete && c != '#')
            classes[i] |= kTarget;
        if (IsAlphanumeric(text) || kNameMarks.find(text) != std::string_view::npos)
            classes[i] |= kRegisteredName | kLiteral;
        if (text == '%')
            classes[i] |= kRegisteredName;
        if (text == ':')
            classes[i] |= kLiteral;
    }
    return classes;
}

constexpr std::array<uint8_t, kByteValues> kClasses = makeClasses();

bool consistsOf(std::string_view text, uint8_t wanted)
{
    uint8_t common = wanted;
    for (const char c : text)
        common &= kClasses[static_cast<unsigned char>(c)];
    return common == wanted;
}

bool isToken(std::string_view text)
{
    return !text.empty() && consistsOf(text, kToken);
}

// Any but the tab.
bool isControl(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return (byte < kFirstPrintable && c != '\t') || byte == kDelete;
}

// Whether one of eight bytes is below 0x20 or is 0x7f.
bool mayHaveControl(uint64_t bytes)
{
    constexpr uint64_t kOnes = 0x0101010101010101;
    constexpr uint64_t kHighBits = kOnes << 7;
    const uint64_t deletes = bytes ^ (kOnes * kDelete);
    const uint64_t below = (bytes - kOnes * kFirstPrintable) & ~bytes;
    return ((below | ((deletes - kOnes) & ~deletes)) & kHighBits) != 0;
}

uint64_t loadBytes(const char* at)
{
    uint64_t bytes = 0;
    std::memcpy(&bytes, at, sizeof bytes);
    return bytes;
}

bool hasControl(std::string_view text)
{
    constexpr size_t kStep = sizeof(uint64_t);
    if (text.size() >= kStep) {
        const char* const last = text.data() + text.size() - kStep;
        bool isSuspicious = mayHaveControl(loadBytes(last));
        for (const char* at = text.data(); at < last; at += kStep)
            isSuspicious |= mayHaveControl(loadBytes(at));
        if (!isSuspicious)
            return false;
    }
    return std::any_of(text.begin(), text.end(), &isControl);
}

bool isHexDigit(char c)
{
    return IsDigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

bool isPercentEncoded(std::string_view text)
{
    constexpr size_t kDigits = 2;
    for (size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
        const std::string_view digits = text.substr(at + 1, kDigits);
        if (digits.size() != kDigits || !std::all_of(digits.begin(), digits.end(), &isHexDigit))
            return false;
    }
    return true;
}

// A host with or without a port, or nothing. The address in brackets is not parsed.
bool isHost(std::string_view value)
{
    const bool isLiteral = !value.empty() && value.front() == '[';
    const size_t hostEnd = isLiteral ? value.find(']') : std::min(value.find(':'), value.size());
    if (hostEnd == std::string_view::npos)
        return false;
    const std::string_view host = value.substr(isLiteral ? 1 : 0, hostEnd - (isLiteral ? 1 : 0));
    const std::string_view rest = value.substr(hostEnd + (isLiteral ? 1 : 0));
    if (!rest.empty() &&
        (rest.front() != ':' || !std::all_of(rest.begin() + 1, rest.end(), &IsDigit)))
        return false;
    if (isLiteral)
        return !host.empty() && consistsOf(host, kLiteral);
    return consistsOf(host, kRegisteredName) && isPercentEncoded(host);
}

// "host:port", "[IPv6 address]:port".
bool isAuthority(std::string_view target)
{
    const size_t colon = target.rfind(':');
    if (colon == std::string_view::npos || colon == 0)
        return false;
    const std::string_view port = target.substr(colon + 1);
    const std::string_view host = target.substr(0, colon);
    const bool isBracketed = host.front() == '[' && host.back() == ']' && host.size() > 2;
    return !port.empty() && std::all_of(port.begin(), port.end(), &IsDigit) &&
           host.find_first_of("/?@\\") == std::string_view::npos &&
           (isBracketed || host.find_first_of("[]:") == std::string_view::npos);
}

// "scheme://authority", followed by anything.
bool isAbsolute(std::string_view target)
{
    const size_t colon = target.find("://");
    if (colon == std::string_view::npos || colon == 0 || !IsLetter(target.front()))
        return false;
    const std::string_view scheme = target.substr(0, colon);
    const std::string_view rest = target.substr(colon + std::strlen("://"));
    return std::all_of(
               scheme.begin(), scheme.end(),
               [](char c) { return IsAlphanumeric(c) || c == '+' || c == '-' || c == '.'; }) &&
           !rest.empty() && rest.front() != '/' && rest.front() != '?';
}

bool isTarget(std::string_view method, std::string_view target)
{
    if (!consistsOf(target, kTarget) || target.empty())
        return false;
    if (method == "CONNECT")
        return isAuthority(target);
    if (target.front() == '/')
        return true;
    return target == "*" ? method == "OPTIONS" : isAbsolute(target);
}

// Decimal, below 2^63.
bool isLength(std::string_view value)
{
    constexpr std::string_view kMaxLength = "9223372036854775807";
    if (value.empty() || !std::all_of(value.begin(), value.end(), &IsDigit))
        return false;
    value.remove_prefix(std::min(value.find_first_not_of('0'), value.size()));
    return value.size() < kMaxLength.size() ||
           (value.size() == kMaxLength.size() && value <= kMaxLength);
}

// A well-formed list with another coding than "chunked".
bool hasUnknownCoding(std::string_view list)
{
    bool hasUnknown = false;
    for (bool isLast = false; !isLast;) {
        const size_t comma = list.find(',');
        isLast = comma == std::string_view::npos;
        const std::string_view element = Trimmed(list.substr(0, comma));
        const std::string_view coding = Trimmed(element.substr(0, element.find(';')));
        if (!isToken(coding))
            return false;
        hasUnknown |= !EqualsCaseless(coding, "chunked");
        list.remove_prefix(isLast ? list.size() : comma + 1);
    }
    return hasUnknown;
}

}  // namespace

StrictRequest::StrictRequest(std::string_view method, std::string_view target, bool isHttp10)
    : mIsHttp10(isHttp10)
{
    if (!isToken(method))
        refuse("the method is no token");
    else if (!isTarget(method, target))
        refuse("the target has no valid form");
}

void StrictRequest::refuse(const char* reason, unsigned status)
{
    if (mRefusal.status == 0)
        mRefusal = {status, reason};
}

void StrictRequest::takeHeader(std::string_view name, std::string_view value)
{
    constexpr std::string_view kHost = "host";
    constexpr std::string_view kContentLength = "content-length";
    constexpr std::string_view kTransferEncoding = "transfer-encoding";
    if (!isToken(name))
        refuse("a header name is no token");
    if (hasControl(value))
        refuse("a header value contains a control character");
    switch (name.size()) {
    case kHost.size():
        if (EqualsCaseless(name, kHost))
            takeHost(value);
        break;
    case kContentLength.size():
        if (EqualsCaseless(name, kContentLength))
            takeContentLength(value);
        break;
    case kTransferEncoding.size():
        if (EqualsCaseless(name, kTransferEncoding))
            takeTransferEncoding(value);
        break;
    default:
        break;
    }
}

void StrictRequest::takeHost(std::string_view value)
{
    ++mHosts;
    if (!isHost(Trimmed(value)))
        refuse("a malformed Host");
}

void StrictRequest::takeContentLength(std::string_view value)
{
    if (++mLengths > 1)
        refuse("several Content-Length");
    else if (!isLength(value))
        refuse("a malformed Content-Length");
}

void StrictRequest::takeTransferEncoding(std::string_view value)
{
    if (++mCodings > 1)
        refuse("several Transfer-Encoding");
    else if (mIsHttp10)
        refuse("a Transfer-Encoding in HTTP/1.0");
    else if (hasUnknownCoding(value))
        mHasUnknownCoding = true;
    else if (!EqualsCaseless(value, "chunked"))
        refuse("a malformed Transfer-Encoding");
}

Refusal StrictRequest::finish()
{
    if (mLengths != 0 && mCodings != 0)
        refuse("a Content-Length beside a Transfer-Encoding");
    if (mHosts > 1)
        refuse("several Host");
    if (mHosts == 0 && !mIsHttp10)
        refuse("no Host");
    // Last: a head with another defect has no meaning that could be implemented.
    if (mHasUnknownCoding)
        refuse("an unknown transfer coding", kNotImplemented);
    return mRefusal;
}

}  // namespace qv::impl

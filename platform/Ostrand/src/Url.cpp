// URLs by Boost.URL, with a pass before it that takes what browsers send beyond the RFC and
// refuses, with a reason and a place, what the parser would let through or not explain.

#include <Ostrand/Url.h>

#include <boost/locale/utf.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

namespace qv
{
namespace
{

constexpr unsigned long kHighestPort = 65535;

// All of printable ASCII that the RFC allows in neither path nor query.
constexpr std::string_view kTolerated = "|\\^`{}\"<>[]";

// Besides letters and digits.
constexpr std::string_view kSchemeMarks = "+-.";
constexpr std::string_view kHostMarks = "-._~!$&'()*+,;=%";

struct Refusal
{
    std::string what;
    size_t byte;
};

using MaybeRefusal = std::optional<Refusal>;

// Where the parts of the text begin and end. A missing authority is empty and stands
// behind the scheme.
struct Outline
{
    size_t schemeEnd = 0;  // 0 when there is none
    size_t authorityBegin = 0;
    size_t authorityEnd = 0;
    size_t hostBegin = 0;
    size_t hostEnd = 0;
    size_t fragmentBegin = 0;  // at its "#", or the size of the text
};

bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isHexDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isLetterDigitOr(char c, std::string_view marks)
{
    return isLetter(c) || isDigit(c) || marks.find(c) != std::string_view::npos;
}

int hexValue(char c)
{
    return isDigit(c) ? c - '0' : (c | 0x20) - 'a' + 10;
}

void outlineAuthority(std::string_view text, Outline& outline)
{
    const std::string_view authority =
        text.substr(outline.authorityBegin, outline.authorityEnd - outline.authorityBegin);
    const size_t host = authority.rfind('@') + 1;  // 0 without user information
    const bool inBrackets = host < authority.size() && authority[host] == '[';
    const size_t closing = inBrackets ? authority.find(']', host) : host;
    const size_t colon = authority.find(':', closing);
    outline.hostBegin = outline.authorityBegin + host;
    outline.hostEnd = outline.authorityBegin + std::min(colon, authority.size());
}

Outline outlineOf(std::string_view text)
{
    Outline outline;
    const size_t colon = text.find_first_of(":/?#");
    if (colon != std::string_view::npos && text[colon] == ':')
        outline.schemeEnd = colon;
    const bool hasAuthority = text.substr(outline.schemeEnd, 3) == "://";
    outline.authorityBegin = outline.schemeEnd + (hasAuthority ? 3 : 1);
    outline.authorityBegin = std::min(outline.authorityBegin, text.size());
    outline.authorityEnd = outline.authorityBegin;
    if (hasAuthority)
        outline.authorityEnd =
            std::min(text.find_first_of("/?#", outline.authorityBegin), text.size());
    outlineAuthority(text, outline);
    outline.fragmentBegin = std::min(text.find('#'), text.size());
    return outline;
}

MaybeRefusal checkLength(std::string_view text, const Outline& outline, unsigned long maxLength)
{
    if (text.size() - outline.authorityEnd <= maxLength)
        return std::nullopt;
    return Refusal{"path, query and fragment longer than " + std::to_string(maxLength) + " bytes",
                   outline.authorityEnd + maxLength};
}

MaybeRefusal checkBytes(std::string_view text)
{
    for (size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte == ' ')
            return Refusal{"space", at};
        if (byte < 0x20 || byte == 0x7F)
            return Refusal{"control character", at};
        if (byte == '%' &&
            (at + 2 >= text.size() || !isHexDigit(text[at + 1]) || !isHexDigit(text[at + 2])))
            return Refusal{"'%' not followed by two hexadecimal digits", at};
    }
    return std::nullopt;
}

MaybeRefusal checkScheme(std::string_view text, const Outline& outline)
{
    if (outline.schemeEnd == 0)
        return Refusal{"no scheme", 0};
    for (size_t at = 0; at < outline.schemeEnd; ++at) {
        if (!isLetterDigitOr(text[at], kSchemeMarks) || (at == 0 && !isLetter(text[at])))
            return Refusal{"character not allowed in a scheme", at};
    }
    return std::nullopt;
}

// Whether the brackets hold an address is left to the parser.
MaybeRefusal checkBrackets(std::string_view host, size_t hostBegin)
{
    const size_t closing = host.find(']');
    if (closing == std::string_view::npos)
        return Refusal{"'[' without ']'", hostBegin};
    if (closing + 1 != host.size())
        return Refusal{"']' not followed by a port or the end of the host",
                       hostBegin + closing + 1};
    return std::nullopt;
}

MaybeRefusal checkHost(std::string_view text, const Outline& outline)
{
    const bool inBrackets = outline.hostBegin < outline.hostEnd && text[outline.hostBegin] == '[';
    const size_t end = inBrackets ? outline.hostBegin : outline.hostEnd;
    for (size_t at = outline.authorityBegin; at < end; ++at) {
        // The parser would take a second '@' for the beginning of the path.
        const bool separates =
            at < outline.hostBegin &&
            (text[at] == ':' || (text[at] == '@' && at + 1 == outline.hostBegin));
        if (!separates && !isLetterDigitOr(text[at], kHostMarks))
            return Refusal{"character not allowed in a host", at};
    }
    if (!inBrackets)
        return std::nullopt;
    return checkBrackets(text.substr(outline.hostBegin, outline.hostEnd - outline.hostBegin),
                         outline.hostBegin);
}

// The parser takes a port of any size, and other bytes right behind the digits.
MaybeRefusal checkPort(std::string_view text, const Outline& outline)
{
    unsigned long port = 0;
    for (size_t at = outline.hostEnd + 1; at < outline.authorityEnd; ++at) {
        if (!isDigit(text[at]))
            return Refusal{"port followed by something else than '/', '?', '#' or the end", at};
        port = port * 10 + static_cast<unsigned long>(hexValue(text[at]));
        if (port > kHighestPort)
            return Refusal{"port above 65535", outline.hostEnd + 1};
    }
    return std::nullopt;
}

MaybeRefusal checkFragment(std::string_view text, const Outline& outline)
{
    for (size_t at = outline.fragmentBegin + 1; at < text.size(); ++at) {
        if (text[at] == '#' || kTolerated.find(text[at]) != std::string_view::npos)
            return Refusal{"character not allowed in a fragment", at};
    }
    return std::nullopt;
}

std::string decoded(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '%') {
            result += static_cast<char>(hexValue(text[at + 1]) * 16 + hexValue(text[at + 2]));
            at += 2;
        } else {
            result += text[at];
        }
    }
    return result;
}

// Where in `text` the byte stands that is number `count` after decoding.
size_t placeBeforeDecoding(std::string_view text, size_t count)
{
    size_t at = 0;
    for (; count > 0; --count)
        at += text[at] == '%' ? 3 : 1;
    return at;
}

// The first byte that begins no character; nothing when all is UTF-8.
std::optional<size_t> findBadUtf8(std::string_view text)
{
    using Traits = boost::locale::utf::utf_traits<char>;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end) {
        const char* const begin = at;
        const auto value = Traits::decode(at, end);
        if (value == boost::locale::utf::illegal || value == boost::locale::utf::incomplete)
            return static_cast<size_t>(begin - text.data());
    }
    return std::nullopt;
}

MaybeRefusal checkRawUtf8(std::string_view text)
{
    if (const auto bad = findBadUtf8(text))
        return Refusal{"bytes that are not UTF-8", *bad};
    return std::nullopt;
}

// All components in one go: separators are ASCII, so that no character reaches over one.
MaybeRefusal checkDecodedUtf8(std::string_view text)
{
    if (text.find('%') == std::string_view::npos)
        return std::nullopt;  // nothing to decode, and what stands there has been looked at
    if (const auto bad = findBadUtf8(decoded(text)))
        return Refusal{"percent-encoded bytes that are not UTF-8", placeBeforeDecoding(text, *bad)};
    return std::nullopt;
}

MaybeRefusal check(std::string_view text, const Outline& outline, bool strictUtf8,
                   unsigned long maxLength)
{
    MaybeRefusal refusal = checkLength(text, outline, maxLength);
    if (!refusal)
        refusal = checkBytes(text);
    if (!refusal)
        refusal = checkScheme(text, outline);
    if (!refusal)
        refusal = checkHost(text, outline);
    if (!refusal)
        refusal = checkPort(text, outline);
    if (!refusal)
        refusal = checkFragment(text, outline);
    if (!refusal)
        refusal = checkRawUtf8(text);
    if (!refusal && strictUtf8)
        refusal = checkDecodedUtf8(text);
    return refusal;
}

// What the RFC does not allow after the authority; taken as if percent-encoded.
bool isTolerated(char c)
{
    return static_cast<unsigned char>(c) >= 0x80 || kTolerated.find(c) != std::string_view::npos;
}

bool hasTolerated(std::string_view text, const Outline& outline)
{
    text.remove_prefix(outline.authorityEnd);
    return std::any_of(text.begin(), text.end(), isTolerated);
}

std::string encodeTolerated(std::string_view text, const Outline& outline)
{
    constexpr char kHexDigits[] = "0123456789ABCDEF";
    std::string encoded(text.substr(0, outline.authorityEnd));
    for (const char c : text.substr(outline.authorityEnd)) {
        const auto byte = static_cast<unsigned char>(c);
        if (isTolerated(c))
            (encoded += '%') += {kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
        else
            encoded += c;
    }
    return encoded;
}

std::vector<std::string> segmentsOf(std::string_view encodedPath)
{
    std::vector<std::string> segments;
    if (!encodedPath.empty() && encodedPath.front() == '/')
        encodedPath.remove_prefix(1);
    if (encodedPath.empty())
        return segments;
    for (size_t begin = 0; begin <= encodedPath.size();) {
        const size_t end = std::min(encodedPath.find('/', begin), encodedPath.size());
        segments.push_back(decoded(encodedPath.substr(begin, end - begin)));
        begin = end + 1;
    }
    return segments;
}

std::string lowerCase(std::string text)
{
    for (char& c : text) {
        if (isLetter(c))
            c = static_cast<char>(c | 0x20);
    }
    return text;
}

}  // namespace

bool Url::fromEncodedUtf8String(const std::string& text, std::string* error, bool strictUtf8,
                                unsigned long maxLength)
{
    const Outline outline = outlineOf(text);
    MaybeRefusal refusal = check(text, outline, strictUtf8, maxLength);
    Url result;
    if (!refusal) {
        const bool mustEncode = hasTolerated(text, outline);
        const std::string encoded = mustEncode ? encodeTolerated(text, outline) : std::string();
        if (const auto parsed = boost::urls::parse_uri(mustEncode ? encoded : text)) {
            result.mScheme = lowerCase(std::string(parsed->scheme()));
            result.mHost = parsed->host_address();
            result.mPort = parsed->port_number();
            result.mEncodedPath = std::string(parsed->encoded_path());
            result.mPath = decoded(result.mEncodedPath);
            result.mPathSegments = segmentsOf(result.mEncodedPath);
            result.mQuery = std::string(parsed->encoded_query());
            result.mFragment = decoded(std::string_view(parsed->encoded_fragment()));
            result.mValid = true;
        } else {
            // All else that the parser could refuse has been refused above.
            refusal = Refusal{"host in brackets that is no address", outline.hostBegin};
        }
    }
    *this = std::move(result);
    if (refusal && error)
        *error = refusal->what + " at byte " + std::to_string(refusal->byte);
    return mValid;
}

}  // namespace qv

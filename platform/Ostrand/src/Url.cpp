// URLs: the parts of the text are found first, then each rule is checked, which gives the reason
// and the byte of a refusal. Bytes that browsers send beyond the RFC are percent-encoded.

#include <Ostrand/Url.h>

#include <qvSystem/IpAddress.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace qv
{
namespace
{

constexpr unsigned kHighestPort = 65535;

// All of printable ASCII that the RFC allows in neither path nor query.
constexpr std::string_view kTolerated = "|\\^`{}\"<>[]";

// Besides letters and digits. A "%" has been checked before.
constexpr std::string_view kSchemeMarks = "+-.";
constexpr std::string_view kHostMarks = "-._~!$&'()*+,;=%";

// Meanings of a byte for the text around it, as bits.
enum ByteKind : uint8_t {
    kForbidden = 1,
    kPercent = 2,
    kBeyondAscii = 4,
    kMustBeEncoded = 8,
    kOfScheme = 16,
    kOfHost = 32,
    kPartBegin = 64,  // of path, query or fragment
    kColon = 128
};

constexpr bool isLetter(char c)
{
    return (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
}

constexpr bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr bool isHexDigit(char c)
{
    return isDigit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f');
}

constexpr bool isOneOf(std::string_view marks, char c)
{
    return marks.find(c) != std::string_view::npos;
}

constexpr bool isControl(unsigned byte)
{
    return byte < 0x20 || byte == 0x7F;
}

constexpr int kindsOf(unsigned byte)
{
    const auto c = static_cast<char>(byte);
    const bool isAlphanumeric = isLetter(c) || isDigit(c);
    return (byte == ' ' || isControl(byte) ? +kForbidden : 0) | (byte == '%' ? +kPercent : 0) |
           (byte >= 0x80 ? kBeyondAscii | kMustBeEncoded : 0) |
           (isOneOf(kTolerated, c) ? +kMustBeEncoded : 0) |
           (isAlphanumeric || isOneOf(kSchemeMarks, c) ? +kOfScheme : 0) |
           (isAlphanumeric || isOneOf(kHostMarks, c) ? +kOfHost : 0) |
           (isOneOf("/?#", c) ? +kPartBegin : 0) | (byte == ':' ? +kColon : 0);
}

constexpr std::array<uint8_t, 256> makeKinds()
{
    std::array<uint8_t, 256> kinds{};
    for (unsigned byte = 0; byte < kinds.size(); ++byte)
        kinds[byte] = static_cast<uint8_t>(kindsOf(byte));
    return kinds;
}

constexpr std::array<uint8_t, 256> kKinds = makeKinds();

unsigned kindsOfChar(char c)
{
    return kKinds[static_cast<unsigned char>(c)];
}

// All kinds of byte there are in `text`.
unsigned kindsIn(std::string_view text)
{
    unsigned kinds = 0;
    for (const char c : text)
        kinds |= kindsOfChar(c);
    return kinds;
}

// The first byte from `at` on that is of one of `kinds`, or the size of the text.
size_t findKind(std::string_view text, size_t at, unsigned kinds)
{
    while (at < text.size() && !(kindsOfChar(text[at]) & kinds))
        ++at;
    return at;
}

struct Refusal
{
    std::string what;
    size_t at;  // in the text, from 0
};

using MaybeRefusal = std::optional<Refusal>;

// Where the parts of the text begin and end. A missing authority is empty and stands behind the
// scheme.
struct Outline
{
    size_t schemeEnd = 0;  // 0 when there is none
    size_t authorityBegin = 0;
    size_t hostBegin = 0;
    size_t hostEnd = 0;
    size_t authorityEnd = 0;
    size_t queryBegin = 0;     // at its "?", or the same as fragmentBegin
    size_t fragmentBegin = 0;  // at its "#", or the size of the text
};

void outlineAuthority(std::string_view authority, Outline& outline)
{
    const size_t host = authority.rfind('@') + 1;  // 0 without user information
    const bool inBrackets = host < authority.size() && authority[host] == '[';
    const size_t closing = inBrackets ? authority.find(']', host) : host;
    outline.hostBegin = outline.authorityBegin + host;
    outline.hostEnd =
        outline.authorityBegin + std::min(authority.find(':', closing), authority.size());
}

Outline outlineOf(std::string_view text)
{
    Outline outline;
    const size_t colon = findKind(text, 0, kColon | kPartBegin);
    if (colon < text.size() && text[colon] == ':')
        outline.schemeEnd = colon;
    const bool hasAuthority = text.substr(outline.schemeEnd, 3) == "://";
    outline.authorityBegin = std::min(outline.schemeEnd + (hasAuthority ? 3 : 1), text.size());
    outline.authorityEnd = outline.authorityBegin;
    if (hasAuthority)
        outline.authorityEnd = findKind(text, outline.authorityBegin, kPartBegin);
    outlineAuthority(
        text.substr(outline.authorityBegin, outline.authorityEnd - outline.authorityBegin),
        outline);
    outline.fragmentBegin = std::min(text.find('#', outline.authorityEnd), text.size());
    outline.queryBegin = std::min(text.find('?', outline.authorityEnd), outline.fragmentBegin);
    return outline;
}

unsigned hexValue(char c)
{
    return static_cast<unsigned>(isDigit(c) ? c - '0' : (c | 0x20) - 'a' + 10);
}

// The byte at `at`, which moves behind it; an escape is one byte when `decode` is set.
unsigned takeByte(std::string_view text, size_t& at, bool decode)
{
    const char c = text[at++];
    if (c != '%' || !decode)
        return static_cast<unsigned char>(c);
    at += 2;
    return hexValue(text[at - 2]) * 16 + hexValue(text[at - 1]);
}

std::string decoded(std::string_view text)
{
    if (text.find('%') == std::string_view::npos)
        return std::string(text);
    std::string result;
    result.reserve(text.size());
    for (size_t at = 0; at < text.size();)
        result += static_cast<char>(takeByte(text, at, true));
    return result;
}

MaybeRefusal checkLength(std::string_view text, const Outline& outline, unsigned long maxLength)
{
    if (text.size() - outline.authorityEnd <= maxLength)
        return std::nullopt;
    return Refusal{"path, query and fragment longer than " + std::to_string(maxLength) + " bytes",
                   outline.authorityEnd + maxLength};
}

MaybeRefusal checkEscape(std::string_view text, size_t at)
{
    if (at + 2 < text.size() && isHexDigit(text[at + 1]) && isHexDigit(text[at + 2]))
        return std::nullopt;
    return Refusal{"'%' not followed by two hexadecimal digits", at};
}

// A NUL would end a text that an application uses as a C string. Line ends and tabs in a query are
// left to the reader of its values.
MaybeRefusal checkEncodedControl(std::string_view text, size_t at, const Outline& outline)
{
    size_t next = at;
    const unsigned byte = takeByte(text, next, true);
    if (!isControl(byte) || at < outline.authorityEnd || at >= outline.fragmentBegin)
        return std::nullopt;
    if (at < outline.queryBegin)
        return Refusal{"percent-encoded control character in the path", at};
    if (isOneOf("\t\n\r", static_cast<char>(byte)))
        return std::nullopt;
    return Refusal{"percent-encoded control character in the query", at};
}

MaybeRefusal checkBytes(std::string_view text, const Outline& outline, bool isTarget)
{
    for (size_t at = 0; at < text.size(); ++at) {
        const unsigned kinds = kindsOfChar(text[at]);
        if (kinds & kForbidden)
            return Refusal{text[at] == ' ' ? "space" : "control character", at};
        if (!(kinds & kPercent))
            continue;
        MaybeRefusal refusal = checkEscape(text, at);
        if (!refusal && isTarget)
            refusal = checkEncodedControl(text, at, outline);
        if (refusal)
            return refusal;
    }
    return std::nullopt;
}

MaybeRefusal checkScheme(std::string_view text, const Outline& outline)
{
    if (outline.schemeEnd == 0)
        return Refusal{"no scheme", 0};
    for (size_t at = 0; at < outline.schemeEnd; ++at) {
        if (!(kindsOfChar(text[at]) & kOfScheme) || (at == 0 && !isLetter(text[0])))
            return Refusal{"character not allowed in a scheme", at};
    }
    return std::nullopt;
}

// The RFC's form for addresses yet to be invented: "v1.anything".
bool isFutureAddress(std::string_view text)
{
    const size_t dot = text.find('.');
    if (text.empty() || (text[0] | 0x20) != 'v' || dot == std::string_view::npos)
        return false;
    const std::string_view version = text.substr(1, dot - 1);
    const std::string_view address = text.substr(dot + 1);
    return !version.empty() && std::all_of(version.begin(), version.end(), isHexDigit) &&
           !address.empty() && std::all_of(address.begin(), address.end(), [](char c) {
               return c == ':' || (c != '%' && (kindsOfChar(c) & kOfHost));
           });
}

MaybeRefusal checkBrackets(std::string_view host, size_t hostBegin)
{
    const size_t closing = host.find(']');
    if (closing == std::string_view::npos)
        return Refusal{"'[' without ']'", hostBegin};
    if (closing + 1 != host.size())
        return Refusal{"']' not followed by a port or the end of the host",
                       hostBegin + closing + 1};
    const std::string_view address = host.substr(1, closing - 1);
    if (!isFutureAddress(address) &&
        IpAddress::fromText(std::string(address), 0).getFamily() != IpAddress::Family::V6)
        return Refusal{"host in brackets that is no address", hostBegin};
    return std::nullopt;
}

MaybeRefusal checkHost(std::string_view text, const Outline& outline, bool isTarget)
{
    const bool inBrackets = outline.hostBegin < outline.hostEnd && text[outline.hostBegin] == '[';
    const size_t end = inBrackets ? outline.hostBegin : outline.hostEnd;
    for (size_t at = outline.authorityBegin; at < end; ++at) {
        const bool separates =
            at < outline.hostBegin &&
            (text[at] == ':' || (text[at] == '@' && at + 1 == outline.hostBegin));
        if (!separates && !(kindsOfChar(text[at]) & kOfHost))
            return Refusal{"character not allowed in a host", at};
    }
    // Only an "@" of the target can take the host of the base away.
    if (isTarget && outline.hostBegin == outline.hostEnd)
        return Refusal{"no host", outline.hostBegin - 1};
    if (!inBrackets)
        return std::nullopt;
    return checkBrackets(text.substr(outline.hostBegin, outline.hostEnd - outline.hostBegin),
                         outline.hostBegin);
}

MaybeRefusal readPort(std::string_view text, const Outline& outline, uint16_t& port)
{
    unsigned number = 0;
    for (size_t at = outline.hostEnd + 1; at < outline.authorityEnd; ++at) {
        if (!isDigit(text[at]))
            return Refusal{"port followed by something else than '/', '?', '#' or the end", at};
        number = number * 10 + hexValue(text[at]);
        if (number > kHighestPort)
            return Refusal{"port above 65535", outline.hostEnd + 1};
    }
    port = static_cast<uint16_t>(number);
    return std::nullopt;
}

MaybeRefusal checkFragment(std::string_view text, const Outline& outline)
{
    for (size_t at = outline.fragmentBegin + 1; at < text.size(); ++at) {
        if (text[at] == '#' || isOneOf(kTolerated, text[at]))
            return Refusal{"character not allowed in a fragment", at};
    }
    return std::nullopt;
}

// Size in `text` of the UTF-8 character (RFC 3629) at `at`; 0 when none begins there.
size_t sizeOfCharacter(std::string_view text, size_t at, bool decode)
{
    const size_t begin = at;
    const unsigned lead = takeByte(text, at, decode);
    if (lead < 0x80)
        return at - begin;
    if (lead < 0xC0 || lead > 0xF7)
        return 0;
    const unsigned continuations = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    unsigned value = lead & (0x3Fu >> continuations);
    for (unsigned i = 0; i < continuations; ++i) {
        const unsigned byte = at < text.size() ? takeByte(text, at, decode) : 0;
        if ((byte & 0xC0) != 0x80)
            return 0;
        value = value << 6 | (byte & 0x3F);
    }
    constexpr unsigned kLowest[] = {0x80, 0x800, 0x10000};
    const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
    return value < kLowest[continuations - 1] || value > 0x10FFFF || isSurrogate ? 0 : at - begin;
}

// All components in one go: separators are ASCII, so that no character reaches over one.
MaybeRefusal checkUtf8(std::string_view text, bool decode, const char* what)
{
    for (size_t at = 0; at < text.size();) {
        const size_t size = sizeOfCharacter(text, at, decode);
        if (size == 0)
            return Refusal{what, at};
        at += size;
    }
    return std::nullopt;
}

MaybeRefusal check(std::string_view text, const Outline& outline, bool strictUtf8, bool isTarget)
{
    const unsigned kinds = kindsIn(text);
    MaybeRefusal refusal;
    if (kinds & (kForbidden | kPercent))
        refusal = checkBytes(text, outline, isTarget);
    if (!refusal)
        refusal = checkScheme(text, outline);
    if (!refusal)
        refusal = checkHost(text, outline, isTarget);
    if (!refusal)
        refusal = checkFragment(text, outline);
    if (!refusal && (kinds & kBeyondAscii))
        refusal = checkUtf8(text, false, "bytes that are not UTF-8");
    if (!refusal && strictUtf8 && (kinds & kPercent))
        refusal = checkUtf8(text, true, "percent-encoded bytes that are not UTF-8");
    return refusal;
}

// Path or query with the bytes that the RFC does not allow percent-encoded.
std::string encodeTolerated(std::string_view text)
{
    if (!(kindsIn(text) & kMustBeEncoded))
        return std::string(text);
    constexpr char kHexDigits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (kKinds[byte] & kMustBeEncoded)
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

std::string lowerCase(std::string_view text)
{
    std::string lower(text);
    for (char& c : lower) {
        if (isLetter(c))
            c = static_cast<char>(c | 0x20);
    }
    return lower;
}

std::string hostOf(std::string_view host)
{
    const bool inBrackets = !host.empty() && host.front() == '[';
    return decoded(inBrackets ? host.substr(1, host.size() - 2) : host);
}

// The text behind the mark at `mark`, if there is one.
std::string_view behind(std::string_view text, size_t mark)
{
    return mark < text.size() ? text.substr(mark + 1) : std::string_view();
}

}  // namespace

bool Url::fromEncodedUtf8String(const std::string& text, std::string* error, bool strictUtf8,
                                unsigned long maxLength)
{
    return fromEncodedUtf8String(text, error, strictUtf8, maxLength, 0);
}

bool Url::fromEncodedUtf8String(const std::string& text, std::string* error, bool strictUtf8,
                                unsigned long maxLength, size_t baseBytes)
{
    const std::string_view all(text);
    const Outline outline = outlineOf(all);
    Url result;
    MaybeRefusal refusal = checkLength(all, outline, maxLength);
    if (!refusal)
        refusal = check(all, outline, strictUtf8, baseBytes > 0);
    if (!refusal)
        refusal = readPort(all, outline, result.mPort);
    if (!refusal) {
        const auto part = [&](size_t begin, size_t end) { return all.substr(begin, end - begin); };
        result.mScheme = lowerCase(part(0, outline.schemeEnd));
        result.mHost = hostOf(part(outline.hostBegin, outline.hostEnd));
        result.mEncodedPath = encodeTolerated(part(outline.authorityEnd, outline.queryBegin));
        result.mPath = decoded(result.mEncodedPath);
        result.mPathSegments = segmentsOf(result.mEncodedPath);
        result.mQuery = encodeTolerated(behind(part(0, outline.fragmentBegin), outline.queryBegin));
        result.mFragment = decoded(behind(all, outline.fragmentBegin));
        result.mValid = true;
    }
    *this = std::move(result);
    // A port that began in the base went wrong with the first byte behind it.
    if (refusal && error)
        *error = refusal->what + " at byte " +
                 std::to_string(std::max(refusal->at, baseBytes) - baseBytes + 1);
    return mValid;
}

}  // namespace qv

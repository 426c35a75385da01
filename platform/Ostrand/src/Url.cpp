// URLs: a pass that takes what browsers send beyond the RFC and refuses, with a reason and a place,
// what is none. Scheme and authority are Boost.URL's; they are the same for most texts of a thread,
// and then not parsed again.

#include <Ostrand/Url.h>

#include <boost/locale/utf.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <algorithm>
#include <array>
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

// What a byte can mean for the text around it, as bits.
enum ByteKind : uint8_t { kForbidden = 1, kPercent = 2, kBeyondAscii = 4, kMustBeEncoded = 8 };

constexpr uint8_t kindsOf(unsigned byte)
{
    if (byte <= ' ' || byte == 0x7F)
        return kForbidden;
    if (byte == '%')
        return kPercent;
    if (byte >= 0x80)
        return kBeyondAscii | kMustBeEncoded;
    return kTolerated.find(static_cast<char>(byte)) != std::string_view::npos ? kMustBeEncoded : 0;
}

constexpr std::array<uint8_t, 256> makeKinds()
{
    std::array<uint8_t, 256> kinds{};
    for (unsigned byte = 0; byte < kinds.size(); ++byte)
        kinds[byte] = kindsOf(byte);
    return kinds;
}

constexpr std::array<uint8_t, 256> kKinds = makeKinds();

// All kinds of byte there are in `text`.
uint8_t kindsIn(std::string_view text)
{
    uint8_t kinds = 0;
    for (const char c : text)
        kinds |= kKinds[static_cast<unsigned char>(c)];
    return kinds;
}

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
    bool hasAuthority = false;
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

// What is to be known of a text whose beginning has been parsed before.
Outline outlineBehind(std::string_view text, size_t authorityEnd)
{
    Outline outline;
    outline.authorityEnd = authorityEnd;
    outline.fragmentBegin = std::min(text.find('#', authorityEnd), text.size());
    return outline;
}

Outline outlineOf(std::string_view text)
{
    Outline outline;
    const size_t colon = text.find_first_of(":/?#");
    if (colon != std::string_view::npos && text[colon] == ':')
        outline.schemeEnd = colon;
    outline.hasAuthority = text.substr(outline.schemeEnd, 3) == "://";
    outline.authorityBegin = outline.schemeEnd + (outline.hasAuthority ? 3 : 1);
    outline.authorityBegin = std::min(outline.authorityBegin, text.size());
    outline.authorityEnd = outline.authorityBegin;
    if (outline.hasAuthority)
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
        const uint8_t kinds = kKinds[static_cast<unsigned char>(text[at])];
        if (text[at] == '#' || kinds == kMustBeEncoded)
            return Refusal{"character not allowed in a fragment", at};
    }
    return std::nullopt;
}

std::string decoded(std::string_view text)
{
    if (text.find('%') == std::string_view::npos)
        return std::string(text);
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
    if (const auto bad = findBadUtf8(decoded(text)))
        return Refusal{"percent-encoded bytes that are not UTF-8", placeBeforeDecoding(text, *bad)};
    return std::nullopt;
}

// Scheme and authority, once they have been parsed.
struct Beginning
{
    std::string scheme;
    std::string host;
    uint16_t port = 0;
};

// A text in a place of its own, so that what a thread keeps needs no memory.
class KeptText
{
public:
    bool keep(std::string_view text)
    {
        mSize = text.size() <= mBytes.size() ? text.size() : 0;
        std::copy_n(text.begin(), mSize, mBytes.begin());
        return mSize == text.size();
    }

    std::string_view get() const { return {mBytes.data(), mSize}; }

private:
    std::array<char, 64> mBytes{};
    size_t mSize = 0;
};

// The beginning of the latest text of a thread, up to the end of its authority.
class KeptBeginning
{
public:
    // Whether `text` begins with it and goes on with something else than its authority.
    bool isOf(std::string_view text) const
    {
        const std::string_view kept = mText.get();
        if (kept.empty() || text.substr(0, kept.size()) != kept)
            return false;
        const char next = text.size() == kept.size() ? '/' : text[kept.size()];
        return next == '/' || next == '?' || next == '#';
    }

    size_t size() const { return mText.get().size(); }

    Beginning get() const { return {std::string(mScheme.get()), std::string(mHost.get()), mPort}; }

    void keep(std::string_view text, const Beginning& beginning)
    {
        mPort = beginning.port;
        if (!mScheme.keep(beginning.scheme) || !mHost.keep(beginning.host) || !mText.keep(text))
            mText.keep({});
    }

private:
    KeptText mText;  // empty when nothing is kept
    KeptText mScheme;
    KeptText mHost;
    uint16_t mPort = 0;
};

MaybeRefusal checkBeginning(std::string_view text, const Outline& outline)
{
    MaybeRefusal refusal = checkScheme(text, outline);
    if (!refusal)
        refusal = checkHost(text, outline);
    if (!refusal)
        refusal = checkPort(text, outline);
    return refusal;
}

MaybeRefusal check(std::string_view text, const Outline& outline, bool isBeginningKnown,
                   bool strictUtf8, unsigned long maxLength)
{
    const uint8_t kinds = kindsIn(text);
    MaybeRefusal refusal = checkLength(text, outline, maxLength);
    if (!refusal && (kinds & (kForbidden | kPercent)))
        refusal = checkBytes(text);
    if (!refusal && !isBeginningKnown)
        refusal = checkBeginning(text, outline);
    if (!refusal)
        refusal = checkFragment(text, outline);
    if (!refusal && (kinds & kBeyondAscii))
        refusal = checkRawUtf8(text);
    if (!refusal && strictUtf8 && (kinds & kPercent))
        refusal = checkDecodedUtf8(text);
    return refusal;
}

// What the RFC does not allow in path and query, percent-encoded.
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

std::string lowerCase(std::string text)
{
    for (char& c : text) {
        if (isLetter(c))
            c = static_cast<char>(c | 0x20);
    }
    return text;
}

MaybeRefusal parseBeginning(std::string_view text, const Outline& outline, Beginning& parsed)
{
    const auto url = boost::urls::parse_uri({text.data(), outline.authorityEnd});
    // All else that the parser could refuse has been refused before.
    if (!url)
        return Refusal{"host in brackets that is no address", outline.hostBegin};
    parsed = {lowerCase(std::string(url->scheme())), url->host_address(), url->port_number()};
    return std::nullopt;
}

// What follows the mark that stands at `mark`, if one does.
std::string_view behind(std::string_view text, size_t mark)
{
    return mark < text.size() ? text.substr(mark + 1) : std::string_view();
}

}  // namespace

bool Url::fromEncodedUtf8String(const std::string& text, std::string* error, bool strictUtf8,
                                unsigned long maxLength)
{
    // Servers parse all their targets behind the same beginning.
    thread_local KeptBeginning kept;
    const bool isKnown = kept.isOf(text);
    const Outline outline = isKnown ? outlineBehind(text, kept.size()) : outlineOf(text);
    Beginning beginning = isKnown ? kept.get() : Beginning();
    MaybeRefusal refusal = check(text, outline, isKnown, strictUtf8, maxLength);
    if (!refusal && !isKnown)
        refusal = parseBeginning(text, outline, beginning);
    // Without an authority the same beginning may go on with one: "x:/a" and "x://a".
    if (!refusal && !isKnown && outline.hasAuthority)
        kept.keep(std::string_view(text).substr(0, outline.authorityEnd), beginning);
    Url result;
    if (!refusal) {
        const std::string_view all(text);
        const size_t queryBegin =
            std::min(all.find('?', outline.authorityEnd), outline.fragmentBegin);
        result.mScheme = std::move(beginning.scheme);
        result.mHost = std::move(beginning.host);
        result.mPort = beginning.port;
        result.mEncodedPath =
            encodeTolerated(all.substr(outline.authorityEnd, queryBegin - outline.authorityEnd));
        result.mPath = decoded(result.mEncodedPath);
        result.mPathSegments = segmentsOf(result.mEncodedPath);
        result.mQuery = encodeTolerated(behind(all.substr(0, outline.fragmentBegin), queryBegin));
        result.mFragment = decoded(behind(all, outline.fragmentBegin));
        result.mValid = true;
    }
    *this = std::move(result);
    if (refusal && error)
        *error = refusal->what + " at byte " + std::to_string(refusal->byte);
    return mValid;
}

}  // namespace qv

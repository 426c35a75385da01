// URLs by Boost.URL, with a pass before it that takes what browsers send beyond the RFC and
// refuses, with a place and a reason, what the parser would let through or not explain.

#include <Ostrand/Url.h>

#include <boost/locale/utf.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <cctype>
#include <optional>
#include <string_view>

namespace qv
{
namespace
{

constexpr unsigned long kHighestPort = 65535;
constexpr std::string_view kTolerated = "|\\^`{}\"<>[]";

// Where in the text its parts begin. What follows the authority is path, query and fragment.
struct Outline
{
    size_t authorityBegin = 0;
    size_t authorityEnd = 0;
};

struct Refusal
{
    std::string what;
    size_t byte;
};

using MaybeRefusal = std::optional<Refusal>;

bool isHexDigit(char c)
{
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    return (c | 0x20) - 'a' + 10;
}

bool isControlOrSpace(unsigned char c)
{
    return c <= 0x20 || c == 0x7F;
}

Outline outlineOf(const std::string& text)
{
    Outline outline;
    const size_t slashes = text.find("://");
    outline.authorityBegin = slashes == std::string::npos ? 0 : slashes + 3;
    outline.authorityEnd = std::min(text.find_first_of("/?#", outline.authorityBegin), text.size());
    return outline;
}

MaybeRefusal checkBytes(const std::string& text)
{
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == ' ')
            return Refusal{"space", at};
        if (isControlOrSpace(static_cast<unsigned char>(text[at])))
            return Refusal{"control character", at};
        if (text[at] == '%' &&
            (at + 2 >= text.size() || !isHexDigit(text[at + 1]) || !isHexDigit(text[at + 2])))
            return Refusal{"'%' without two hexadecimal digits", at};
    }
    return std::nullopt;
}

// The parser takes a port of any size, and stops at a byte that no port can be followed by.
MaybeRefusal checkPort(const std::string& text, const Outline& outline)
{
    const std::string_view authority(text.data() + outline.authorityBegin,
                                     outline.authorityEnd - outline.authorityBegin);
    const size_t colon = authority.find(':', authority.rfind(']') + 1);
    const size_t user = authority.rfind('@');
    const size_t from = user == std::string_view::npos ? colon : authority.find(':', user);
    if (from == std::string_view::npos || authority.find(']', from) != std::string_view::npos)
        return std::nullopt;
    unsigned long port = 0;
    for (size_t at = from + 1; at < authority.size(); ++at) {
        if (authority[at] < '0' || authority[at] > '9')
            return Refusal{"port followed by something else", outline.authorityBegin + at};
        port = port * 10 + static_cast<unsigned long>(authority[at] - '0');
        if (port > kHighestPort)
            return Refusal{"port above 65535", outline.authorityBegin + from + 1};
    }
    return std::nullopt;
}

MaybeRefusal checkLength(const std::string& text, const Outline& outline, unsigned long maxLength)
{
    const size_t length = text.size() - outline.authorityEnd;
    if (length <= maxLength)
        return std::nullopt;
    return Refusal{"path, query and fragment longer than " + std::to_string(maxLength) + " bytes",
                   outline.authorityEnd + maxLength};
}

MaybeRefusal checkFragment(const std::string& text)
{
    const size_t first = text.find('#');
    const size_t second = first == std::string::npos ? first : text.find('#', first + 1);
    if (second == std::string::npos)
        return std::nullopt;
    return Refusal{"'#' inside the fragment", second};
}

// Percent-decoded text that remembers where each of its bytes stood before.
struct Decoded
{
    std::string bytes;
    std::vector<size_t> places;
};

Decoded decoded(const std::string& text)
{
    Decoded result;
    for (size_t at = 0; at < text.size(); ++at) {
        result.places.push_back(at);
        if (text[at] == '%') {
            result.bytes += static_cast<char>(hexValue(text[at + 1]) * 16 + hexValue(text[at + 2]));
            at += 2;
        } else {
            result.bytes += text[at];
        }
    }
    return result;
}

// The first byte that does not begin a character, or the size when there is none. Separators
// are ASCII, so no character reaches over the end of a component.
size_t findBadUtf8(const std::string& text)
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
    return text.size();
}

MaybeRefusal checkRawUtf8(const std::string& text)
{
    const size_t bad = findBadUtf8(text);
    if (bad == text.size())
        return std::nullopt;
    return Refusal{"bytes that are not UTF-8", bad};
}

MaybeRefusal checkDecodedUtf8(const std::string& text)
{
    const Decoded result = decoded(text);
    const size_t bad = findBadUtf8(result.bytes);
    if (bad == result.bytes.size())
        return std::nullopt;
    return Refusal{"percent-encoded bytes that are not UTF-8", result.places[bad]};
}

MaybeRefusal check(const std::string& text, const Outline& outline, bool strictUtf8,
                   unsigned long maxLength)
{
    if (auto refusal = checkLength(text, outline, maxLength))
        return refusal;
    if (auto refusal = checkBytes(text))
        return refusal;
    if (auto refusal = checkPort(text, outline))
        return refusal;
    if (auto refusal = checkFragment(text))
        return refusal;
    if (auto refusal = checkRawUtf8(text))
        return refusal;
    return strictUtf8 ? checkDecodedUtf8(text) : std::nullopt;
}

// What the RFC does not allow after the authority, percent-encoded.
std::string encodeTolerated(const std::string& text, size_t from)
{
    constexpr char kHexDigits[] = "0123456789ABCDEF";
    std::string encoded = text.substr(0, from);
    for (const char c : std::string_view(text).substr(from)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80 || kTolerated.find(c) != std::string_view::npos)
            (encoded += '%') += {kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
        else
            encoded += c;
    }
    return encoded;
}

std::vector<std::string> segmentsOf(std::string_view encodedPath)
{
    std::vector<std::string> segments;
    if (encodedPath.empty() || encodedPath == "/")
        return segments;
    if (encodedPath.front() == '/')
        encodedPath.remove_prefix(1);
    for (size_t begin = 0; begin <= encodedPath.size();) {
        const size_t end = std::min(encodedPath.find('/', begin), encodedPath.size());
        segments.push_back(decoded(std::string(encodedPath.substr(begin, end - begin))).bytes);
        begin = end + 1;
    }
    return segments;
}

std::string lowerCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string describe(const Refusal& refusal)
{
    return refusal.what + " at byte " + std::to_string(refusal.byte);
}

}  // namespace

bool Url::fromEncodedUtf8String(const std::string& text, std::string* error, bool strictUtf8,
                                unsigned long maxLength)
{
    *this = Url();
    const Outline outline = outlineOf(text);
    MaybeRefusal refusal = check(text, outline, strictUtf8, maxLength);
    const std::string encoded =
        refusal ? std::string() : encodeTolerated(text, outline.authorityEnd);
    const auto parsed = boost::urls::parse_uri(encoded);
    if (!refusal && !parsed)
        refusal = Refusal{"not a URL with scheme and host (" + parsed.error().message() + ")",
                          outline.authorityBegin};
    if (refusal) {
        if (error)
            *error = describe(*refusal);
        return false;
    }
    const boost::urls::url_view& url = *parsed;
    mScheme = lowerCase(std::string(url.scheme()));
    mHost = url.host_address();
    mPort = url.port_number();
    mEncodedPath = std::string(url.encoded_path());
    mPath = decoded(mEncodedPath).bytes;
    mPathSegments = segmentsOf(mEncodedPath);
    mQuery = std::string(url.encoded_query());
    mFragment = decoded(std::string(url.encoded_fragment())).bytes;
    mValid = true;
    return true;
}

}  // namespace qv

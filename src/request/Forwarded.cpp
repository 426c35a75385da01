// Lists of addresses, read from the right: text that a client has put before the elements of the
// proxies cannot change how those are read.

#include "request/Forwarded.h"

#include "request/FieldText.h"

#include <algorithm>
#include <string>
#include <utility>

namespace qv::impl
{
namespace
{

// Not allowed without quotes, and written without them by some proxies.
constexpr std::string_view kNodeMarks = ":[]";
constexpr std::string_view kObfuscatedMarks = "._-";
constexpr std::string_view kFor = "for";

constexpr size_t kMaxPortDigits = 5;

bool isOneOf(std::string_view marks, char c)
{
    return marks.find(c) != std::string_view::npos;
}

// "4711", or "_name" for a port that the proxy does not tell.
bool parsePort(std::string_view text, uint16_t& port)
{
    if (text.size() >= 2 && text.front() == '_')
        return std::all_of(text.begin(), text.end(), [](char c) {
            return IsAlphanumeric(c) || isOneOf(kObfuscatedMarks, c);
        });
    const std::optional<uint16_t> number = ParsePort(text);
    if (!number || text.size() > kMaxPortDigits)
        return false;
    port = *number;
    return true;
}

// "192.0.2.1", "192.0.2.1:4711", "2001:db8::1", "[2001:db8::1]", "[2001:db8::1]:4711".
std::optional<NetworkAddress> parseNode(std::string_view text)
{
    std::string_view host = text;
    std::string_view rest;
    if (!text.empty() && text.front() == '[') {
        const size_t bracket = text.find(']');
        if (bracket == std::string_view::npos)
            return std::nullopt;
        host = text.substr(1, bracket - 1);
        rest = text.substr(bracket + 1);
        if (host.find(':') == std::string_view::npos)
            return std::nullopt;
    } else if (const size_t colon = text.find(':'); colon == text.rfind(':')) {
        host = text.substr(0, colon);
        rest = text.substr(host.size());
    }
    std::optional<NetworkAddress> address = ParseNetworkAddress(host);
    if (address && !rest.empty() &&
        (rest.front() != ':' || !parsePort(rest.substr(1), address->port)))
        return std::nullopt;
    return address;
}

// Reads one element of Forwarded: pairs of name and value between semicolons.
class ElementReader
{
public:
    explicit ElementReader(std::string_view element) : mRest(element) {}

    // The value of "for"; none when there is none, there are several, or the element is malformed.
    std::optional<std::string> readFor()
    {
        std::optional<std::string> found;
        for (;;) {
            skipSpaces();
            if (!mRest.empty() && mRest.front() != ';') {
                std::string value;
                const std::string_view name = takeWhile([](char c) { return isToken(c); });
                if (name.empty() || !take('=') || !readValue(value))
                    return std::nullopt;
                if (isFor(name) && std::exchange(found, std::move(value)))
                    return std::nullopt;
                skipSpaces();
            }
            if (mRest.empty())
                return found;
            if (!take(';'))
                return std::nullopt;
        }
    }

private:
    static bool isToken(char c) { return IsAlphanumeric(c) || isOneOf(kTokenMarks, c); }

    static bool isFor(std::string_view name) { return EqualsCaseless(name, kFor); }

    bool take(char c)
    {
        if (mRest.empty() || mRest.front() != c)
            return false;
        mRest.remove_prefix(1);
        return true;
    }

    template <typename Predicate> std::string_view takeWhile(Predicate predicate)
    {
        const auto end = std::find_if_not(mRest.begin(), mRest.end(), predicate);
        const std::string_view taken = mRest.substr(0, static_cast<size_t>(end - mRest.begin()));
        mRest.remove_prefix(taken.size());
        return taken;
    }

    void skipSpaces()
    {
        takeWhile([](char c) { return isOneOf(kSpaces, c); });
    }

    bool readValue(std::string& value)
    {
        if (take('"'))
            return readQuoted(value);
        value = takeWhile([](char c) { return isToken(c) || isOneOf(kNodeMarks, c); });
        return !value.empty();
    }

    bool readQuoted(std::string& value)
    {
        while (!take('"')) {
            take('\\');
            if (mRest.empty())
                return false;
            value += mRest.front();
            mRest.remove_prefix(1);
        }
        return true;
    }

    std::string_view mRest;
};

std::optional<NetworkAddress> parseForwardedFor(std::string_view element)
{
    return parseNode(element);
}

std::optional<NetworkAddress> parseForwarded(std::string_view element)
{
    const std::optional<std::string> node = ElementReader(element).readFor();
    return node ? parseNode(*node) : std::nullopt;
}

// Where the quoted string begins whose closing quote is at `closing`; npos without one.
size_t findOpeningQuote(std::string_view line, size_t closing)
{
    while (closing != 0) {
        const size_t quote = line.rfind('"', closing - 1);
        if (quote == std::string_view::npos)
            break;
        size_t escapes = 0;
        while (escapes < quote && line[quote - 1 - escapes] == '\\')
            ++escapes;
        if (escapes % 2 == 0)
            return quote;
        closing = quote;
    }
    return std::string_view::npos;
}

// The last comma outside of quoted strings; npos without one.
size_t findLastComma(std::string_view line, bool hasQuotes)
{
    size_t end = line.size();
    while (end != 0) {
        const size_t found = line.find_last_of(hasQuotes ? ",\"" : ",", end - 1);
        if (found == std::string_view::npos || line[found] == ',')
            return found;
        end = findOpeningQuote(line, found);
        if (end == std::string_view::npos)
            return end;
    }
    return std::string_view::npos;
}

template <typename Parse>
std::optional<NetworkAddress> findClient(const HeaderLines& lines, const AddressSet& trusted,
                                         bool hasQuotes, Parse parse)
{
    std::optional<NetworkAddress> client;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        std::string_view rest = *line;
        for (bool isFirst = false; !isFirst;) {
            const size_t comma = findLastComma(rest, hasQuotes);
            isFirst = comma == std::string_view::npos;
            const std::string_view element = Trimmed(isFirst ? rest : rest.substr(comma + 1));
            rest = isFirst ? std::string_view() : rest.substr(0, comma);
            // A list may have empty elements.
            if (element.empty())
                continue;
            const std::optional<NetworkAddress> address = parse(element);
            if (!address)
                return client;
            client = address;
            if (!trusted.contains(*address))
                return client;
        }
    }
    return client;
}

}  // namespace

std::optional<NetworkAddress> FindClientInForwardedFor(const HeaderLines& lines,
                                                       const AddressSet& trusted)
{
    return findClient(lines, trusted, false, &parseForwardedFor);
}

std::optional<NetworkAddress> FindClientInForwarded(const HeaderLines& lines,
                                                    const AddressSet& trusted)
{
    return findClient(lines, trusted, true, &parseForwarded);
}

}  // namespace qv::impl

// Negotiation as RFC 9110 has it in section 12.

#include "Accept.h"

#include "Text.h"

#include <algorithm>

namespace qv::kit
{
namespace
{

constexpr int kFullWeight = 1000;
constexpr std::string_view kAny = "*";
constexpr std::string_view kAnyType = "*/*";

// Takes text up to `end`, which is removed; marks within quotation marks do not count.
std::string_view takeUntil(std::string_view& text, char end)
{
    bool isQuoted = false;
    size_t at = 0;
    for (; at < text.size(); ++at) {
        const char c = text[at];
        if (isQuoted && c == '\\')
            ++at;
        else if (c == '"')
            isQuoted = !isQuoted;
        else if (c == end && !isQuoted)
            break;
    }
    at = std::min(at, text.size());
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(std::min(at + 1, text.size()));
    return trimmed(part);
}

// "0", "0.5", "1.000"; -1 for anything else.
int parseWeight(std::string_view text)
{
    constexpr size_t kMaxDigits = 3;
    const std::string_view whole = text.substr(0, 1);
    if (whole != "0" && whole != "1")
        return -1;
    int weight = whole == "1" ? kFullWeight : 0;
    if (text.size() > 1 && text[1] != '.')
        return -1;
    const std::string_view digits = text.substr(std::min<size_t>(text.size(), 2));
    if (digits.size() > kMaxDigits)
        return -1;
    int place = kFullWeight;
    for (const char c : digits) {
        if (!isDigit(c))
            return -1;
        weight += (c - '0') * (place /= 10);
    }
    return weight <= kFullWeight ? weight : -1;
}

int weightOf(std::string_view parameters)
{
    while (!parameters.empty()) {
        const std::string_view parameter = takeUntil(parameters, ';');
        if (parameter.size() >= 2 && toLower(parameter[0]) == 'q' && parameter[1] == '=')
            return std::max(parseWeight(parameter.substr(2)), 0);
    }
    return kFullWeight;
}

}  // namespace

bool takeAccepted(std::string_view& list, std::string_view& name, int& weight)
{
    while (!list.empty()) {
        std::string_view element = takeUntil(list, ',');
        name = takeUntil(element, ';');
        if (name.empty())
            continue;
        weight = weightOf(element);
        return true;
    }
    return false;
}

int weightOfType(std::string_view accept, std::string_view type, bool& isNamed)
{
    enum Rank { None, Any, Group, Exact };
    const std::string_view group = type.substr(0, type.find('/') + 1);
    Rank best = trimmed(accept).empty() ? Any : None;
    int weight = best == Any ? kFullWeight : 0;
    std::string_view name;
    int its = 0;
    while (takeAccepted(accept, name, its)) {
        Rank rank = None;
        if (equalsIgnoringCase(name, type))
            rank = Exact;
        else if (name.size() == group.size() + 1 && name.back() == '*' &&
                 equalsIgnoringCase(name.substr(0, group.size()), group))
            rank = Group;
        else if (name == kAnyType)
            rank = Any;
        if (rank > best || (rank == best && rank != None && its > weight)) {
            best = rank;
            weight = its;
        }
    }
    isNamed = best == Exact;
    return weight;
}

int weightOfCoding(std::string_view acceptEncoding, std::string_view coding)
{
    constexpr std::string_view kIdentity = "identity";
    int named = -1;
    int any = -1;
    std::string_view name;
    int weight = 0;
    while (takeAccepted(acceptEncoding, name, weight)) {
        if (equalsIgnoringCase(name, coding))
            named = std::max(named, weight);
        else if (name == kAny)
            any = std::max(any, weight);
    }
    if (named >= 0)
        return named;
    if (coding != kIdentity)
        return std::max(any, 0);
    // Wanted least, but sent rather than nothing.
    return any == 0 ? 0 : 1;
}

}  // namespace qv::kit

// Reads and writes sizes with units.

#include "ByteSize.h"

#include <cstddef>
#include <cstdio>
#include <limits>

namespace filedrop
{

namespace
{

constexpr uint64_t kLargest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
constexpr char kUnits[] = "KMGT";
constexpr int kBitsPerUnit = 10;

char toUpper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// By how many bits the unit shifts; nothing when it is none.
std::optional<int> unitBits(std::string unit)
{
    for (char& c : unit)
        c = toUpper(c);
    if (unit.empty() || unit == "B")
        return 0;
    const std::string rest = unit.substr(1);
    if (!rest.empty() && rest != "B" && rest != "IB")
        return std::nullopt;
    for (int i = 0; kUnits[i] != '\0'; ++i) {
        if (unit[0] == kUnits[i])
            return (i + 1) * kBitsPerUnit;
    }
    return std::nullopt;
}

}  // namespace

std::optional<uint64_t> parseByteSize(const std::string& text)
{
    size_t digits = 0;
    uint64_t value = 0;
    for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9'; ++digits) {
        const auto digit = static_cast<uint64_t>(text[digits] - '0');
        if (value > (kLargest - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
    }
    if (digits == 0)
        return std::nullopt;
    const size_t unit = text.find_first_not_of(' ', digits);
    const std::optional<int> bits = unitBits(unit == std::string::npos ? "" : text.substr(unit));
    if (!bits || value > (kLargest >> *bits))
        return std::nullopt;
    return value << *bits;
}

std::string formatByteSize(uint64_t bytes)
{
    if (bytes < 1024)
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    auto value = static_cast<double>(bytes);
    value /= 1024;
    int unit = 0;
    while (value >= 1024 && kUnits[unit + 1] != '\0') {
        value /= 1024;
        ++unit;
    }
    char text[48];
    std::snprintf(text, sizeof text, "%.1f", value);
    std::string number = text;
    if (number.size() > 2 && number.compare(number.size() - 2, 2, ".0") == 0)
        number.resize(number.size() - 2);
    return number + " " + kUnits[unit] + "iB";
}

}  // namespace filedrop

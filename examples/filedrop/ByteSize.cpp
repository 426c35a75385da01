// Writes sizes with units.

#include "ByteSize.h"

#include <cstdio>

namespace filedrop
{

namespace
{

constexpr char kUnits[] = "KMGT";

}  // namespace

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

// Texts of times. Nothing here depends on the locale or the time zone.

#include "IsoTime.h"

#include <cstdio>
#include <ctime>

namespace filedrop
{

std::string formatIsoTime(int64_t seconds, int64_t nanoseconds)
{
    constexpr int kFirstYear = 1900;  // the origin of tm_year
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                  parts.tm_year + kFirstYear, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                  parts.tm_min, parts.tm_sec, static_cast<int>(nanoseconds / 1000000));
    return text;
}

}  // namespace filedrop

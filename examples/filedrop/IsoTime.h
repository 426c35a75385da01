/// Texts of times.
#ifndef FILEDROP_ISOTIME_H
#define FILEDROP_ISOTIME_H

#include <cstdint>
#include <string>

namespace filedrop
{

/// Seconds since 1970 with milliseconds as "1994-11-15T08:12:31.250Z".
std::string formatIsoTime(int64_t seconds, int64_t nanoseconds);

}  // namespace filedrop

#endif

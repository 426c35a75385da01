// Dates of HTTP headers.
#ifndef WENDREL_KIT_SRC_HTTPDATE_H
#define WENDREL_KIT_SRC_HTTPDATE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qv::kit
{

// Seconds since 1970 as "Tue, 15 Nov 1994 08:12:31 GMT".
std::string formatHttpDate(int64_t seconds);

// The seconds since 1970 of a date in one of the three forms of RFC 9110: the one above,
// "Tuesday, 15-Nov-94 08:12:31 GMT" (a year that would be more than 50 years after the
// one of `nowSeconds` is taken for the century before) and "Tue Nov 15 08:12:31 1994".
// Nothing for any other text.
std::optional<int64_t> parseHttpDate(std::string_view text, int64_t nowSeconds);

}  // namespace qv::kit

#endif

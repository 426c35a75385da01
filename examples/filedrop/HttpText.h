/// Texts of HTTP headers: dates, media types, names of downloads.
#ifndef FILEDROP_HTTPTEXT_H
#define FILEDROP_HTTPTEXT_H

#include <cstdint>
#include <optional>
#include <string>

namespace filedrop
{

/// Seconds since 1970 as "Tue, 15 Nov 1994 08:12:31 GMT".
std::string formatHttpDate(int64_t seconds);

/// The seconds since 1970 of a date in one of the three forms of RFC 9110: the one above,
/// "Tuesday, 15-Nov-94 08:12:31 GMT" (a year that would be more than 50 years after the
/// one of `nowSeconds` is taken for the century before) and "Tue Nov 15 08:12:31 1994".
/// Nothing for any other text.
std::optional<int64_t> parseHttpDate(const std::string& text, int64_t nowSeconds);

/// Seconds since 1970 with milliseconds as "1994-11-15T08:12:31.250Z".
std::string formatIsoTime(int64_t seconds, int64_t nanoseconds);

/// Media type by the extension of the name; "application/octet-stream" when unknown.
std::string mediaType(const std::string& name);

/// Value of a Content-Disposition header that has a browser save the file as `name`.
/// `name` must be valid UTF-8 without control characters.
std::string attachment(const std::string& name);

}  // namespace filedrop

#endif

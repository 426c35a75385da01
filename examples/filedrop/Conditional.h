/// Conditional requests and byte ranges, as RFC 9110 has them.
#ifndef FILEDROP_CONDITIONAL_H
#define FILEDROP_CONDITIONAL_H

#include <cstdint>
#include <optional>
#include <string>

namespace filedrop
{

/// The validators of a stored file.
struct Validators
{
    std::string etag;         ///< strong, with its quotes
    int64_t modifiedSeconds;  ///< since 1970
};

/// The conditional headers of a request; nothing: the header is absent.
struct Conditions
{
    std::optional<std::string> ifNoneMatch;
    std::optional<std::string> ifModifiedSince;
    std::optional<std::string> ifRange;
    std::optional<std::string> range;
};

/// Which bytes to send.
struct ByteRange
{
    enum Kind { Whole, Part, Unsatisfiable };

    Kind kind;
    uint64_t first;  ///< of Part
    uint64_t last;   ///< of Part; that byte included
};

/// An entity tag that differs whenever the file's content may differ.
std::string makeETag(uint64_t inode, uint64_t size, int64_t seconds, int64_t nanoseconds);

/// True when `header` (the value of If-None-Match) names the tag or is "*". Tags are
/// compared without regard to weakness.
bool namesETag(const std::string& header, const std::string& etag);

/// True when the client has the current version: the response is 304. Dates are used only without
/// If-None-Match; an invalid date is ignored.
bool isNotModified(const Conditions& conditions, const Validators& file, int64_t nowSeconds);

/// The range that the value of a Range header asks of `size` bytes. A unit other than bytes,
/// several ranges and malformed ones all give the whole.
ByteRange parseRange(const std::string& header, uint64_t size);

/// The range to send: the whole without Range or when If-Range names another state of the
/// file; a date there counts only when it is exactly the file's.
ByteRange chooseRange(const Conditions& conditions, const Validators& file, uint64_t size,
                      int64_t nowSeconds);

}  // namespace filedrop

#endif

// Conditional requests and byte ranges, as RFC 9110 has them in sections 13 and 14.
#ifndef WENDREL_KIT_SRC_CONDITIONAL_H
#define WENDREL_KIT_SRC_CONDITIONAL_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

// The state of a file, as its response tells it.
struct Validators
{
    std::string etag;             // with quotation marks, and W/ if it is weak; empty: none
    int64_t modifiedSeconds = 0;  // since 1970
};

// The headers of a request; nothing: absent.
struct Conditions
{
    std::optional<std::string_view> ifMatch;
    std::optional<std::string_view> ifUnmodifiedSince;
    std::optional<std::string_view> ifNoneMatch;
    std::optional<std::string_view> ifModifiedSince;
    std::optional<std::string_view> ifRange;
    std::optional<std::string_view> range;
};

enum class Condition : uint8_t {
    Met,
    NotModified,  // the client has the current state: 304
    Failed        // 412
};

// A part of a file.
struct ByteRange
{
    uint64_t first;
    uint64_t last;  // that byte included
};

// The parts of a file that a request wants.
struct ByteRanges
{
    enum Kind : uint8_t { Whole, Parts, Unsatisfiable };

    Kind kind;
    std::vector<ByteRange> parts;
};

// Elements of a header Range; one with more is unsatisfiable.
constexpr size_t kMaxRanges = 64;

// A file that has been modified within so many seconds may change once more within the same tick
// of its clock: its tag and date are no strong validators.
constexpr int64_t kSettledSeconds = 2;

// An entity tag that differs whenever the content of the file may differ. The time of the change is
// the system's: nobody sets it back.
std::string makeETag(uint64_t inode, uint64_t size, const timespec& modified,
                     const timespec& changed);

// Whether the list `header` names the tag, or is "*". Weak tags match by weak comparison only.
bool namesETag(std::string_view header, std::string_view etag, bool isStrongComparison);

// For GET and HEAD, in the order of section 13.2.2. Malformed dates are ignored.
Condition evaluate(const Conditions& conditions, const Validators& file, int64_t nowSeconds);

// The ranges that the value of a header Range wants of `size` bytes, those that overlap or nearly
// touch as one. A unit other than bytes and malformed lists give the whole.
ByteRanges parseRanges(std::string_view header, uint64_t size);

// The value of Content-Range for a part of `size` bytes.
std::string contentRange(const ByteRange& range, uint64_t size);

// The same after If-Range, for GET.
ByteRanges chooseRanges(const Conditions& conditions, const Validators& file, uint64_t size,
                        int64_t nowSeconds);

}  // namespace qv::kit

#endif

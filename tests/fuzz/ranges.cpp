// Range: parts lie within the file, apart from each other, and are no more than the limit.

#include "support/Check.h"

#include "Conditional.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace qv::kit;
    const std::string_view header(reinterpret_cast<const char*>(data), size);
    for (const uint64_t bytes : {uint64_t{0}, uint64_t{1}, uint64_t{1000}, UINT64_MAX / 2}) {
        ByteRanges ranges = parseRanges(header, bytes);
        FUZZ_CHECK((ranges.kind == ByteRanges::Parts) == !ranges.parts.empty());
        FUZZ_CHECK(ranges.parts.size() <= kMaxRanges);
        std::sort(
            ranges.parts.begin(), ranges.parts.end(),
            [](const ByteRange& left, const ByteRange& right) { return left.first < right.first; });
        const ByteRange* before = nullptr;
        for (const ByteRange& range : ranges.parts) {
            FUZZ_CHECK(range.first <= range.last && range.last < bytes);
            FUZZ_CHECK(!before || before->last < range.first);
            before = &range;
        }
        FUZZ_CHECK(ranges.kind != ByteRanges::Unsatisfiable || !header.empty());
    }
    return 0;
}

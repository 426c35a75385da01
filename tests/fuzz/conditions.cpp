// Lists of entity tags and dates: a tag that is found stands in the header, strong comparison finds
// no more than weak comparison, and a date that is read is written the same.

#include "support/Check.h"

#include "Conditional.h"
#include "HttpDate.h"
#include "Text.h"

#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace qv::kit;
    constexpr int64_t kNow = 1790000000;
    const std::string_view header(reinterpret_cast<const char*>(data), size);
    const bool isAny = header.find('*') != header.npos;
    for (const std::string tag : {"\"a-1\"", "W/\"a-1\"", "\"\""}) {
        const bool isWeaklyNamed = namesETag(header, tag, false);
        const bool isNamed = namesETag(header, tag, true);
        const std::string_view opaque = tag[0] == 'W' ? std::string_view(tag).substr(2) : tag;
        FUZZ_CHECK(isWeaklyNamed || !isNamed);
        FUZZ_CHECK(!isWeaklyNamed || isAny || header.find(opaque) != header.npos);
        FUZZ_CHECK(!isNamed || isAny || tag[0] != 'W');
        const Validators file{tag, 784887151};
        Conditions conditions;
        conditions.ifNoneMatch = conditions.ifMatch = header;
        conditions.ifModifiedSince = conditions.ifUnmodifiedSince = header;
        FUZZ_CHECK((evaluate(conditions, file, kNow) == Condition::Failed) == !isNamed);
        conditions.ifMatch.reset();
        conditions.ifRange = header;
        conditions.range = "bytes=0-0";
        const bool isPart = chooseRanges(conditions, file, 10, kNow).kind == ByteRanges::Parts;
        FUZZ_CHECK(!isPart || isNamed || parseHttpDate(trimmed(header), kNow));
    }
    if (const auto seconds = parseHttpDate(header, kNow))
        FUZZ_CHECK(parseHttpDate(formatHttpDate(*seconds), kNow) == seconds);
    return 0;
}

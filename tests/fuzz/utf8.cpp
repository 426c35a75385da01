// The strict UTF-8 check against a decoder that is driven by a table and shares nothing with it.

#include "request/Utf8.h"

#include "support/Check.h"
#include "support/ReferenceUtf8.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* begin = reinterpret_cast<const char*>(data);
    const std::string text(begin, size);
    const size_t expected = fuzz::FirstBadUtf8(text);

    FUZZ_CHECK(static_cast<size_t>(qv::impl::FindInvalidUtf8(begin, begin + size) - begin) ==
               expected);
    FUZZ_CHECK(qv::impl::IsValidUtf8(text) == (expected == size));

    // The part in front of the first error is valid by itself, and the rest begins with the error.
    if (expected < size) {
        const char* cut = begin + expected;
        FUZZ_CHECK(qv::impl::FindInvalidUtf8(begin, cut) == cut);
        FUZZ_CHECK(qv::impl::FindInvalidUtf8(cut, begin + size) == cut);
    }
    return 0;
}

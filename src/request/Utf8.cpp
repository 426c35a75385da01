// The strict UTF-8 check: RFC 3629 and nothing more.

#include "request/Utf8.h"

#include <cstdint>

namespace qv::impl
{
namespace
{

struct Sequence
{
    int continuationBytes;
    uint32_t leadBits;
    uint32_t least;  // anything below is not the shortest form
    uint32_t greatest;
};

constexpr Sequence kNoSequence{-1, 0, 0, 0};

Sequence sequenceOf(unsigned char lead)
{
    if (lead < 0x80)
        return {0, lead, 0, 0x7F};
    if ((lead & 0xE0) == 0xC0)
        return {1, lead & 0x1Fu, 0x80, 0x7FF};
    if ((lead & 0xF0) == 0xE0)
        return {2, lead & 0x0Fu, 0x800, 0xFFFF};
    if ((lead & 0xF8) == 0xF0)
        return {3, lead & 0x07u, 0x10000, 0x10FFFF};
    return kNoSequence;
}

bool isSurrogate(uint32_t value)
{
    return value >= 0xD800 && value <= 0xDFFF;
}

// The position after the sequence that starts at `at`, or null when there is none.
const char* afterSequence(const char* at, const char* end)
{
    const Sequence sequence = sequenceOf(static_cast<unsigned char>(*at));
    if (sequence.continuationBytes < 0 || end - at <= sequence.continuationBytes)
        return nullptr;
    uint32_t value = sequence.leadBits;
    for (int i = 1; i <= sequence.continuationBytes; ++i) {
        const auto byte = static_cast<unsigned char>(at[i]);
        if ((byte & 0xC0) != 0x80)
            return nullptr;
        value = (value << 6) | (byte & 0x3Fu);
    }
    if (value < sequence.least || value > sequence.greatest || isSurrogate(value))
        return nullptr;
    return at + 1 + sequence.continuationBytes;
}

}  // namespace

const char* FindInvalidUtf8(const char* begin, const char* end)
{
    const char* at = begin;
    while (at != end) {
        const char* next = afterSequence(at, end);
        if (!next)
            return at;
        at = next;
    }
    return end;
}

bool IsValidUtf8(const std::string& text)
{
    const char* end = text.data() + text.size();
    return FindInvalidUtf8(text.data(), end) == end;
}

}  // namespace qv::impl

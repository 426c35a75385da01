// The strict UTF-8 check: RFC 3629 and nothing more. Runs of ASCII are looked at 64 bytes at a
// time; everything else goes byte by byte through a table of states, without a branch.

#include "request/Utf8.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv::impl
{
namespace
{

// The bytes that may follow. Each value is the position of a state in a row of the table, in bits.
enum State : uint64_t {
    kBoundary = 0,  // a sequence has ended, or none has begun
    kError = 6,
    kOneMore = 12,  // so many continuation bytes are missing
    kTwoMore = 18,
    kThreeMore = 24,
    kAfterE0 = 30,  // the next byte is limited: shortest form, no surrogate, at most U+10FFFF
    kAfterEd = 36,
    kAfterF0 = 42,
    kAfterF4 = 48,
    kStatesEnd = 54
};
constexpr unsigned kStateBits = 6;
constexpr uint64_t kStateMask = (1u << kStateBits) - 1;

constexpr bool isWithin(unsigned byte, unsigned first, unsigned last)
{
    return byte >= first && byte <= last;
}

constexpr bool isContinuation(unsigned byte)
{
    return isWithin(byte, 0x80, 0xBF);
}

constexpr State afterLead(unsigned byte)
{
    if (byte <= 0x7F)
        return kBoundary;
    if (isWithin(byte, 0xC2, 0xDF))
        return kOneMore;
    if (byte == 0xE0)
        return kAfterE0;
    if (byte == 0xED)
        return kAfterEd;
    if (isWithin(byte, 0xE1, 0xEF))
        return kTwoMore;
    if (byte == 0xF0)
        return kAfterF0;
    if (byte == 0xF4)
        return kAfterF4;
    return isWithin(byte, 0xF1, 0xF3) ? kThreeMore : kError;
}

constexpr State after(State state, unsigned byte)
{
    switch (state) {
    case kBoundary:
        return afterLead(byte);
    case kOneMore:
        return isContinuation(byte) ? kBoundary : kError;
    case kTwoMore:
        return isContinuation(byte) ? kOneMore : kError;
    case kThreeMore:
        return isContinuation(byte) ? kTwoMore : kError;
    case kAfterE0:
        return isWithin(byte, 0xA0, 0xBF) ? kOneMore : kError;
    case kAfterEd:
        return isWithin(byte, 0x80, 0x9F) ? kOneMore : kError;
    case kAfterF0:
        return isWithin(byte, 0x90, 0xBF) ? kTwoMore : kError;
    case kAfterF4:
        return isWithin(byte, 0x80, 0x8F) ? kTwoMore : kError;
    default:
        return kError;
    }
}

// A row holds the successor of each state at the position of that state.
constexpr uint64_t rowOf(unsigned byte)
{
    uint64_t row = 0;
    for (uint64_t state = 0; state < kStatesEnd; state += kStateBits)
        row |= static_cast<uint64_t>(after(static_cast<State>(state), byte)) << state;
    return row;
}

constexpr std::array<uint64_t, 256> makeRows()
{
    std::array<uint64_t, 256> rows{};
    for (unsigned byte = 0; byte < rows.size(); ++byte)
        rows[byte] = rowOf(byte);
    return rows;
}

constexpr std::array<uint64_t, 256> kRows = makeRows();

// The lowest bits hold a state of the table; the bits above are ignored.
uint64_t step(uint64_t state, char byte)
{
    return kRows[static_cast<unsigned char>(byte)] >> (state & kStateMask);
}

using Lane = uint8_t __attribute__((vector_size(16)));
constexpr ptrdiff_t kBlockBytes = 4 * sizeof(Lane);

bool isAscii(const char* block)
{
    std::array<Lane, 4> lanes;
    std::memcpy(lanes.data(), block, sizeof lanes);
    const Lane seen = (lanes[0] | lanes[1]) | (lanes[2] | lanes[3]);
    std::array<uint64_t, 2> words;
    std::memcpy(words.data(), &seen, sizeof words);
    constexpr uint64_t kHighBits = 0x8080808080808080u;
    return ((words[0] | words[1]) & kHighBits) == 0;
}

// Where the sequence begins that is not complete at `at`.
const char* startOfSequence(const char* at, uint64_t state)
{
    if ((state & kStateMask) == kBoundary)
        return at;
    do
        --at;
    while (isContinuation(static_cast<unsigned char>(*at)));
    return at;
}

// A sequence begins at `at`, if anything does.
const char* findInvalidByteByByte(const char* at, const char* end)
{
    uint64_t state = kBoundary;
    const char* boundary = at;
    while (at != end && (state & kStateMask) != kError) {
        state = step(state, *at++);
        if ((state & kStateMask) == kBoundary)
            boundary = at;
    }
    return boundary;
}

}  // namespace

const char* FindInvalidUtf8(const char* begin, const char* end)
{
    const char* at = begin;
    uint64_t state = kBoundary;
    for (; end - at >= kBlockBytes; at += kBlockBytes) {
        const bool isAtBoundary = (state & kStateMask) == kBoundary;
        if (isAtBoundary && isAscii(at))
            continue;
        uint64_t next = state;
        for (ptrdiff_t i = 0; i < kBlockBytes; ++i)
            next = step(next, at[i]);
        if ((next & kStateMask) == kError)
            break;
        state = next;
    }
    return findInvalidByteByByte(startOfSequence(at, state), end);
}

bool IsValidUtf8(const std::string& text)
{
    const char* end = text.data() + text.size();
    return FindInvalidUtf8(text.data(), end) == end;
}

}  // namespace qv::impl

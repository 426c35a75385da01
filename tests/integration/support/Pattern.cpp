// Bodies of any length whose every byte is known from its place. The bytes repeat with a prime
// period, so that a block that is lost, doubled or moved shows.

#include "Pattern.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace integration
{

namespace
{

constexpr size_t kPatternBytes = 1048573;

const std::vector<char>& period()
{
    static const std::vector<char> bytes = [] {
        std::vector<char> made(kPatternBytes);
        std::mt19937 generator(20260217);
        for (char& byte : made)
            byte = static_cast<char>(generator() & 0xff);
        return made;
    }();
    return bytes;
}

}  // namespace

void fillPattern(char* out, size_t size, uint64_t offset)
{
    size_t done = 0;
    while (done < size) {
        const size_t start = static_cast<size_t>((offset + done) % kPatternBytes);
        const size_t piece = std::min(size - done, kPatternBytes - start);
        std::memcpy(out + done, period().data() + start, piece);
        done += piece;
    }
}

std::string pattern(size_t size)
{
    std::string text(size, '\0');
    fillPattern(text.data(), size, 0);
    return text;
}

void PatternChecker::take(const char* data, size_t size)
{
    mWanted.resize(std::max(mWanted.size(), size));
    fillPattern(mWanted.data(), size, mBytes);
    if (size > 0 && std::memcmp(data, mWanted.data(), size) != 0)
        mMatches = false;
    mBytes += size;
}

}  // namespace integration

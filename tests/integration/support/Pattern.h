/// Bodies of any length whose every byte is known from its place.
#ifndef WENDREL_TESTS_INTEGRATION_PATTERN_H
#define WENDREL_TESTS_INTEGRATION_PATTERN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace integration
{

/// Writes the bytes from `offset` on to `out`.
void fillPattern(char* out, size_t size, uint64_t offset);

/// The first `size` bytes.
std::string pattern(size_t size);

/// Takes a body piece by piece and compares each byte.
class PatternChecker
{
public:
    void take(const char* data, size_t size);

    uint64_t bytes() const { return mBytes; }

    /// True while every byte was the one its place demands.
    bool matches() const { return mMatches; }

private:
    std::vector<char> mWanted;
    uint64_t mBytes = 0;
    bool mMatches = true;
};

}  // namespace integration

#endif

// Heads of parts are made before the body is sent: reading allocates nothing.

#include "RangesSource.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <utility>

namespace qv::kit
{
namespace
{

// Of 128 random bits: no file has it by accident, and nobody can put it into one.
std::string makeBoundary()
{
    constexpr int kWords = 4;
    std::random_device random;
    std::string text;
    for (int i = 0; i < kWords; ++i) {
        std::array<char, 9> digits{};
        std::snprintf(digits.data(), digits.size(), "%08x", random());
        text += digits.data();
    }
    return text;
}

}  // namespace

RangesSource::RangesSource(std::unique_ptr<BodySource> file, const std::vector<ByteRange>& ranges,
                           uint64_t fileBytes, const std::string& type)
    : mFile(std::move(file)), mBoundary(makeBoundary())
{
    mParts.reserve(ranges.size() + 1);
    for (const ByteRange& range : ranges) {
        std::string head = mParts.empty() ? "--" : "\r\n--";
        head.append(mBoundary).append("\r\nContent-Type: ").append(type);
        head.append("\r\nContent-Range: ").append(contentRange(range, fileBytes));
        head.append("\r\n\r\n");
        add(std::move(head), range.first, range.last - range.first + 1);
    }
    add("\r\n--" + mBoundary + "--\r\n", 0, 0);
}

void RangesSource::add(std::string&& head, uint64_t first, uint64_t bytes)
{
    const uint64_t begin = std::exchange(mBytes, mBytes + head.size() + bytes);
    mParts.push_back({begin, std::move(head), first, bytes});
}

BodyRead RangesSource::read(uint64_t offset, char* buffer, size_t size)
{
    if (offset >= mBytes)
        return {BodyRead::End};
    const auto next =
        std::upper_bound(mParts.begin(), mParts.end(), offset,
                         [](uint64_t at, const Part& part) { return at < part.begin; });
    const Part& part = *std::prev(next);
    const uint64_t at = offset - part.begin;
    if (at < part.head.size()) {
        return {BodyRead::Data, part.head.copy(buffer, size, static_cast<size_t>(at))};
    }
    const uint64_t done = at - part.head.size();
    return mFile->read(part.first + done, buffer, std::min<uint64_t>(size, part.bytes - done));
}

}  // namespace qv::kit

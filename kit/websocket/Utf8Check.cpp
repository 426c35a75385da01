// The UTF-8 check of text that arrives in pieces.

#include "websocket/Utf8Check.h"

#include <cstring>

namespace qv::kit::websocket
{
namespace
{

constexpr size_t kBlockBytes = 32;
constexpr uint64_t kHighBits = 0x8080808080808080;
constexpr uint8_t kMinContinuation = 0x80;
constexpr uint8_t kMaxContinuation = 0xbf;

bool isAscii(const uint8_t* block)
{
    uint64_t words[kBlockBytes / sizeof(uint64_t)];
    std::memcpy(words, block, sizeof words);
    return ((words[0] | words[1] | words[2] | words[3]) & kHighBits) == 0;
}

}  // namespace

// The bounds of the second byte exclude longer forms, surrogates and values above U+10FFFF.
bool Utf8Check::begin(uint8_t lead)
{
    mLow = kMinContinuation;
    mHigh = kMaxContinuation;
    if (lead >= 0xc2 && lead <= 0xdf) {
        mMissing = 1;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        mMissing = 2;
        if (lead == 0xe0)
            mLow = 0xa0;
        else if (lead == 0xed)
            mHigh = 0x9f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        mMissing = 3;
        if (lead == 0xf0)
            mLow = 0x90;
        else if (lead == 0xf4)
            mHigh = 0x8f;
    } else {
        return false;
    }
    return true;
}

bool Utf8Check::feed(const uint8_t* bytes, size_t size)
{
    const uint8_t* const end = bytes + size;
    while (bytes != end) {
        if (mMissing == 0) {
            while (static_cast<size_t>(end - bytes) >= kBlockBytes && isAscii(bytes))
                bytes += kBlockBytes;
            while (bytes != end && *bytes < kMinContinuation)
                ++bytes;
            if (bytes == end)
                break;
            if (!begin(*bytes++))
                return false;
            continue;
        }
        if (*bytes < mLow || *bytes > mHigh)
            return false;
        mLow = kMinContinuation;
        mHigh = kMaxContinuation;
        --mMissing;
        ++bytes;
    }
    return true;
}

bool isUtf8(std::string_view text)
{
    Utf8Check check;
    return check.feed(reinterpret_cast<const uint8_t*>(text.data()), text.size()) &&
           check.isComplete();
}

}  // namespace qv::kit::websocket

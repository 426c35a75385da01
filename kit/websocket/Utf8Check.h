// The UTF-8 check of text that arrives in pieces.
#ifndef WENDREL_KIT_WEBSOCKET_UTF8CHECK_H
#define WENDREL_KIT_WEBSOCKET_UTF8CHECK_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qv::kit::websocket
{

// Accepts RFC 3629: shortest form, no surrogates, nothing above U+10FFFF. Fails at the first byte
// that cannot belong to valid text.
class Utf8Check
{
public:
    // False when the text is invalid; then `reset` before the next call.
    bool feed(const uint8_t* bytes, size_t size);

    // No character is cut off.
    bool isComplete() const { return mMissing == 0; }

    void reset() { mMissing = 0; }

private:
    bool begin(uint8_t lead);

    uint8_t mMissing = 0;  // bytes of the current character
    uint8_t mLow = 0;      // bounds of the next byte
    uint8_t mHigh = 0;
};

// Whether the whole of `text` is UTF-8.
bool isUtf8(std::string_view text);

}  // namespace qv::kit::websocket

#endif

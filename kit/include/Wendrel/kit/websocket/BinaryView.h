/// A view of bytes.
#ifndef WENDREL_KIT_WEBSOCKET_BINARYVIEW_H
#define WENDREL_KIT_WEBSOCKET_BINARYVIEW_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace qv::kit::websocket
{

/// Bytes that somebody else owns; a plain value, as `std::span<const uint8_t>` of C++20.
class BinaryView
{
public:
    /// No bytes.
    BinaryView() = default;
    /// `size` bytes from `data` on.
    BinaryView(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    /// The bytes of `bytes`, which must live longer than the view.
    BinaryView(const std::vector<uint8_t>& bytes) : BinaryView(bytes.data(), bytes.size()) {}
    /// The bytes of `text`, which must live longer than the view.
    explicit BinaryView(std::string_view text)
        : BinaryView(reinterpret_cast<const uint8_t*>(text.data()), text.size())
    {}

    /// The first byte.
    const uint8_t* data() const { return mData; }
    /// In bytes.
    size_t size() const { return mSize; }
    /// True without bytes.
    bool empty() const { return mSize == 0; }
    /// For range-based loops.
    const uint8_t* begin() const { return mData; }
    /// See `begin`.
    const uint8_t* end() const { return mData + mSize; }
    /// The byte at `index`, which is not checked.
    const uint8_t& operator[](size_t index) const { return mData[index]; }
    /// The same bytes as characters.
    std::string_view asText() const { return {reinterpret_cast<const char*>(mData), mSize}; }

private:
    const uint8_t* mData = nullptr;
    size_t mSize = 0;
};

}  // namespace qv::kit::websocket

#endif

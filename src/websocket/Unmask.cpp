// Taking the mask off a client's payload, 16 bytes at a time.

#include "websocket/Unmask.h"

#include <cstring>

namespace qv::impl
{
namespace
{

constexpr size_t kKeyBytes = 4;

// Vector arithmetic of the compiler: one instruction where the processor has it, several where
// it has not.
using Lane = uint8_t __attribute__((vector_size(16)));

Lane repeat(const uint8_t* key)
{
    Lane lane;
    for (size_t i = 0; i < sizeof lane; ++i)
        lane[i] = key[i % kKeyBytes];
    return lane;
}

}  // namespace

size_t Unmask(uint8_t* out, const uint8_t* in, size_t count, const uint8_t* key, size_t keyIndex)
{
    size_t done = 0;
    for (; done < count && keyIndex != 0; ++done, keyIndex = (keyIndex + 1) % kKeyBytes)
        out[done] = in[done] ^ key[keyIndex];

    const Lane keys = repeat(key);
    for (; count - done >= sizeof(Lane); done += sizeof(Lane)) {
        Lane bytes;
        std::memcpy(&bytes, in + done, sizeof bytes);
        bytes ^= keys;
        std::memcpy(out + done, &bytes, sizeof bytes);
    }

    for (; done < count; ++done, keyIndex = (keyIndex + 1) % kKeyBytes)
        out[done] = in[done] ^ key[keyIndex];
    return keyIndex;
}

}  // namespace qv::impl

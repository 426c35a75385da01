// Taking the mask off a client's payload, in groups of 16 bytes.

#include "websocket/Unmask.h"

#include <cstring>

namespace qv::impl
{
namespace
{

constexpr size_t kKeyBytes = 4;

// Vector arithmetic of the compiler: one instruction where the processor has it, several where
// it has not.
using Lane = uint32_t __attribute__((vector_size(16)));
static_assert(sizeof(Lane) % kKeyBytes == 0);

Lane repeat(const uint8_t* key)
{
    uint32_t word;
    static_assert(sizeof word == kKeyBytes);
    std::memcpy(&word, key, sizeof word);
    return Lane{word, word, word, word};
}

Lane load(const uint8_t* in)
{
    Lane lane;
    std::memcpy(&lane, in, sizeof lane);
    return lane;
}

void store(uint8_t* out, Lane lane)
{
    std::memcpy(out, &lane, sizeof lane);
}

// Four groups at once keep the processor as busy as memcpy does. All are loaded before one is
// stored: for the compiler the one may be the other.
constexpr size_t kRoundBytes = 4 * sizeof(Lane);

void unmaskRound(uint8_t* out, const uint8_t* in, Lane keys)
{
    const Lane first = load(in) ^ keys;
    const Lane second = load(in + sizeof(Lane)) ^ keys;
    const Lane third = load(in + 2 * sizeof(Lane)) ^ keys;
    const Lane fourth = load(in + 3 * sizeof(Lane)) ^ keys;
    store(out, first);
    store(out + sizeof(Lane), second);
    store(out + 2 * sizeof(Lane), third);
    store(out + 3 * sizeof(Lane), fourth);
}

}  // namespace

size_t Unmask(uint8_t* out, const uint8_t* in, size_t count, const uint8_t* key, size_t keyIndex)
{
    size_t done = 0;
    for (; done < count && keyIndex != 0; ++done, keyIndex = (keyIndex + 1) % kKeyBytes)
        out[done] = in[done] ^ key[keyIndex];

    const Lane keys = repeat(key);
    for (; count - done >= kRoundBytes; done += kRoundBytes)
        unmaskRound(out + done, in + done, keys);
    for (; count - done >= sizeof(Lane); done += sizeof(Lane))
        store(out + done, load(in + done) ^ keys);

    for (; done < count; ++done, keyIndex = (keyIndex + 1) % kKeyBytes)
        out[done] = in[done] ^ key[keyIndex];
    return keyIndex;
}

}  // namespace qv::impl

// Taking the mask off a client's payload.
#ifndef WENDREL_WEBSOCKET_UNMASK_H
#define WENDREL_WEBSOCKET_UNMASK_H

#include <cstddef>
#include <cstdint>

namespace qv::impl
{

// Writes `count` bytes of `in`, without their mask, to `out`; the two may be the same but not
// overlap otherwise. `keyIndex`, 0 to 3, is the byte of the 4-byte key for the first of them.
// Returns the index for the byte that follows.
size_t Unmask(uint8_t* out, const uint8_t* in, size_t count, const uint8_t* key, size_t keyIndex);

}  // namespace qv::impl

#endif

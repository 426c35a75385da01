// Fakes of system functions for reproducible counts: a socket in memory, and a thread number with a
// fixed number of digits.
#ifndef WENDREL_BENCH_BUDGET_SYSTEM_H
#define WENDREL_BENCH_BUDGET_SYSTEM_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace qv::bench
{

// The descriptor of the one socket there is.
inline constexpr int kSocket = 5;

// The bytes of the client: recv() returns them in pieces, then EAGAIN.
void SetIncoming(std::span<const uint8_t> bytes);

// Bytes given to send() since the last SetIncoming(); it takes all.
size_t GetSentBytes();

}  // namespace qv::bench

#endif

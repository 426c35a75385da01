// Stand-ins for what the library asks of the system, so that each run counts the same: a socket
// that is memory, and a number of the thread that has always as many digits.
#ifndef WENDREL_BENCH_BUDGET_SYSTEM_H
#define WENDREL_BENCH_BUDGET_SYSTEM_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace qv::bench
{

// The descriptor of the one socket there is.
inline constexpr int kSocket = 5;

// What the client sends: recv() gives it piece by piece, and then there is nothing more.
void SetIncoming(std::span<const uint8_t> bytes);

// Bytes given to send() since the last SetIncoming(); it takes all.
size_t GetSentBytes();

}  // namespace qv::bench

#endif

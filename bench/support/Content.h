// The bytes that all servers send.
#ifndef BENCH_SUPPORT_CONTENT_H
#define BENCH_SUPPORT_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench
{

constexpr const char* kContentType = "text/plain";

// A stream is the same piece over and over; /big is sixteen of them.
constexpr size_t kPieceBytes = 65536;
constexpr size_t kBigBytes = 1048576;

extern const std::string kHello;
extern const std::string kNotFound;

// kPieceBytes of text.
const std::string& streamPiece();

// kBigBytes of text.
const std::string& bigBody();

// Writes the bytes of a stream at `position` to `out`.
void fillStream(uint64_t position, char* out, size_t count);

}  // namespace bench

#endif

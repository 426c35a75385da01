/// Sizes as people write them.
#ifndef FILEDROP_BYTESIZE_H
#define FILEDROP_BYTESIZE_H

#include <cstdint>
#include <optional>
#include <string>

namespace filedrop
{

/// The number of bytes of a whole number with an optional unit: K, M, G or T (also "KB" and
/// "KiB", in either case), each 1024 times the one before; "10G" gives 10737418240. Nothing
/// for any other text and for more than 2^63 - 1 bytes.
std::optional<uint64_t> parseByteSize(const std::string& text);

/// For log lines and messages: "10 GiB", "1.5 MiB", "17 bytes".
std::string formatByteSize(uint64_t bytes);

}  // namespace filedrop

#endif

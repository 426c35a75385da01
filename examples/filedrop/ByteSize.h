/// Sizes as people write them.
#ifndef FILEDROP_BYTESIZE_H
#define FILEDROP_BYTESIZE_H

#include <cstdint>
#include <string>

namespace filedrop
{

/// For log lines and messages: "10 GiB", "1.5 MiB", "17 bytes".
std::string formatByteSize(uint64_t bytes);

}  // namespace filedrop

#endif

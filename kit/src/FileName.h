// Names of files that clients choose.
#ifndef WENDREL_KIT_SRC_FILENAME_H
#define WENDREL_KIT_SRC_FILENAME_H

#include <string>
#include <string_view>

namespace qv::kit
{

// See `Part::fileName`.
std::string safeFileName(std::string_view name);

}  // namespace qv::kit

#endif

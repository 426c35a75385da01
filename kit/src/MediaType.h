// The type of a file by its name.
#ifndef WENDREL_KIT_SRC_MEDIATYPE_H
#define WENDREL_KIT_SRC_MEDIATYPE_H

#include <string>
#include <string_view>

namespace qv::kit
{

// By the extension, in upper or lower case: types of the Web from a table of the kit, all others
// from that of shared-mime-info if it is installed; "application/octet-stream" otherwise. Texts are
// said to be UTF-8.
std::string mediaType(std::string_view name);

}  // namespace qv::kit

#endif

// Names under which clients save files.
#ifndef WENDREL_KIT_SRC_DISPOSITION_H
#define WENDREL_KIT_SRC_DISPOSITION_H

#include <string>
#include <string_view>

namespace qv::kit
{

// The value of Content-Disposition (RFC 6266) that makes clients save a body as `name`, which may
// have any bytes: safeFileName makes it harmless.
std::string attachment(std::string_view name);

}  // namespace qv::kit

#endif

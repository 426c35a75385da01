/// The forms of the access log.
#ifndef WENDREL_KIT_ACCESSLOG_H
#define WENDREL_KIT_ACCESSLOG_H

#include <cstdint>

namespace qv::kit
{

/// The form of a line; see `Server::logAccess`.
enum class AccessLog : uint8_t {
    Combined,  ///< that of common web servers, with further fields at its end
    Json       ///< one object
};

}  // namespace qv::kit

#endif

// The format of server-sent events.
#ifndef WENDREL_KIT_SRC_EVENTTEXT_H
#define WENDREL_KIT_SRC_EVENTTEXT_H

#include <string>
#include <string_view>

namespace qv::kit
{

// The lines of an event. Line breaks in `data` arrive as LF. Throws std::invalid_argument for a
// line break or NUL in `event` or `id`.
std::string makeEventText(std::string_view event, std::string_view data, std::string_view id);

}  // namespace qv::kit

#endif

/// The page, compiled in.
#ifndef TASKBOARD_PAGE_H
#define TASKBOARD_PAGE_H

#include <string_view>

namespace taskboard
{

extern const std::string_view kPage;

}  // namespace taskboard

#endif

// Log lines of the kit.
#ifndef WENDREL_KIT_KITLOG_H
#define WENDREL_KIT_KITLOG_H

#include <string>

namespace qv::kit
{

// One line at level error, category "kit": to the installed log, otherwise to standard error.
void LogError(const std::string& message);

}  // namespace qv::kit

#endif

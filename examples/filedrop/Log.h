/// filedrop's own log lines.
#ifndef FILEDROP_LOG_H
#define FILEDROP_LOG_H

#include <string>

namespace filedrop
{

/// Writes one line into the process's log, if there is one and it takes the level (one of
/// qv::qvLog::Level). Any thread.
void writeLog(int level, const std::string& message);

}  // namespace filedrop

#endif

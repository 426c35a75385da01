// Lines of the access log.
#ifndef WENDREL_KIT_SRC_ACCESSTEXT_H
#define WENDREL_KIT_SRC_ACCESSTEXT_H

#include <Wendrel/kit/AccessLog.h>
#include <Wendrel/kit/CompletedRequest.h>

#include <chrono>
#include <string>

namespace qv::kit
{

// Appends the line of a request that has ended at `now`, without its end. ASCII without control
// characters, for any bytes of the request: nothing in it can end a field or the line.
void appendAccessLine(std::string& line, const CompletedRequest& request, AccessLog format,
                      std::chrono::system_clock::time_point now);

}  // namespace qv::kit

#endif

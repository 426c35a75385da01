// The head of a request in the daemon's memory: ServerOptions::strictRequests also refuses what the
// daemon's texts do not show.
#ifndef WENDREL_SERVER_STRICTPOSITIONS_H
#define WENDREL_SERVER_STRICTPOSITIONS_H

#include "request/StrictRequest.h"

#include <microhttpd.h>

#include <string>

namespace qv::impl
{

// The arguments of the access handler in its first call.
struct DaemonHead
{
    MHD_Connection* connection;
    const char* url;
    const char* method;
    const char* version;
    const std::string& target;  // as the URI-log callback got it
};

// Whether the request is served. In the first call of the access handler only: the daemon reuses
// the memory of the head afterwards.
Refusal CheckHead(const DaemonHead& head);

// Tests CheckHead with a daemon of its own, once for each process that has passed; takes less than
// a millisecond. Empty, or the reason why `serve` cannot be strict.
std::string TestStrictPositions();

}  // namespace qv::impl

#endif

// The upgrade of a connection in event-driven mode.
#ifndef WENDREL_SERVER_EVENTUPGRADE_H
#define WENDREL_SERVER_EVENTUPGRADE_H

#include <microhttpd.h>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

class Connection;
class EventDaemon;

// Queues the announced response with the status 101; after it the daemon hands the connection to
// the request. Returns 0, or the status that refuses the upgrade, after a line in the log: 400 for
// a request that cannot be upgraded, 500 for a response that cannot be sent.
unsigned QueueUpgrade(EventDaemon& daemon, MHD_Connection* connection, HttpBaseRequest& request,
                      const Connection& record);

}  // namespace qv::impl

#endif

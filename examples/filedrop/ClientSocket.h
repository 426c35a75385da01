/// Looking at a client's connection from beside the daemon.
#ifndef FILEDROP_CLIENTSOCKET_H
#define FILEDROP_CLIENTSOCKET_H

#include <qvSystem/IpAddress.h>

namespace filedrop
{

/// Has the daemon look at the connection of `client` again when that client has closed it and
/// everything it sent has been read. Returns true when that was so. Any thread.
///
/// libmicrohttpd waits for changes only. When the end of a connection arrives together with
/// the last bytes it reads the bytes, takes the connection for idle and learns of its end from
/// the time-out alone, minutes later.
bool wakeDaemonIfClosed(const qv::IpAddress& client);

}  // namespace filedrop

#endif

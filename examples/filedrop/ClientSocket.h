/// Looking at a client's connection from beside the daemon.
#ifndef FILEDROP_CLIENTSOCKET_H
#define FILEDROP_CLIENTSOCKET_H

#include <qvSystem/IpAddress.h>

namespace filedrop
{

/// Makes the daemon poll the connection of `client` again when the client has closed it and all its
/// bytes have been read. Returns true in that case. Any thread.
///
/// libmicrohttpd waits for changes only. When the close of a connection arrives together with the
/// last bytes, it reads the bytes, considers the connection idle and detects the close only by the
/// timeout, minutes later.
bool wakeDaemonIfClosed(const qv::IpAddress& client);

}  // namespace filedrop

#endif

// Finds the socket of a connection among those of the process. The daemon does not give it out.

#include "ClientSocket.h"

#include "FileStore.h"

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>

namespace filedrop
{

namespace
{

bool isConnectionTo(int fd, const qv::IpAddress& client)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    return getpeername(fd, generic, &length) == 0 && qv::IpAddress::fromIP(generic) == client;
}

// A duplicate, so that it stays the same socket even if the daemon closes its own meanwhile.
Descriptor findConnection(const qv::IpAddress& client)
{
    DIR* stream = opendir("/proc/self/fd");
    if (stream == nullptr)
        return Descriptor();
    Descriptor found;
    while (const dirent* entry = readdir(stream)) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || !isConnectionTo(fd, client))
            continue;
        found = Descriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0));
        if (found.isOpen() && isConnectionTo(found.get(), client))
            break;
        found = Descriptor();
    }
    closedir(stream);
    return found;
}

}  // namespace

bool wakeDaemonIfClosed(const qv::IpAddress& client)
{
    const Descriptor fd = findConnection(client);
    char byte;
    if (!fd.isOpen() || recv(fd.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0)
        return false;
    // Nothing can be read any more; this only wakes the thread that polls the socket.
    shutdown(fd.get(), SHUT_RD);
    return true;
}

}  // namespace filedrop

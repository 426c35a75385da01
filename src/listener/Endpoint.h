// Where a server listens: the texts of ServerOptions::listen, and the sockets opened for them.
#ifndef WENDREL_LISTENER_ENDPOINT_H
#define WENDREL_LISTENER_ENDPOINT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace qv::impl
{

struct Endpoint
{
    enum class Kind : uint8_t { Tcp, Unix, Descriptor, Systemd };

    Kind kind = Kind::Tcp;
    std::string text;        // as given
    std::string host;        // Tcp: address or name; "*": every address of the machine
    uint16_t port = 0;       // Tcp; 0: chosen by the system
    std::string path;        // Unix
    mode_t mode = 0600;      // Unix
    int descriptor = -1;     // Descriptor
    std::string socketName;  // Systemd; empty: all sockets
};

// Parses `text`; an empty `error` means success. Opens nothing.
Endpoint ParseEndpoint(const std::string& text, std::string& error);

// A listening socket. Closes it, and removes the file of a Unix socket that it has made.
class ListeningSocket
{
public:
    // `isShared`: another process may accept from it as well.
    ListeningSocket(int descriptor, std::string name, bool isShared);
    ~ListeningSocket();
    ListeningSocket(ListeningSocket&& other) noexcept;
    ListeningSocket& operator=(ListeningSocket&&) = delete;

    int getDescriptor() const { return mDescriptor; }

    // "127.0.0.1:8181", "[::1]:8181", "unix:/run/app.sock".
    const std::string& getName() const { return mName; }

    bool isShared() const { return mIsShared; }

    // How its connections are served.
    struct Role
    {
        static constexpr size_t kPlain = ~size_t{0};
        size_t tls = kPlain;            // index of its TLS
        bool redirectsToHttps = false;  // every request
    };
    void setRole(const Role& role) { mRole = role; }
    const Role& getRole() const { return mRole; }

    // The destructor removes the file at `path` when it is still the one that is there now.
    void removeFileAtEnd(const std::string& path);

private:
    int mDescriptor;
    std::string mName;
    bool mIsShared;
    Role mRole;
    std::string mPath;
    dev_t mDevice = 0;
    ino_t mInode = 0;
};

// Opens the sockets of `endpoint` (a host name may have several addresses) and appends them to
// `sockets`. Returns an empty text, or the reason: "cannot listen on [::1]:443: permission denied".
std::string OpenEndpoint(const Endpoint& endpoint, std::vector<ListeningSocket>& sockets);

}  // namespace qv::impl

#endif

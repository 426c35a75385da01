// TCP ports of 127.0.0.1 for servers under test.
#ifndef WENDREL_TESTS_SUPPORT_PORTS_H
#define WENDREL_TESTS_SUPPORT_PORTS_H

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <random>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qv::tests
{

// A listening socket on a port that was free. Keeps the port until it is destroyed.
//
// The port lies below the range from which the system takes the ports of clients: none of the
// thousands of connections of other tests can take it after this object has released it.
class TakenPort
{
public:
    TakenPort() : mDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        constexpr int kAttempts = 1000;
        constexpr int kMinPort = 10000;
        int end = 32768;
        std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> end;
        std::random_device random;
        std::uniform_int_distribution<int> ports(kMinPort, std::max(end, kMinPort + 1000) - 1);
        for (int i = 0; i < kAttempts; ++i) {
            if (listenOn(static_cast<uint16_t>(ports(random))))
                return;
        }
        ::close(mDescriptor);
        throw std::runtime_error("no free port on 127.0.0.1");
    }

    ~TakenPort() { ::close(mDescriptor); }
    TakenPort(const TakenPort&) = delete;
    TakenPort& operator=(const TakenPort&) = delete;

    uint16_t port() const { return mPort; }

private:
    bool listenOn(uint16_t port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        mPort = port;
        return ::bind(mDescriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                   0 &&
               ::listen(mDescriptor, 1) == 0;
    }

    int mDescriptor;
    uint16_t mPort = 0;
};

// A port that nothing listened on a moment ago. Another program may take it before its user does.
inline uint16_t findFreePort()
{
    return TakenPort().port();
}

}  // namespace qv::tests

#endif

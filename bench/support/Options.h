// The command line that all servers share.
#ifndef BENCH_SUPPORT_OPTIONS_H
#define BENCH_SUPPORT_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace bench
{

enum class Mode {
    Inline,  // served on the thread that has read the request
    Worker,  // handed to a pool of threads
    Kit      // served by the kit; this library only
};

struct Options
{
    uint16_t port = 0;
    Mode mode = Mode::Inline;
    unsigned workers = 4;
    unsigned threads = 1;
    bool webSocket = false;
    bool polling = false;             // this library only
    std::vector<std::string> listen;  // this library only; in place of the port
    unsigned stopLimitMs = 2000;      // this library only; event-driven mode
    bool deflate = false;             // this library only; WebSockets of event-driven mode
    std::string tlsCertificate;       // empty: plain
    std::string tlsKey;
    bool suspend = false;  // the bare daemon only
};

// A server, as its help describes it.
struct Program
{
    std::string name;
    std::string about;
    bool hasEndpoints = false;  // --listen, --polling, --stop-limit, --deflate
    bool hasTls = false;        // --tls-certificate and --tls-key
    bool canSuspend = false;    // --suspend
    bool hasKit = false;        // --mode kit
};

// False: the process must exit with `exitCode`; the message has been printed.
bool parseOptions(int argc, char** argv, const Program& program, Options& options, int& exitCode);

}  // namespace bench

#endif

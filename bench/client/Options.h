// The command line of the WebSocket client.
#ifndef BENCH_CLIENT_OPTIONS_H
#define BENCH_CLIENT_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench::client
{

struct Options
{
    uint16_t port = 0;
    unsigned connections = 1;
    size_t bytes = 64;
    double seconds = 2;
    unsigned threads = 1;
    std::string path = "/echo";
    bool text = false;
    bool tls = false;
};

// False: the process must exit with `exitCode`; the message has been printed.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

}  // namespace bench::client

#endif

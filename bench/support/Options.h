// The command line that all servers share.
#ifndef BENCH_SUPPORT_OPTIONS_H
#define BENCH_SUPPORT_OPTIONS_H

#include <cstdint>
#include <string>

namespace bench
{

enum class Mode {
    Inline,  // served on the thread that has read the request
    Worker   // handed to a pool of threads
};

struct Options
{
    uint16_t port = 0;
    Mode mode = Mode::Inline;
    unsigned workers = 4;
    unsigned threads = 1;
    bool webSocket = false;
};

// False: the process must exit with `exitCode`; the message has been printed.
// `about` describes this server.
bool parseOptions(int argc, char** argv, const std::string& program, const std::string& about,
                  Options& options, int& exitCode);

}  // namespace bench

#endif

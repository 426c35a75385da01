/// The command line of filedrop.
#ifndef FILEDROP_OPTIONS_H
#define FILEDROP_OPTIONS_H

#include <cstdint>
#include <string>

namespace filedrop
{

struct Options
{
    std::string directory = ".";
    std::string logFile;  ///< empty: standard error
    std::string logLevel = "information";
    uint64_t maxUploadBytes = 0;  ///< 0: no limit
    uint16_t port = 8181;
    uint32_t threads = 0;
    uint32_t workers = 0;
    uint32_t stopLimitSeconds = 10;
    bool allInterfaces = false;
};

/// Parses the command line. True: continue with `options`. False: the process must exit with
/// `exitCode`; help, version or an error has been printed.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

}  // namespace filedrop

#endif

/// What filedrop is told on its command line.
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

/// Reads the command line. True: go on with `options`. False: the process is to end with
/// `exitCode`; what there was to say (help, version, a mistake) has been printed.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

}  // namespace filedrop

#endif

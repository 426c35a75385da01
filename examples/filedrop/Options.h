/// The command line of filedrop.
#ifndef FILEDROP_OPTIONS_H
#define FILEDROP_OPTIONS_H

#include "FileDrop.h"

#include <string>

namespace filedrop
{

struct Options
{
    std::string directory = ".";
    std::string logFile;  ///< empty: standard error
    std::string logLevel = "information";
    Settings settings;
};

/// Parses the command line. True: continue with `options`. False: the process must exit with
/// `exitCode`; help, version or an error has been printed.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

}  // namespace filedrop

#endif

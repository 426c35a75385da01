// The command line, read with CLI11.

#include "Options.h"

#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/Configuration.h>
#include <qvSystem/qvLog.h>

#include <CLI/CLI.hpp>

#include <chrono>

namespace filedrop
{

namespace
{

constexpr uint32_t kDefaultWorkers = 64;
constexpr std::chrono::seconds kDefaultStopTimeout(10);

std::string checkLevel(const std::string& text)
{
    if (qv::qvLog::LevelFromName(text) >= 0)
        return {};
    return "'" + text + "' is not a level; use trace, debug, information, notice, warning or error";
}

std::string versionText()
{
    return std::string("wendrel-filedrop ") +
           Wendrel::Version::GetDescStringMajorMinorReleaseRevision(false, false);
}

}  // namespace

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
    qv::kit::ServerOptions& server = options.settings.server;
    server.workers = kDefaultWorkers;
    server.stopTimeout = kDefaultStopTimeout;

    CLI::App app("Serves one directory as a web page on which everyone can upload, download and "
                 "delete files.",
                 "wendrel-filedrop");
    app.option_defaults()->always_capture_default();
    app.add_option("--directory", options.directory, "The directory to serve")->type_name("PATH");
    qv::kit::addSizeOption(app, "--max-upload", options.settings.maxUploadBytes,
                           "Largest file taken, such as 500M or 10G; 0: any");
    app.add_option("--log-file", options.logFile, "Log into this file, not on standard error")
        ->type_name("PATH");
    app.add_option("--log-level", options.logLevel,
                   "trace, debug, information, notice, warning or error")
        ->type_name("LEVEL")
        ->check(CLI::Validator(checkLevel, ""));
    qv::kit::addServerOptions(app, server);
    app.set_version_flag("--version", versionText());

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error) == 0 ? 0 : 1;
        return false;
    }
    return true;
}

}  // namespace filedrop

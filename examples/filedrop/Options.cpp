// The command line, read with CLI11.

#include "Options.h"

#include "ByteSize.h"

#include <Wendrel/Wendrel.h>
#include <qvSystem/qvLog.h>

#include <CLI/CLI.hpp>

#include <optional>
#include <vector>

namespace filedrop
{

namespace
{

constexpr uint32_t kMaxThreads = 255;
constexpr uint32_t kMaxWorkers = 1000;
constexpr uint32_t kDefaultWorkers = 64;

std::string checkSize(const std::string& text)
{
    if (parseByteSize(text))
        return {};
    return "'" + text + "' is not a size; write for example 500M or 10G";
}

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
    uint16_t port = 8181;
    bool allInterfaces = false;
    std::vector<std::string> endpoints;
    std::string maxUpload = "0";
    qv::http::TlsCertificate tls;

    CLI::App app("Serves one directory as a web page on which everyone can upload, download and "
                 "delete files.",
                 "wendrel-filedrop");
    app.get_formatter()->column_width(34);
    app.option_defaults()->always_capture_default();
    app.add_option("--directory", options.directory, "The directory to serve")->type_name("PATH");
    app.add_option("--port", port, "TCP port to listen on")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 65535));
    app.add_flag("--all-interfaces", allInterfaces,
                 "Listen on every network of this machine, not on 127.0.0.1 alone");
    CLI::Option* const listen =
        app.add_option("--listen", endpoints,
                       "Endpoint in place of the port, such as [::1]:8181 or unix:/PATH; may be "
                       "given several times")
            ->option_text("ENDPOINT");
    CLI::Option* const certificate =
        app.add_option("--tls-certificate", tls.chain,
                       "Serve HTTPS with the certificate chain in this file (PEM)")
            ->option_text("FILE");
    CLI::Option* const key =
        app.add_option("--tls-key", tls.key, "Private key of the certificate (PEM)")
            ->option_text("FILE")
            ->needs(certificate);
    certificate->needs(key);
    app.add_option("--threads", server.threads, "Threads that serve connections")
        ->type_name("NUMBER")
        ->check(CLI::Range(1u, kMaxThreads));
    app.add_option("--workers", server.workers,
                   "Threads that handle requests; an upload keeps one until it ends")
        ->type_name("NUMBER")
        ->check(CLI::Range(1u, kMaxWorkers));
    app.add_option("--max-upload", maxUpload, "Largest file taken, such as 500M or 10G; 0: any")
        ->type_name("SIZE")
        ->check(CLI::Validator(checkSize, ""));
    app.add_option("--log-file", options.logFile, "Log into this file, not on standard error")
        ->type_name("PATH");
    app.add_option("--log-level", options.logLevel,
                   "trace, debug, information, notice, warning or error")
        ->type_name("LEVEL")
        ->check(CLI::Validator(checkLevel, ""));
    app.add_option("--stop-limit", options.stopLimitSeconds,
                   "How long running transfers may go on after SIGINT or SIGTERM")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, 86400));
    app.set_version_flag("--version", versionText());

    try {
        app.parse(argc, argv);
        for (const char* other : {"--port", "--all-interfaces"}) {
            if (listen->count() > 0 && app.count(other) > 0)
                throw CLI::ExcludesError("--listen", other);
        }
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error) == 0 ? 0 : 1;
        return false;
    }
    if (endpoints.empty())
        endpoints = {(allInterfaces ? "*:" : "127.0.0.1:") + std::to_string(port)};
    server.listen = endpoints;
    if (!tls.chain.empty()) {
        server.tls.emplace_back();
        server.tls.back().certificates.push_back(tls);
    }
    options.settings.maxUploadBytes = parseByteSize(maxUpload).value_or(0);
    return true;
}

}  // namespace filedrop

// A server of either mode, from its options to its end.

#include "server/Listening.h"

#include "support/StopSignal.h"

#include <chrono>
#include <iostream>
#include <string>

namespace bench
{
namespace
{

// More than the clients of any row.
constexpr uint32_t kMaxConnections = 20000;
constexpr std::chrono::seconds kStartLimit(10);

bool startPolling(qv::http::HttpServer& server, const Options& options)
{
    qv::http::HttpServer::Parameters parameters;
    parameters.port = options.port;
    parameters.threadPoolSize = options.threads;
    parameters.allowWebSocket = options.webSocket;
    server.startServer(parameters);
    if (!server.waitUntilRunning(kStartLimit)) {
        std::cerr << "wendrel-bench-server: cannot listen on port " << options.port << std::endl;
        return false;
    }
    announceListening(options.port);
    return true;
}

bool serve(qv::http::HttpServer& server, const Options& options)
{
    if (!server.serve(servingOptions(options))) {
        std::cerr << "wendrel-bench-server: " << server.getFailureReason() << std::endl;
        return false;
    }
    for (const std::string& endpoint : server.getEndpoints())
        std::cout << "listening on " << endpoint << std::endl;
    return true;
}

}  // namespace

qv::http::ServerOptions servingOptions(const Options& options)
{
    qv::http::ServerOptions serving;
    serving.listen = options.listen;
    if (options.port != 0)
        serving.listen = {"127.0.0.1:" + std::to_string(options.port)};
    serving.threads = options.threads;
    if (!options.tlsCertificate.empty()) {
        qv::http::TlsOptions tls;
        tls.certificates.push_back({options.tlsCertificate, options.tlsKey, "", ""});
        serving.tls.push_back(tls);
    }
    serving.maxConnections = kMaxConnections;
    return serving;
}

bool startServer(qv::http::HttpServer& server, const Options& options)
{
    return options.polling ? startPolling(server, options) : serve(server, options);
}

void shutDownServer(qv::http::HttpServer& server, const Options& options)
{
    if (!options.polling)
        server.shutDown(std::chrono::milliseconds(options.stopLimitMs));
}

}  // namespace bench

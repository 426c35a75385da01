// The options of event-driven mode: their limits, and those of programs that know fewer of them.

#include "server/EventServer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

namespace qv::http
{

// Those of these tests.
static bool operator==(const TlsOptions& one, const TlsOptions& other)
{
    return one.endpoints == other.endpoints;
}

}  // namespace qv::http

namespace
{

using qv::http::ServerOptions;
using qv::impl::CheckOptions;
using qv::impl::ReadOptions;
using std::chrono::milliseconds;

constexpr milliseconds kDay = std::chrono::hours(24);

TEST(CheckOptions, AcceptsTheDefaults)
{
    EXPECT_EQ(CheckOptions(ServerOptions()), "");
}

TEST(CheckOptions, RefusesAFieldBeyondItsLimitsAndNamesIt)
{
    const struct
    {
        const char* name;
        std::function<void(ServerOptions&)> set;
        std::string why;
    } rows[] = {
        {"no endpoint", [](ServerOptions& o) { o.listen.clear(); },
         "ServerOptions::listen: no endpoint; give one such as 127.0.0.1:8181"},
        {"second endpoint",
         [](ServerOptions& o) {
             o.listen = {"127.0.0.1:0", "nowhere"};
         },
         "ServerOptions::listen: \"nowhere\": no port; use host:port, [IPv6 address]:port, "
         "*:port, unix:/path, fd:N, systemd or systemd:NAME"},
        {"no thread", [](ServerOptions& o) { o.threads = 0; },
         "ServerOptions::threads: 0 is not between 1 and 1024"},
        {"one thread", [](ServerOptions& o) { o.threads = 1; }, ""},
        {"most threads", [](ServerOptions& o) { o.threads = 1024; }, ""},
        {"too many threads", [](ServerOptions& o) { o.threads = 1025; },
         "ServerOptions::threads: 1025 is not between 1 and 1024"},
        {"too little memory", [](ServerOptions& o) { o.connectionMemoryBytes = 4095; },
         "ServerOptions::connectionMemoryBytes: 4095 is not between 4096 and 16777216"},
        {"least memory", [](ServerOptions& o) { o.connectionMemoryBytes = 4096; }, ""},
        {"most memory", [](ServerOptions& o) { o.connectionMemoryBytes = 16777216; }, ""},
        {"too much memory", [](ServerOptions& o) { o.connectionMemoryBytes = 16777217; },
         "ServerOptions::connectionMemoryBytes: 16777217 is not between 4096 and 16777216"},
        {"no connection", [](ServerOptions& o) { o.maxConnections = 0; },
         "ServerOptions::maxConnections: 0 is not between 1 and 1000000"},
        {"one connection", [](ServerOptions& o) { o.maxConnections = 1; }, ""},
        {"most connections", [](ServerOptions& o) { o.maxConnections = 1000000; }, ""},
        {"too many connections", [](ServerOptions& o) { o.maxConnections = 1000001; },
         "ServerOptions::maxConnections: 1000001 is not between 1 and 1000000"},
        {"address without a limit", [](ServerOptions& o) { o.maxConnectionsPerAddress = 0; }, ""},
        {"upload without a limit", [](ServerOptions& o) { o.uploadQueueBytes = 0; }, ""},
        {"body of any rate", [](ServerOptions& o) { o.minBodyBytesPerSecond = 0; }, ""},
        {"proxies",
         [](ServerOptions& o) {
             o.trustedProxies = {"unix", "::1", "10.0.0.0/8"};
         },
         ""},
        {"no proxy",
         [](ServerOptions& o) {
             o.trustedProxies = {"127.0.0.1", "proxy"};
         },
         "ServerOptions::trustedProxies: \"proxy\": no address; use 127.0.0.1, 10.0.0.0/8, "
         "fd00::/8 "
         "or unix"},
        {"no network",
         [](ServerOptions& o) {
             o.trustedProxies = {"10.0.0.1/8", "::1"};
         },
         "ServerOptions::trustedProxies: \"10.0.0.1/8\": the address has bits behind its prefix"},
        {"hosts",
         [](ServerOptions& o) {
             o.allowedHosts = {"localhost", "*.example.com:80"};
         },
         ""},
        {"no host",
         [](ServerOptions& o) {
             o.allowedHosts = {"localhost", "http://localhost"};
         },
         "ServerOptions::allowedHosts: \"http://localhost\": no host; use example.com, "
         "example.com:8080, *.example.com or [::1]"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ServerOptions options;
        row.set(options);
        EXPECT_EQ(CheckOptions(options), row.why);
    }
}

TEST(CheckOptions, RefusesATimeoutBeyondADay)
{
    const struct
    {
        const char* name;
        milliseconds ServerOptions::*field;
    } rows[] = {
        {"headTimeout", &ServerOptions::headTimeout},
        {"idleTimeout", &ServerOptions::idleTimeout},
        {"bodyTimeout", &ServerOptions::bodyTimeout},
        {"sendTimeout", &ServerOptions::sendTimeout},
        {"responseTimeout", &ServerOptions::responseTimeout},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const milliseconds good : {milliseconds(0), milliseconds(1), kDay}) {
            ServerOptions options;
            options.*row.field = good;
            EXPECT_EQ(CheckOptions(options), "");
        }
        for (const milliseconds bad : {milliseconds(-1), kDay + milliseconds(1)}) {
            ServerOptions options;
            options.*row.field = bad;
            EXPECT_EQ(CheckOptions(options), std::string("ServerOptions::") + row.name + ": " +
                                                 std::to_string(bad.count()) +
                                                 " is not between 0 and 86400000 ms");
        }
    }
}

ServerOptions differentEverywhere()
{
    ServerOptions options;
    options.listen = {"unix:/run/app.sock", "[::1]:80"};
    options.threads += 1;
    options.connectionMemoryBytes += 1;
    options.maxConnections += 1;
    options.maxConnectionsPerAddress += 1;
    options.headTimeout += milliseconds(1);
    options.idleTimeout += milliseconds(1);
    options.bodyTimeout += milliseconds(1);
    options.minBodyBytesPerSecond += 1;
    options.sendTimeout += milliseconds(1);
    options.responseTimeout += milliseconds(1);
    options.uploadQueueBytes += 1;
    options.halfClosedClients = !options.halfClosedClients;
    options.trustedProxies = {"127.0.0.1"};
    options.allowedHosts = {"localhost"};
    options.strictRequests = !options.strictRequests;
    options.memoryBudgetBytes += 1;
    options.tls.emplace_back();
    options.tls.back().endpoints = {"[::1]:80"};
    options.redirectToHttps = {"unix:/run/app.sock"};
    options.httpsPort += 1;
    return options;
}

// Calls `check` with the name, the end and the member of each field.
template <typename Check> void forEachField(Check check)
{
    using Options = ServerOptions;
    const auto field = [&check](const char* name, auto member) {
        static const Options probe;
        const auto end = static_cast<size_t>(reinterpret_cast<const char*>(&(probe.*member) + 1) -
                                             reinterpret_cast<const char*>(&probe));
        check(name, end, member);
    };
    field("listen", &Options::listen);
    field("threads", &Options::threads);
    field("connectionMemoryBytes", &Options::connectionMemoryBytes);
    field("maxConnections", &Options::maxConnections);
    field("maxConnectionsPerAddress", &Options::maxConnectionsPerAddress);
    field("headTimeout", &Options::headTimeout);
    field("idleTimeout", &Options::idleTimeout);
    field("bodyTimeout", &Options::bodyTimeout);
    field("minBodyBytesPerSecond", &Options::minBodyBytesPerSecond);
    field("sendTimeout", &Options::sendTimeout);
    field("responseTimeout", &Options::responseTimeout);
    field("uploadQueueBytes", &Options::uploadQueueBytes);
    field("halfClosedClients", &Options::halfClosedClients);
    field("trustedProxies", &Options::trustedProxies);
    field("allowedHosts", &Options::allowedHosts);
    field("strictRequests", &Options::strictRequests);
    field("memoryBudgetBytes", &Options::memoryBudgetBytes);
    field("tls", &Options::tls);
    field("redirectToHttps", &Options::redirectToHttps);
    field("httpsPort", &Options::httpsPort);
}

TEST(ReadOptions, TakesTheFieldsThatTheCallerKnowsAndDefaultsForTheRest)
{
    const ServerOptions given = differentEverywhere();
    const ServerOptions defaults;
    for (size_t recordBytes = 0; recordBytes <= sizeof(ServerOptions); ++recordBytes) {
        SCOPED_TRACE(recordBytes);
        const ServerOptions read = ReadOptions(given, recordBytes);
        forEachField([&](const char* name, size_t end, auto member) {
            const bool isKnown = end <= recordBytes;
            EXPECT_EQ(read.*member, (isKnown ? given : defaults).*member) << name;
        });
    }
}

TEST(ReadOptions, IgnoresWhatALaterProgramAppends)
{
    const ServerOptions given = differentEverywhere();
    const ServerOptions read = ReadOptions(given, sizeof(ServerOptions) + 64);
    forEachField([&](const char* name, size_t, auto member) {
        EXPECT_EQ(read.*member, given.*member) << name;
    });
}

// A field that this file does not know would be one that ReadOptions may have forgotten.
TEST(ReadOptions, KnowsTheLastField)
{
    size_t last = 0;
    forEachField([&](const char*, size_t end, auto) { last = std::max(last, end); });
    EXPECT_LE(sizeof(ServerOptions) - last, alignof(ServerOptions) - 1);
}

}  // namespace

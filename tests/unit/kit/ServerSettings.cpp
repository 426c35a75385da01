#include <Wendrel/kit/Configuration.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace qv::kit
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

// An application with options of its own.
class Program
{
public:
    explicit Program(const std::string& file = std::string()) : mReader("A test.", "test")
    {
        mReader.add_option("--own", own, "Its own")->check(CLI::Range(1, 9));
        addSizeOption(mReader, "--own-size", ownSize, "A size");
        addDurationOption(mReader, "--own-time", ownTime, "A duration");
        mReader.add_subcommand("sub", "A subcommand")->add_option("--key", key, "Of it");
        addServerOptions(mReader, options);
        if (!file.empty())
            std::ofstream(path()) << file;
    }

    std::string path() const { return mDirectory / "options"; }
    std::string help() { return mReader.help(); }

    // The text of the error; empty when there is none.
    std::string parse(std::vector<std::string> arguments)
    {
        if (std::ifstream(path()))
            arguments.insert(arguments.end(), {"--config", path()});
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        try {
            mReader.parse(reversed);
        } catch (const CLI::ParseError& error) {
            return error.what();
        }
        return std::string();
    }

    ServerOptions options;
    int own = 5;
    int key = 0;
    uint64_t ownSize = 2048;
    milliseconds ownTime{90000};

private:
    const tests::TemporaryDirectory mDirectory;
    CLI::App mReader;
};

std::string ReadSize(const std::string& text)
{
    uint64_t bytes = 0;
    const std::string why = readSize(text, bytes);
    return why.empty() ? std::to_string(bytes) : why;
}

std::string ReadDuration(const std::string& text)
{
    milliseconds duration{};
    const std::string why = readDuration(text, duration);
    return why.empty() ? std::to_string(duration.count()) : why;
}

TEST(ServerSettings, ReadsSizes)
{
    const struct
    {
        const char* text;
        const char* bytes;
    } rows[] = {
        {"0", "0"},
        {"17B", "17"},
        {"1K", "1024"},
        {"1k", "1024"},
        {"1KB", "1024"},
        {"1 KiB", "1024"},
        {"500M", "524288000"},
        {"10gib", "10737418240"},
        {"2T", "2199023255552"},
        {"007", "7"},
        {"9223372036854775807", "9223372036854775807"},
        {"8388607T", "9223370937343148032"},
        {"8388608T", "'8388608T' is more than 9223372036854775807 bytes"},
        {"9223372036854775808", "'9223372036854775808' is more than 9223372036854775807 bytes"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(ReadSize(row.text), row.bytes);
    }
    for (const char* text : {"", " ", "G", "-1", "+1", "1.5G", "1,5G", "1P", "1GG", "1Gi", "1 G B",
                             "1iB", "0x10", "ten", "1e3", " 1", "99999999999999999999999"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(ReadSize(text),
                  "'" + std::string(text) + "' is no size; write for example 512, 64K, 10M or 2G");
    }
}

TEST(ServerSettings, ReadsDurations)
{
    const struct
    {
        const char* text;
        const char* count;
    } rows[] = {
        {"0", "0"},          {"0s", "0"},      {"250ms", "250"},
        {"30s", "30000"},    {"5m", "300000"}, {"12h", "43200000"},
        {"7d", "604800000"}, {"1 S", "1000"},  {"106751991168d", "'106751991168d' is too long"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(ReadDuration(row.text), row.count);
    }
    for (const char* text : {"", "30", "s", "-1s", "1.5s", "1y", "1min", "0x", "soon"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(ReadDuration(text), "'" + std::string(text) +
                                          "' is no duration; write for example 250ms, 30s, 5m, "
                                          "12h or 7d");
    }
}

TEST(ServerSettings, WritesSizesAndDurationsAsTheyAreRead)
{
    for (const uint64_t bytes : {0ULL, 1ULL, 1023ULL, 1024ULL, 1536ULL, 1048576ULL, 1ULL << 40}) {
        EXPECT_EQ(ReadSize(sizeText(bytes)), std::to_string(bytes));
        EXPECT_EQ(ReadDuration(durationText(milliseconds(bytes))), std::to_string(bytes));
    }
    EXPECT_EQ(sizeText(268435456), "256M");
    EXPECT_EQ(durationText(milliseconds(90000)), "90s");
    EXPECT_EQ(durationText(milliseconds(60000)), "1m");
}

TEST(ServerSettings, EachOptionIsStored)
{
    Program program;
    ServerOptions& options = program.options;
    EXPECT_EQ(program.parse({"--listen",
                             "unix:/tmp/a",
                             "--listen",
                             "[::1]:0",
                             "--listen",
                             "systemd:web",
                             "--threads",
                             "3",
                             "--workers",
                             "7",
                             "--worker-queue",
                             "11",
                             "--websocket-loops",
                             "2",
                             "--stop-timeout",
                             "1m",
                             "--stop-delay",
                             "250ms",
                             "--max-connections",
                             "99",
                             "--max-connections-per-address",
                             "8",
                             "--trusted-proxy",
                             "10.0.0.0/8",
                             "--trusted-proxy",
                             "unix",
                             "--allowed-host",
                             "[::1]",
                             "--allowed-host",
                             "*.example.com",
                             "--strict-requests",
                             "off",
                             "--half-closed-clients",
                             "true",
                             "--compression",
                             "on",
                             "--compression-min-size",
                             "2K"}),
              "");
    EXPECT_EQ(options.listen, (std::vector<std::string>{"unix:/tmp/a", "[::1]:0", "systemd:web"}));
    EXPECT_EQ(options.threads, 3U);
    EXPECT_EQ(options.workers, 7U);
    EXPECT_EQ(options.workerQueueLimit, 11U);
    EXPECT_EQ(options.webSockets.loops, 2U);
    EXPECT_EQ(options.stopTimeout, seconds(60));
    EXPECT_EQ(options.stopDelay, milliseconds(250));
    EXPECT_EQ(options.maxConnections, 99U);
    EXPECT_EQ(options.maxConnectionsPerAddress, 8U);
    EXPECT_EQ(options.trustedProxies, (std::vector<std::string>{"10.0.0.0/8", "unix"}));
    EXPECT_EQ(options.allowedHosts, (std::vector<std::string>{"[::1]", "*.example.com"}));
    EXPECT_FALSE(options.strictRequests);
    EXPECT_TRUE(options.halfClosedClients);
    EXPECT_TRUE(options.compression.enabled);
    EXPECT_EQ(options.compression.minBytes, 2048U);
}

TEST(ServerSettings, EachLimitIsStored)
{
    Program program;
    ServerOptions& options = program.options;
    EXPECT_EQ(program.parse(
                  {"--max-body",      "64M", "--connection-memory", "8K", "--upload-queue",  "1K",
                   "--memory-budget", "1G",  "--websocket-memory",  "3M", "--head-timeout",  "1s",
                   "--idle-timeout",  "2s",  "--body-timeout",      "3s", "--min-body-rate", "4",
                   "--send-timeout",  "5s",  "--response-timeout",  "6s", "--own",           "7",
                   "--own-size",      "1K",  "--own-time",          "5m"}),
              "");
    EXPECT_EQ(options.maxBodyBytes, 67108864U);
    EXPECT_EQ(options.connectionMemoryBytes, 8192U);
    EXPECT_EQ(options.uploadQueueBytes, 1024U);
    EXPECT_EQ(options.memoryBudgetBytes, 1073741824U);
    EXPECT_EQ(options.webSockets.memoryBudgetBytes, 3145728U);
    EXPECT_EQ(options.headTimeout, seconds(1));
    EXPECT_EQ(options.idleTimeout, seconds(2));
    EXPECT_EQ(options.bodyTimeout, seconds(3));
    EXPECT_EQ(options.minBodyBytesPerSecond, 4U);
    EXPECT_EQ(options.sendTimeout, seconds(5));
    EXPECT_EQ(options.responseTimeout, seconds(6));
    EXPECT_EQ(program.own, 7);
    EXPECT_EQ(program.ownSize, 1024U);
    EXPECT_EQ(program.ownTime, seconds(300));
}

TEST(ServerSettings, TlsIsStored)
{
    Program program("ignored = 1");
    std::ofstream(program.path()) << "# comment\ntls-key-password-file = \"" << program.path()
                                  << "\"\n";
    const std::string password = "# comment";
    EXPECT_EQ(program.parse({"--listen",
                             "*:443",
                             "--listen",
                             "*:80",
                             "--tls-certificate",
                             "a.pem",
                             "--tls-certificate",
                             "b.pem",
                             "--tls-key",
                             "a.key",
                             "--tls-key",
                             "b.key",
                             "--tls-endpoint",
                             "*:443",
                             "--tls-minimum-version",
                             "1.3",
                             "--tls-client-certificates",
                             "required",
                             "--tls-client-authorities",
                             "ca.pem",
                             "--tls-session-tickets",
                             "false",
                             "--tls-handshake-timeout",
                             "2s",
                             "--strict-transport",
                             "365d",
                             "--redirect-to-https",
                             "*:80",
                             "--https-port",
                             "8443",
                             "--tls-ocsp-response",
                             "a.der",
                             "--tls-ocsp-response",
                             "b.der"}),
              "");
    const ServerOptions& options = program.options;
    ASSERT_EQ(options.tls.size(), 1U);
    const http::TlsOptions& tls = options.tls.front();
    ASSERT_EQ(tls.certificates.size(), 2U);
    EXPECT_EQ(tls.certificates[1].chain, "b.pem");
    EXPECT_EQ(tls.certificates[1].key, "b.key");
    EXPECT_EQ(tls.certificates[1].ocspResponse, "b.der");
    EXPECT_EQ(tls.certificates[0].password, password);
    EXPECT_EQ(tls.certificates[1].password, password);
    EXPECT_EQ(tls.endpoints, std::vector<std::string>{"*:443"});
    EXPECT_EQ(tls.minimumVersion, http::TlsVersion::Tls13);
    EXPECT_EQ(tls.clientCertificates, http::ClientCertificates::Required);
    EXPECT_EQ(tls.clientAuthorities, "ca.pem");
    EXPECT_FALSE(tls.sessionTickets);
    EXPECT_EQ(tls.handshakeTimeout, seconds(2));
    EXPECT_EQ(tls.strictTransportSeconds, 31536000U);
    EXPECT_EQ(options.redirectToHttps, std::vector<std::string>{"*:80"});
    EXPECT_EQ(options.httpsPort, 8443);
}

TEST(ServerSettings, PortStandsForAnEndpoint)
{
    const struct
    {
        std::vector<std::string> arguments;
        std::string endpoint;
    } rows[] = {
        {{}, "127.0.0.1:8181"},
        {{"--port", "80"}, "127.0.0.1:80"},
        {{"--all-interfaces"}, "*:8181"},
        {{"--all-interfaces", "--port", "80"}, "*:80"},
        {{"--port", "80", "--all-interfaces"}, "*:80"},
    };
    for (const auto& row : rows) {
        Program program;
        EXPECT_EQ(program.parse(row.arguments), "");
        EXPECT_EQ(program.options.listen, std::vector<std::string>{row.endpoint});
    }
}

TEST(ServerSettings, ErrorsNameTheOption)
{
    const struct
    {
        std::vector<std::string> arguments;
        std::string error;
    } rows[] = {
        {{"--threads", "0"}, "--threads: 0 is not between 1 and 1024"},
        {{"--threads", "1025"}, "--threads: 1025 is not between 1 and 1024"},
        {{"--threads", "x"}, "--threads: 'x' is no whole number"},
        {{"--threads", "4294967296"}, "--threads: '4294967296' is more than 4294967295"},
        {{"--workers", "0"}, "--workers: 0 is not between 1 and 1024"},
        {{"--port", "0"},
         "--port: 0 is no port; for one that the system chooses use --listen 127.0.0.1:0"},
        {{"--port", "65536"}, "--port: '65536' is more than 65535"},
        {{"--listen", "127.0.0.1:0", "--port", "1"}, "--port: not together with --listen"},
        {{"--listen", "127.0.0.1:0", "--all-interfaces"},
         "--all-interfaces: not together with --listen"},
        {{"--head-timeout", "2d"}, "--head-timeout: 172800000 is not between 0 and 86400000 ms"},
        {{"--trusted-proxy", "nobody"}, "--trusted-proxy: \"nobody\": "},
        {{"--strict-requests", "maybe"}, "--strict-requests: 'maybe' is neither true nor false"},
        {{"--tls-certificate", "a.pem"}, "--tls-certificate requires --tls-key"},
        {{"--tls-minimum-version", "1.3"}, "--tls-minimum-version requires --tls-certificate"},
        {{"--tls-certificate", "a", "--tls-key", "a", "--tls-minimum-version", "1.1"},
         "--tls-minimum-version: '1.1' is none of 1.2, 1.3"},
        {{"--tls-certificate", "a", "--tls-certificate", "b", "--tls-key", "a"},
         "--tls-key: 1 for 2 certificates"},
        {{"--tls-certificate", "a", "--tls-key", "a", "--tls-key-password-file", "/none"},
         "--tls-key-password-file: cannot read /none"},
        {{"--own-size", "big"}, "--own-size: 'big' is no size"},
        {{"--own-time", "long"}, "--own-time: 'long' is no duration"},
        {{"--config", "/none"}, "/none"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments.front() + " " + row.arguments.back());
        Program program;
        const std::string error = program.parse(row.arguments);
        EXPECT_EQ(error.substr(0, row.error.size()), row.error);
    }
}

TEST(ServerSettings, FileHasOptionsOfServerAndApplication)
{
    Program program("# Comment\n"
                    "listen = [\"127.0.0.1:0\", \"unix:/tmp/s,mode=660\"]\n"
                    "max-body = \"64M\"   # more\n"
                    "stop-timeout=2m\n"
                    "workers = 3\n"
                    "strict-requests = false\n"
                    "own = 8\n"
                    "own-size = \"1K\"\n");
    EXPECT_EQ(program.parse({"--workers", "4"}), "");
    EXPECT_EQ(program.options.listen,
              (std::vector<std::string>{"127.0.0.1:0", "unix:/tmp/s,mode=660"}));
    EXPECT_EQ(program.options.maxBodyBytes, 67108864U);
    EXPECT_EQ(program.options.stopTimeout, seconds(120));
    EXPECT_FALSE(program.options.strictRequests);
    EXPECT_EQ(program.own, 8);
    EXPECT_EQ(program.ownSize, 1024U);
    // The command line comes first.
    EXPECT_EQ(program.options.workers, 4U);
}

TEST(ServerSettings, FileMayHaveSwitches)
{
    Program program("all-interfaces = true\nport = 80\n");
    EXPECT_EQ(program.parse({}), "");
    EXPECT_EQ(program.options.listen, std::vector<std::string>{"*:80"});
}

// However the endpoint is spelt.
TEST(ServerSettings, TheCommandLineReplacesTheEndpointsOfAFile)
{
    const struct
    {
        const char* file;
        std::vector<std::string> arguments;
        std::vector<std::string> endpoints;
    } rows[] = {
        {"listen = [\"unix:/a\", \"unix:/b\"]\n", {"--listen", "unix:/c"}, {"unix:/c"}},
        {"listen = [\"unix:/a\", \"unix:/b\"]\n", {"--port", "80"}, {"127.0.0.1:80"}},
        {"listen = \"unix:/a\"\n", {"--all-interfaces"}, {"*:8181"}},
        {"port = 80\n", {"--listen", "unix:/c"}, {"unix:/c"}},
        {"all-interfaces = true\nport = 80\n", {"--listen", "unix:/c"}, {"unix:/c"}},
        {"port = 80\n", {"--port", "81"}, {"127.0.0.1:81"}},
        {"port = 80\n", {"--all-interfaces"}, {"*:80"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file + row.arguments.front());
        Program program(row.file);
        EXPECT_EQ(program.parse(row.arguments), "");
        EXPECT_EQ(program.options.listen, row.endpoints);
    }
}

// A pipe gives its bytes once.
TEST(ServerSettings, ThePasswordIsReadOnce)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(write(ends[1], "secret\n", 7), 7);
    close(ends[1]);
    Program program;
    EXPECT_EQ(program.parse({"--tls-certificate", "a", "--tls-key", "b", "--tls-key-password-file",
                             "/proc/self/fd/" + std::to_string(ends[0])}),
              "");
    close(ends[0]);
    ASSERT_EQ(program.options.tls.size(), 1U);
    EXPECT_EQ(program.options.tls.front().certificates.at(0).password, "secret");
}

TEST(ServerSettings, FileMayHaveSectionsOfSubcommands)
{
    Program program("workers = 3\n[sub]\nkey = 7\n");
    EXPECT_EQ(program.parse({}), "");
    EXPECT_EQ(program.options.workers, 3U);
    EXPECT_EQ(program.key, 7);
    Program dotted("sub.key = 8\n");
    EXPECT_EQ(dotted.parse({}), "");
    EXPECT_EQ(dotted.key, 8);
}

TEST(ServerSettings, ErrorsOfAFileNameItsLine)
{
    const struct
    {
        const char* file;
        const char* error;
    } rows[] = {
        {"own = 1\n\nthread = 4\n", ", line 3: there is no option 'thread'"},
        {"config = \"x\"\n", ", line 1: there is no option 'config'"},
        {"help = true\n", ", line 1: there is no option 'help'"},
        {"# threads = 0\n\"threads\" = 0\n", ", line 2: --threads: 0 is not between 1 and 1024"},
        {"max-body = \"64Q\"\n", ", line 1: --max-body: '64Q' is no size"},
        {"own = 1\nlisten = [\"127.0.0.1:0\", \"nowhere\"]",
         ", line 2: --listen: \"nowhere\": no port"},
        {"workers = 1\nthreads = 1\nworkers = 2\n", ", line 1: 'workers' stands in the file twice"},
        {"own = 10\n", ", line 1: --own: "},
        {"workers\n", ", line 1: --workers: 'true' is no whole number"},
        {"own = 1\na.b = 3\n", ", line 2: there is no option 'a.b'"},
        {"workers = 3\n\n[server]\nworkers = 3\n", ", line 4: there is no option 'server.workers'"},
        {"[[a.b]]\nc = 3\n", ", line 2: there is no option 'a.b.c'"},
        {"own = 1\n[server]\n", ", line 2: there is no section 'server'"},
        {"[a.b]\n", ", line 1: there is no section 'a"},
        {"[sub]\nkey = 1\nworkers = 3\n", ", line 3: there is no option 'sub.workers'"},
        {"[sub]\nkey = 1\n[DEFAULT]\nthread = 3\n", ", line 4: there is no option 'thread'"},
        {"port = 80\nlisten = \"127.0.0.1:0\"\n",
         ", line 2: --listen: not together with --port or --all-interfaces"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        Program program(row.file);
        const std::string expected = program.path() + row.error;
        EXPECT_EQ(program.parse({}).substr(0, expected.size()), expected);
    }
    // The file is not looked at where the command line has the option.
    Program program("threads = 0\n");
    EXPECT_EQ(program.parse({"--threads", "2"}), "");
}

TEST(ServerSettings, HelpTellsDefaultsOfTheApplication)
{
    ServerOptions options;
    options.workers = 64;
    CLI::App app;
    addServerOptions(app, options);
    const std::string help = app.help();
    for (const char* part :
         {"--workers NUMBER=64 ", "--listen ENDPOINT=127.0.0.1:8181 ", "--max-body SIZE=1M ",
          "--idle-timeout DURATION=1m ", "--strict-requests BOOL=true ", "--tls-key FILE ",
          "--config FILE ", "--all-interfaces  ", "\nTimeouts:\n"}) {
        EXPECT_NE(help.find(part), std::string::npos) << part << help;
    }
}

}  // namespace
}  // namespace qv::kit

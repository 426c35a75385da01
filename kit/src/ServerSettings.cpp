// Each option of a server: its name, its help, and how its text becomes a value.

#include <Wendrel/kit/ServerSettings.h>

#include "ServerCore.h"
#include "Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>

namespace qv::kit
{
namespace
{

using std::chrono::milliseconds;
using Values = std::vector<std::string>;

// Stores values and returns why that is not possible.
using Store = std::function<std::string(ServerOptions&, const Values&)>;

struct Unit
{
    std::string_view name;
    uint64_t factor;
};

constexpr uint64_t kMaxNumber = std::numeric_limits<int64_t>::max();
constexpr std::array<Unit, 5> kSizeUnits{
    {{"T", 1ULL << 40}, {"G", 1ULL << 30}, {"M", 1ULL << 20}, {"K", 1ULL << 10}, {"", 1}}};
constexpr std::array<Unit, 5> kDurationUnits{
    {{"d", 86400000}, {"h", 3600000}, {"m", 60000}, {"s", 1000}, {"ms", 1}}};

// A whole number, and the text behind it; none when there is no number.
std::optional<uint64_t> takeNumber(std::string_view& text)
{
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, failure] = std::from_chars(text.data(), end, number);
    if (failure != std::errc())
        return std::nullopt;
    text = {stopped, static_cast<size_t>(end - stopped)};
    return number;
}

template <size_t count>
std::optional<uint64_t> factorOf(const std::array<Unit, count>& units, std::string_view name)
{
    for (const Unit& unit : units) {
        if (equalsIgnoringCase(unit.name, name))
            return unit.factor;
    }
    return std::nullopt;
}

// "64K", "64KB" and "64KiB" are the same.
std::string_view withoutByte(std::string_view unit)
{
    const auto endsWith = [&unit](std::string_view end) {
        return unit.size() >= end.size() &&
               equalsIgnoringCase(unit.substr(unit.size() - end.size()), end);
    };
    if (unit.size() == 3 && endsWith("iB"))
        return unit.substr(0, 1);
    return endsWith("B") && unit.size() <= 2 ? unit.substr(0, unit.size() - 1) : unit;
}

template <size_t count> std::string textOf(const std::array<Unit, count>& units, uint64_t value)
{
    for (const Unit& unit : units) {
        if (value != 0 && value % unit.factor == 0)
            return std::to_string(value / unit.factor) + std::string(unit.name);
    }
    return "0";
}

std::string quoted(std::string_view text)
{
    return "'" + std::string(text) + "'";
}

template <typename Number> std::string readNumber(std::string_view text, Number& number)
{
    std::string_view rest = text;
    const std::optional<uint64_t> read = takeNumber(rest);
    if (!read || !rest.empty())
        return quoted(text) + " is no whole number";
    if (*read > std::numeric_limits<Number>::max())
        return quoted(text) + " is more than " + std::to_string(std::numeric_limits<Number>::max());
    number = static_cast<Number>(*read);
    return std::string();
}

std::string readBool(std::string_view text, bool& value)
{
    for (const bool known : {false, true}) {
        for (const char* name :
             known ? std::array{"true", "on", "yes", "1"} : std::array{"false", "off", "no", "0"}) {
            if (equalsIgnoringCase(text, name)) {
                value = known;
                return std::string();
            }
        }
    }
    return quoted(text) + " is neither true nor false";
}

// The reason without the field: the option is named by the caller.
std::string whyImpossible(const ServerOptions& options)
{
    constexpr std::string_view kRecord = "ServerOptions::";
    std::string why = ServerCore::whyImpossible(options);
    if (why.empty())
        why = http::HttpServer::checkOptions(options, sizeof(http::ServerOptions));
    if (why.compare(0, kRecord.size(), kRecord) == 0)
        why.erase(0, why.find(": ") + 2);
    return why;
}

http::TlsOptions& tlsOf(ServerOptions& options)
{
    if (options.tls.empty())
        options.tls.emplace_back();
    return options.tls.front();
}

// The first key belongs to the first certificate.
template <std::string http::TlsCertificate::*field>
std::string storeOfCertificates(ServerOptions& options, const Values& values,
                                const std::string& password)
{
    std::vector<http::TlsCertificate>& certificates = tlsOf(options).certificates;
    if (!certificates.empty() && certificates.size() != values.size())
        return std::to_string(values.size()) + " for " + std::to_string(certificates.size()) +
               " certificates";
    certificates.resize(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        certificates[i].*field = values[i];
        certificates[i].password = password;
    }
    return std::string();
}

template <typename Value, size_t count>
std::string readChoice(const std::array<std::pair<const char*, Value>, count>& choices,
                       const std::string& text, Value& value)
{
    std::string names;
    for (const auto& [name, chosen] : choices) {
        if (text == name) {
            value = chosen;
            return std::string();
        }
        names.append(names.empty() ? "" : ", ").append(name);
    }
    return quoted(text) + " is none of " + names;
}

// --port and --all-interfaces together are an endpoint, in place of --listen.
struct Place
{
    uint16_t port = 8181;
    bool isAny = false;
    bool isUsed = false;
    bool hasEndpoints = false;
};

// One function for each kind of field.
class Settings
{
public:
    explicit Settings(ServerOptions& options) : mOptions(options) {}

    std::vector<ServerSetting> take() { return std::move(mSettings); }

    void group(const char* heading) { mGroup = heading; }
    void need(const char* option) { mSettings.back().needed = option; }

    ServerSetting& add(const char* name, const char* value, const char* help, std::string fallback,
                       Store store, bool isWhole = true)
    {
        ServerSetting setting;
        setting.name = name;
        setting.value = value;
        setting.help = help;
        setting.group = mGroup;
        setting.fallback = std::move(fallback);
        setting.set = [&options = mOptions, store = std::move(store),
                       isWhole](const Values& values) {
            if (isWhole) {
                // By itself, so that an error is told where its option stands.
                ServerOptions alone;
                std::string why = store(alone, values);
                if (why.empty())
                    why = whyImpossible(alone);
                if (!why.empty())
                    return why;
            }
            return store(options, values);
        };
        mSettings.push_back(std::move(setting));
        return mSettings.back();
    }

    template <auto field> void number(const char* name, const char* help)
    {
        add(name, "NUMBER", help, std::to_string(mOptions.*field),
            [](ServerOptions& options, const Values& values) {
                return readNumber(values.back(), options.*field);
            });
    }

    template <auto field> void size(const char* name, const char* help)
    {
        add(name, "SIZE", help, sizeText(mOptions.*field),
            [](ServerOptions& options, const Values& values) {
                uint64_t bytes = 0;
                std::string why = readSize(values.back(), bytes);
                if (why.empty())
                    options.*field = bytes;
                return why;
            });
    }

    template <auto field> void duration(const char* name, const char* help)
    {
        add(name, "DURATION", help, durationText(mOptions.*field),
            [](ServerOptions& options, const Values& values) {
                return readDuration(values.back(), options.*field);
            });
    }

    template <auto field> void boolean(const char* name, const char* help)
    {
        add(name, "BOOL", help, mOptions.*field ? "true" : "false",
            [](ServerOptions& options, const Values& values) {
                return readBool(values.back(), options.*field);
            });
    }

    template <auto field>
    void list(const char* name, const char* value, const char* help, bool isWhole = true)
    {
        const auto store = [](ServerOptions& options, const Values& values) {
            options.*field = values;
            return std::string();
        };
        add(name, value, help, std::string(), store, isWhole).isList = true;
    }

    // The options that stand for a field of several records, or for none.

    void endpoints()
    {
        const auto place = std::make_shared<Place>();
        constexpr const char* kBoth = "not together with --port or --all-interfaces";
        constexpr const char* kEndpoints = "not together with --listen";
        const auto bind = [place](ServerOptions& options) {
            place->isUsed = true;
            options.listen = {(place->isAny ? "*:" : "127.0.0.1:") + std::to_string(place->port)};
        };
        const auto listen = [place](ServerOptions& options, const Values& values) -> std::string {
            if (place->isUsed)
                return kBoth;
            place->hasEndpoints = true;
            options.listen = values;
            return std::string();
        };
        const auto port = [place, bind](ServerOptions& options,
                                        const Values& values) -> std::string {
            std::string why = place->hasEndpoints ? kEndpoints : std::string();
            if (why.empty())
                why = readNumber(values.back(), place->port);
            if (why.empty() && place->port == 0)
                why = "0 is no port; for one that the system chooses use --listen 127.0.0.1:0";
            if (why.empty())
                bind(options);
            return why;
        };
        const auto any = [place, bind](ServerOptions& options,
                                       const Values& values) -> std::string {
            if (place->hasEndpoints)
                return kEndpoints;
            std::string why = readBool(values.back(), place->isAny);
            if (why.empty())
                bind(options);
            return why;
        };
        const std::string fallback =
            mOptions.listen.size() == 1 ? mOptions.listen.front() : std::string();
        add("--listen", "ENDPOINT",
            "Where to listen: ADDRESS:PORT, *:PORT, unix:/PATH, fd:NUMBER, systemd, systemd:NAME",
            fallback, listen)
            .isList = true;
        add("--port", "NUMBER", "The TCP port 1 to 65535, in place of --listen", std::string(),
            port)
            .excluded = "--listen";
        add("--all-interfaces", "",
            "With --port: listen on every network of this machine, not on 127.0.0.1 alone",
            std::string(), any)
            .excluded = "--listen";
    }

    void compression()
    {
        add("--compression", "BOOL", "Compress responses by zstd or gzip",
            mOptions.compression.enabled ? "true" : "false",
            [](ServerOptions& options, const Values& values) {
                return readBool(values.back(), options.compression.enabled);
            });
        add("--compression-min-size", "SIZE", "Bodies that are compressed have so many bytes",
            sizeText(mOptions.compression.minBytes),
            [](ServerOptions& options, const Values& values) {
                return readSize(values.back(), options.compression.minBytes);
            });
    }

    void tls()
    {
        using http::ClientCertificates;
        using http::TlsVersion;
        const http::TlsOptions shown;
        // One for all keys, from a file: other users see a command line. The options may come in
        // any order.
        const auto password = std::make_shared<std::string>();
        const auto addTls = [this](const char* name, const char* value, const char* help,
                                   std::string fallback, Store store) -> ServerSetting& {
            ServerSetting& added =
                add(name, value, help, std::move(fallback), std::move(store), false);
            added.needed = "--tls-certificate";
            return added;
        };
        ServerSetting& chain =
            addTls("--tls-certificate", "FILE",
                   "Serve HTTPS with this certificate chain (PEM), one for each name of the host",
                   std::string(), [password](ServerOptions& options, const Values& values) {
                       return storeOfCertificates<&http::TlsCertificate::chain>(options, values,
                                                                                *password);
                   });
        chain.needed = "--tls-key";
        chain.isList = true;
        addTls("--tls-key", "FILE", "Private keys (PEM), in the order of the certificates",
               std::string(),
               [password](ServerOptions& options, const Values& values) {
                   return storeOfCertificates<&http::TlsCertificate::key>(options, values,
                                                                          *password);
               })
            .isList = true;
        addTls("--tls-ocsp-response", "FILE", "OCSP responses (DER), in the same order",
               std::string(),
               [password](ServerOptions& options, const Values& values) {
                   return storeOfCertificates<&http::TlsCertificate::ocspResponse>(options, values,
                                                                                   *password);
               })
            .isList = true;
        addTls("--tls-key-password-file", "FILE", "File whose first line opens the keys",
               std::string(), [password](ServerOptions& options, const Values& values) {
                   std::ifstream file(values.back());
                   if (!std::getline(file, *password))
                       return "cannot read " + values.back();
                   for (http::TlsCertificate& certificate : tlsOf(options).certificates)
                       certificate.password = *password;
                   return std::string();
               });
        addTls("--tls-endpoint", "ENDPOINT", "Of --listen: serves HTTPS; by default all do",
               std::string(),
               [](ServerOptions& options, const Values& values) {
                   tlsOf(options).endpoints = values;
                   return std::string();
               })
            .isList = true;
        addTls("--tls-minimum-version", "VERSION", "1.2 or 1.3", "1.2",
               [](ServerOptions& options, const Values& values) {
                   return readChoice(std::array{std::pair{"1.2", TlsVersion::Tls12},
                                                std::pair{"1.3", TlsVersion::Tls13}},
                                     values.back(), tlsOf(options).minimumVersion);
               });
        addTls("--tls-client-certificates", "CHOICE", "none, requested or required", "none",
               [](ServerOptions& options, const Values& values) {
                   return readChoice(
                       std::array{std::pair{"none", ClientCertificates::None},
                                  std::pair{"requested", ClientCertificates::Requested},
                                  std::pair{"required", ClientCertificates::Required}},
                       values.back(), tlsOf(options).clientCertificates);
               });
        addTls("--tls-client-authorities", "FILE", "Issuers of client certificates (PEM)",
               std::string(), [](ServerOptions& options, const Values& values) {
                   tlsOf(options).clientAuthorities = values.back();
                   return std::string();
               });
        addTls("--tls-session-tickets", "BOOL", "Whether clients may resume their sessions",
               shown.sessionTickets ? "true" : "false",
               [](ServerOptions& options, const Values& values) {
                   return readBool(values.back(), tlsOf(options).sessionTickets);
               });
        addTls("--tls-handshake-timeout", "DURATION", "For the handshake",
               durationText(shown.handshakeTimeout),
               [](ServerOptions& options, const Values& values) {
                   return readDuration(values.back(), tlsOf(options).handshakeTimeout);
               });
        addTls("--strict-transport", "DURATION",
               "Browsers use HTTPS alone for so long (Strict-Transport-Security)", "0",
               [](ServerOptions& options, const Values& values) {
                   milliseconds duration{};
                   std::string why = readDuration(values.back(), duration);
                   const auto seconds =
                       std::chrono::duration_cast<std::chrono::seconds>(duration).count();
                   if (why.empty())
                       why = readNumber(std::to_string(seconds),
                                        tlsOf(options).strictTransportSeconds);
                   return why;
               });
        list<&ServerOptions::redirectToHttps>("--redirect-to-https", "ENDPOINT",
                                              "Of --listen: redirects to HTTPS", false);
        need("--tls-certificate");
        number<&ServerOptions::httpsPort>("--https-port", "Port of these redirections");
    }

private:
    ServerOptions& mOptions;
    std::string mGroup;
    std::vector<ServerSetting> mSettings;
};

// Of "[name]" or "[[name]]": "name."; empty for "[default]", which is none.
std::string sectionOf(std::string_view line)
{
    const size_t brackets = line[1] == '[' && line[line.size() - 2] == ']' ? 2 : 1;
    const std::string_view name = line.substr(brackets, line.size() - 2 * brackets);
    return equalsIgnoringCase(name, "default") ? std::string() : std::string(name) + '.';
}

// Of "name = value", with or without quotation marks.
std::string_view nameOf(std::string_view line)
{
    const std::string_view name = trimmed(line.substr(0, line.find('=')));
    const bool isQuoted = name.size() > 2 && (name.front() == '"' || name.front() == '\'');
    return isQuoted ? name.substr(1, name.size() - 2) : name;
}

}  // namespace

std::vector<ServerSetting> serverSettings(ServerOptions& options)
{
    using Options = ServerOptions;
    Settings settings(options);
    settings.group("Server");
    settings.endpoints();
    settings.number<&Options::threads>("--threads", "Threads that serve connections, 1 to 1024");
    settings.number<&Options::workers>("--workers", "Threads that run handlers, 1 to 1024");
    settings.number<&Options::workerQueueLimit>("--worker-queue",
                                                "Requests that may wait for a worker; then 503");
    settings.add(
        "--websocket-loops", "NUMBER", "Threads of WebSocket sessions; 0: one for each processor",
        std::to_string(options.webSockets.loops), [](ServerOptions& to, const Values& values) {
            return readNumber(values.back(), to.webSockets.loops);
        });
    settings.duration<&Options::stopTimeout>(
        "--stop-timeout", "How long running requests may go on after SIGINT or SIGTERM");
    settings.duration<&Options::stopDelay>("--stop-delay",
                                           "How long connections are accepted before that");

    settings.group("Clients");
    settings.number<&Options::maxConnections>("--max-connections",
                                              "Connections, 1 to 1000000; then 503");
    settings.number<&Options::maxConnectionsPerAddress>("--max-connections-per-address",
                                                        "Connections of an address; 0: any");
    settings.list<&Options::trustedProxies>("--trusted-proxy", "ADDRESS",
                                            "Proxy, or network of them, whose word on the client's "
                                            "address counts; unix for Unix sockets");
    settings.list<&Options::allowedHosts>("--allowed-host", "HOST",
                                          "Host that is served, such as example.com or "
                                          "*.example.com; by default all are");
    settings.boolean<&Options::strictRequests>("--strict-requests", "Refuse ambiguous requests");
    settings.boolean<&Options::halfClosedClients>(
        "--half-closed-clients", "Serve clients that shut down their sending side");
    settings.compression();

    settings.group("Memory");
    settings.size<&Options::maxBodyBytes>("--max-body",
                                          "Body that is received before its handler runs");
    settings.size<&Options::connectionMemoryBytes>("--connection-memory",
                                                   "Of a connection, 4K to 16M; bounds the head");
    settings.size<&Options::uploadQueueBytes>("--upload-queue",
                                              "Received and unread bytes of a body; 0: any");
    settings.size<&Options::memoryBudgetBytes>("--memory-budget",
                                               "Of all bodies and streams together; 0: any");
    settings.add("--websocket-memory", "SIZE", "Of all WebSocket sessions together",
                 sizeText(options.webSockets.memoryBudgetBytes),
                 [](ServerOptions& to, const Values& values) {
                     return readSize(values.back(), to.webSockets.memoryBudgetBytes);
                 });

    settings.group("Timeouts");
    settings.duration<&Options::headTimeout>("--head-timeout", "To the end of a request head");
    settings.duration<&Options::idleTimeout>("--idle-timeout", "Between two requests");
    settings.duration<&Options::bodyTimeout>("--body-timeout", "Silence within a body");
    settings.number<&Options::minBodyBytesPerSecond>(
        "--min-body-rate", "Least average rate of a body in bytes per second; 0: none");
    settings.duration<&Options::sendTimeout>("--send-timeout",
                                             "Client that acknowledges no sent byte");
    settings.duration<&Options::responseTimeout>("--response-timeout",
                                                 "From the request to its response; then 503");

    settings.group("TLS");
    settings.tls();
    return settings.take();
}

std::string readSize(std::string_view text, uint64_t& bytes)
{
    std::string_view unit = text;
    const std::optional<uint64_t> number = takeNumber(unit);
    const std::optional<uint64_t> factor = factorOf(kSizeUnits, withoutByte(trimmed(unit)));
    if (!number || !factor)
        return quoted(text) + " is no size; write for example 512, 64K, 10M or 2G";
    if (*number > kMaxNumber / *factor)
        return quoted(text) + " is more than " + std::to_string(kMaxNumber) + " bytes";
    bytes = *number * *factor;
    return std::string();
}

std::string sizeText(uint64_t bytes)
{
    return textOf(kSizeUnits, bytes);
}

std::string readDuration(std::string_view text, milliseconds& duration)
{
    std::string_view unit = text;
    const std::optional<uint64_t> number = takeNumber(unit);
    const std::string_view name = trimmed(unit);
    const std::optional<uint64_t> factor =
        number == 0U && name.empty() ? 1 : factorOf(kDurationUnits, name);
    if (!number || !factor)
        return quoted(text) + " is no duration; write for example 250ms, 30s, 5m, 12h or 7d";
    if (*number > kMaxNumber / *factor)
        return quoted(text) + " is too long";
    duration = milliseconds(*number * *factor);
    return std::string();
}

std::string durationText(milliseconds duration)
{
    return textOf(kDurationUnits, static_cast<uint64_t>(duration.count()));
}

namespace impl
{

size_t lineOfKey(std::string_view file, std::string_view key)
{
    std::string section;  // with a dot behind its name
    size_t line = 0;
    while (!file.empty()) {
        ++line;
        const size_t end = std::min(file.find('\n'), file.size());
        const std::string_view text = trimmed(file.substr(0, end));
        if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
            section = sectionOf(text);
            if (section.compare(0, key.size() + 1, std::string(key) + '.') == 0)
                return line;
        } else if (section + std::string(nameOf(text)) == key) {
            return line;
        }
        file.remove_prefix(std::min(end + 1, file.size()));
    }
    return 0;
}

}  // namespace impl
}  // namespace qv::kit

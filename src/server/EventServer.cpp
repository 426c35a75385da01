// Options of event-driven mode, and the start of its parts.

#include "server/EventServer.h"

#include "server/SecureEndpoints.h"
#include "server/StrictPositions.h"
#include "server/logging/LogObject.h"

#include <sys/resource.h>

#include <algorithm>
#include <limits>
#include <system_error>
#include <utility>

namespace qv::impl
{
namespace
{

using http::ServerOptions;
using std::chrono::milliseconds;

constexpr uint32_t kMaxThreads = 1024;
constexpr uint32_t kMaxConnections = 1000000;
constexpr size_t kMinMemoryBytes = 4096;
constexpr size_t kMaxMemoryBytes = 16777216;
constexpr milliseconds kMaxTimeout = std::chrono::hours(24);

// Descriptors for the application itself, and of each daemon.
constexpr rlim_t kOtherDescriptors = 128;
constexpr rlim_t kDescriptorsOfDaemon = 5;
// A file that is being sent.
constexpr rlim_t kDescriptorsOfResponse = 1;
constexpr rlim_t kMinConnections = 16;
constexpr const char* kUnixPrefix = "unix:";

// The client's socket and the pair of a secure connection; the event loops of a relay and of its
// share of the handshakes.
constexpr rlim_t kDescriptorsOfSecure = 3;
constexpr rlim_t kDescriptorsOfRelay = 4;
constexpr size_t kMaxHandshakeThreads = 4;

template <typename Field>
void readField(const ServerOptions& from, size_t recordBytes, Field ServerOptions::*field,
               ServerOptions& to)
{
    const auto offset = static_cast<size_t>(reinterpret_cast<const char*>(&(from.*field)) -
                                            reinterpret_cast<const char*>(&from));
    if (offset + sizeof(Field) <= recordBytes)
        to.*field = from.*field;
}

template <typename Number>
std::string checkRange(const char* field, Number value, Number least, Number most)
{
    if (value >= least && value <= most)
        return std::string();
    return std::string("ServerOptions::") + field + ": " + std::to_string(value) +
           " is not between " + std::to_string(least) + " and " + std::to_string(most);
}

std::string checkTimeout(const char* field, milliseconds value)
{
    std::string why = checkRange<int64_t>(field, value.count(), 0, kMaxTimeout.count());
    return why.empty() ? why : why + " ms";
}

std::string checkEndpoints(const std::vector<std::string>& texts)
{
    if (texts.empty())
        return "ServerOptions::listen: no endpoint; give one such as 127.0.0.1:8181";
    for (const std::string& text : texts) {
        std::string error;
        ParseEndpoint(text, error);
        if (!error.empty())
            return error;
    }
    return std::string();
}

// The set that holds every entry of a field. An invalid one is told in `why`.
template <typename Set>
Set makeSet(const char* field, const std::vector<std::string>& entries, std::string& why)
{
    Set set;
    for (const std::string& entry : entries) {
        const std::string reason = set.add(entry);
        if (!reason.empty()) {
            why.append("ServerOptions::").append(field).append(": \"").append(entry);
            why.append("\": ").append(reason);
            break;
        }
    }
    return set;
}

AddressSet proxiesOf(const ServerOptions& options, std::string& why)
{
    return makeSet<AddressSet>("trustedProxies", options.trustedProxies, why);
}

AllowedHosts hostsOf(const ServerOptions& options, std::string& why)
{
    return makeSet<AllowedHosts>("allowedHosts", options.allowedHosts, why);
}

std::string checkSets(const ServerOptions& options)
{
    std::string why;
    proxiesOf(options, why);
    if (why.empty())
        hostsOf(options, why);
    return why;
}

// As many connections as the process may have descriptors for. The limit is raised for files that
// they receive, too; without these a server that sends none would lose half of its connections.
size_t limitConnections(const ServerOptions& options)
{
    const bool isSecure = !options.tls.empty();
    const rlim_t ofConnection = isSecure ? kDescriptorsOfSecure : 1;
    rlim_t others =
        kOtherDescriptors + Listener::kMaxRefused + options.threads * kDescriptorsOfDaemon;
    if (isSecure)
        others += TlsHandshakes::kMaxHandshakes +
                  options.threads * (kDescriptorsOfRelay + TlsRelay::kMaxDiscarding);
    const rlim_t needed = options.maxConnections * ofConnection + others;
    const rlim_t wanted = needed + options.maxConnections * kDescriptorsOfResponse;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted)
        return options.maxConnections;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= needed)
        return options.maxConnections;
    const rlim_t left = limit.rlim_cur > others ? limit.rlim_cur - others : 0;
    const rlim_t possible =
        std::min<rlim_t>(options.maxConnections, std::max(left / ofConnection, kMinConnections));
    qvLogObject(qvLogObject::kWarning)
        << "at most " << possible << " connections instead of " << options.maxConnections
        << ": the process may have " << limit.rlim_cur << " descriptors (RLIMIT_NOFILE)";
    return possible;
}

ConnectionLimits limitsOf(const ServerOptions& options)
{
    ConnectionLimits limits;
    limits.headMs = options.headTimeout.count();
    limits.idleMs = options.idleTimeout.count();
    limits.bodyMs = options.bodyTimeout.count();
    limits.minBodyBytesPerSecond = options.minBodyBytesPerSecond;
    limits.responseMs = options.responseTimeout.count();
    return limits;
}

std::string openEndpoints(const ServerOptions& options, std::vector<ListeningSocket>& sockets)
{
    std::string failure;
    for (const std::string& text : options.listen) {
        const Endpoint endpoint = ParseEndpoint(text, failure);
        const size_t before = sockets.size();
        if (failure.empty())
            failure = OpenEndpoint(endpoint, sockets);
        if (!failure.empty())
            break;
        for (size_t i = before; i < sockets.size(); ++i)
            sockets[i].setRole(RoleOf(options, text));
    }
    return failure;
}

// A Unix socket has none.
std::string urlOf(const ListeningSocket& socket)
{
    const std::string& name = socket.getName();
    if (name.rfind(kUnixPrefix, 0) == 0)
        return name;
    const bool isPlain = socket.getRole().tls == ListeningSocket::Role::kPlain;
    return (isPlain ? "http://" : "https://") + name + '/';
}

}  // namespace

ServerOptions ReadOptions(const ServerOptions& options, size_t recordBytes)
{
    ServerOptions known;
    const auto read = [&](auto... field) { (readField(options, recordBytes, field, known), ...); };
    using Options = ServerOptions;
    read(&Options::listen, &Options::threads, &Options::connectionMemoryBytes,
         &Options::maxConnections, &Options::maxConnectionsPerAddress, &Options::headTimeout,
         &Options::idleTimeout, &Options::bodyTimeout, &Options::minBodyBytesPerSecond,
         &Options::sendTimeout, &Options::responseTimeout, &Options::uploadQueueBytes,
         &Options::halfClosedClients, &Options::trustedProxies, &Options::allowedHosts,
         &Options::strictRequests, &Options::memoryBudgetBytes, &Options::tls,
         &Options::redirectToHttps, &Options::httpsPort);
    return known;
}

std::string CheckOptions(const ServerOptions& options)
{
    const std::string checks[] = {
        checkEndpoints(options.listen),
        checkRange<uint32_t>("threads", options.threads, 1, kMaxThreads),
        checkRange<size_t>("connectionMemoryBytes", options.connectionMemoryBytes, kMinMemoryBytes,
                           kMaxMemoryBytes),
        checkRange<uint32_t>("maxConnections", options.maxConnections, 1, kMaxConnections),
        checkTimeout("headTimeout", options.headTimeout),
        checkTimeout("idleTimeout", options.idleTimeout),
        checkTimeout("bodyTimeout", options.bodyTimeout),
        checkTimeout("sendTimeout", options.sendTimeout),
        checkTimeout("responseTimeout", options.responseTimeout),
        checkSets(options),
        CheckSecureEndpoints(options),
    };
    for (const std::string& why : checks) {
        if (!why.empty())
            return why;
    }
    return std::string();
}

bool EventServer::startDaemons(http::HttpServer& server, const ServerOptions& options)
{
    EventDaemon::Settings ofDaemon;
    ofDaemon.connectionMemoryBytes = options.connectionMemoryBytes;
    ofDaemon.uploadQueueBytes = options.uploadQueueBytes;
    ofDaemon.halfClosedClients = options.halfClosedClients;
    std::string checked;
    ofDaemon.trustedProxies = proxiesOf(options, checked);
    ofDaemon.allowedHosts = hostsOf(options, checked);
    ofDaemon.strictRequests = options.strictRequests;
    ofDaemon.memoryBudget = mMemoryBudget;
    ofDaemon.httpsPort = options.httpsPort;
    for (const http::TlsOptions& tls : options.tls)
        ofDaemon.strictTransport.push_back(StrictTransportOf(tls));
    ConnectionLimits ofConnection = limitsOf(options);
    ofConnection.memoryBudget = mMemoryBudget;
    for (uint32_t i = 0; i < options.threads; ++i) {
        mDaemons.push_back(std::make_unique<EventDaemon>(server, ofDaemon, ofConnection));
        if (!mDaemons.back()->start())
            return false;
    }
    return true;
}

std::unique_ptr<EventServer> EventServer::Open(http::HttpServer& server,
                                               const ServerOptions& options, std::string& failure)
{
    failure = CheckOptions(options);
    if (failure.empty() && options.strictRequests)
        failure = TestStrictPositions();
    if (!failure.empty())
        return nullptr;
    std::unique_ptr<EventServer> made(new EventServer);
    if (!options.tls.empty())
        made->mTls =
            TlsEngine::Open(options.tls, options.threads, options.halfClosedClients, failure);
    if (!failure.empty())
        return nullptr;
    std::vector<ListeningSocket> sockets;
    failure = openEndpoints(options, sockets);
    if (!failure.empty())
        return nullptr;
    for (const ListeningSocket& socket : sockets) {
        made->mEndpoints.push_back(socket.getName());
        made->mUrls.push_back(urlOf(socket));
    }
    Listener::Limits ofListener;
    ofListener.maxConnections = limitConnections(options);
    ofListener.maxConnectionsPerAddress = options.maxConnectionsPerAddress;
    ofListener.sendMs = options.sendTimeout.count();
    ofListener.halfClosedClients = options.halfClosedClients;
    ofListener.headMs = options.headTimeout.count();
    ofListener.trustedProxies = proxiesOf(options, failure);
    if (options.memoryBudgetBytes != 0)
        made->mMemoryBudget = std::make_shared<MemoryBudget>(options.memoryBudgetBytes);
    ofListener.memoryBudget = made->mMemoryBudget;
    ofListener.uploadPieceBytes = options.connectionMemoryBytes / 2;
    ofListener.tls = made->mTls;
    ofListener.handshakeThreads = std::min<size_t>(options.threads, kMaxHandshakeThreads);
    if (!made->startDaemons(server, options)) {
        failure = "cannot start a thread for connections";
        return nullptr;
    }
    std::vector<ConnectionSink*> sinks;
    for (const auto& daemon : made->mDaemons)
        sinks.push_back(daemon.get());
    try {
        made->mListener =
            std::make_unique<Listener>(ofListener, std::move(sockets), std::move(sinks));
    } catch (const std::system_error& error) {
        failure = std::string("cannot watch connections: ") + error.what();
        return nullptr;
    }
    for (const auto& daemon : made->mDaemons)
        daemon->setListener(*made->mListener);
    return made;
}

// The daemons use the listener until they are stopped.
EventServer::~EventServer()
{
    mDaemons.clear();
}

std::string EventServer::reloadCertificates()
{
    return mTls ? mTls->reload() : "the server has no secure endpoint";
}

}  // namespace qv::impl

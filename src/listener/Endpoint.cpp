// Endpoints: their texts, and listening sockets of every kind.

#include "listener/Endpoint.h"

#include "request/FieldText.h"

#include <qvSystem/IpAddress.h>
#include <qvSystem/SystemError.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr std::string_view kUnixPrefix = "unix:";
constexpr std::string_view kDescriptorPrefix = "fd:";
constexpr std::string_view kSystemdName = "systemd";
constexpr std::string_view kSystemdPrefix = "systemd:";
constexpr std::string_view kModeOption = ",mode=";
constexpr std::string_view kAnyHost = "*";

constexpr unsigned kMaxMode = 0777;
constexpr int kListenBacklog = 4096;       // the kernel lowers it to net.core.somaxconn
constexpr int kFirstPassedDescriptor = 3;  // of the service manager

constexpr size_t kMaxPathBytes = sizeof sockaddr_un{}.sun_path - 1;

bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

template <typename Number> bool parseNumber(std::string_view text, Number& number, int base = 10)
{
    const char* const end = text.data() + text.size();
    const auto [stopped, failure] = std::from_chars(text.data(), end, number, base);
    return failure == std::errc() && stopped == end && !text.empty();
}

// The system's text in the middle of a sentence.
std::string systemText(int errnoValue)
{
    std::string text = SystemError(errnoValue).toString();
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

std::string cannotListen(const std::string& where, const std::string& why)
{
    return "cannot listen on " + where + ": " + why;
}

std::string invalid(const std::string& text, const std::string& why)
{
    return "ServerOptions::listen: \"" + text + "\": " + why;
}

std::string parseUnix(std::string_view rest, Endpoint& endpoint)
{
    const size_t option = rest.rfind(kModeOption);
    if (option != std::string_view::npos) {
        unsigned mode = 0;
        if (!parseNumber(rest.substr(option + kModeOption.size()), mode, 8) || mode > kMaxMode)
            return "the mode is not an octal number of at most 777";
        endpoint.mode = mode;
        rest = rest.substr(0, option);
    }
    if (rest.empty() || rest.front() != '/')
        return "the path does not begin with \"/\"";
    if (rest.size() > kMaxPathBytes)
        return "the path is longer than " + std::to_string(kMaxPathBytes) + " bytes";
    if (rest.find('\0') != std::string_view::npos)
        return "the path contains a zero byte";
    endpoint.kind = Endpoint::Kind::Unix;
    endpoint.path = rest;
    return std::string();
}

std::string parseDescriptor(std::string_view rest, Endpoint& endpoint)
{
    if (!parseNumber(rest, endpoint.descriptor) || endpoint.descriptor < 0)
        return "no descriptor number after \"fd:\"";
    endpoint.kind = Endpoint::Kind::Descriptor;
    return std::string();
}

// The characters that the service manager allows.
std::string parseSystemd(std::string_view name, Endpoint& endpoint)
{
    const auto isForbidden = [](char c) { return c <= ' ' || c > '~' || c == ':'; };
    if (name.empty() || std::any_of(name.begin(), name.end(), isForbidden))
        return "no name of a socket after \"systemd:\"";
    endpoint.kind = Endpoint::Kind::Systemd;
    endpoint.socketName = name;
    return std::string();
}

std::string parseTcp(std::string_view text, Endpoint& endpoint)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return "no port; use host:port, [IPv6 address]:port, *:port, unix:/path, fd:N, systemd or "
               "systemd:NAME";
    const std::optional<uint16_t> port = ParsePort(text.substr(colon + 1));
    if (!port)
        return "the port is not a number of at most 65535";
    std::string_view host = text.substr(0, colon);
    const bool isBracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (isBracketed)
        host = host.substr(1, host.size() - 2);
    const IpAddress address = IpAddress::fromText(std::string(host), 0);
    if (isBracketed && address.getFamily() != IpAddress::Family::V6)
        return "no IPv6 address between the brackets";
    if (!isBracketed && host.find(':') != std::string_view::npos)
        return "an IPv6 address stands in brackets: [address]:port";
    if (host.empty())
        return "no host before the port; use *:port for every address";
    if (host.find('\0') != std::string_view::npos)
        return "the host contains a zero byte";
    endpoint.kind = Endpoint::Kind::Tcp;
    endpoint.host = host;
    endpoint.port = *port;
    return std::string();
}

// The bound address, as the system tells it.
std::string boundName(int descriptor)
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (getsockname(descriptor, plain, &size) != 0)
        return std::string();
    if (address.ss_family == AF_UNIX) {
        const auto& local = reinterpret_cast<const sockaddr_un&>(address);
        const size_t bytes = size - offsetof(sockaddr_un, sun_path);
        return std::string(kUnixPrefix) +
               std::string(local.sun_path, strnlen(local.sun_path, bytes));
    }
    return IpAddress::fromIP(plain).toStringWithPort();
}

class Descriptor
{
public:
    explicit Descriptor(int value) : mValue(value) {}
    ~Descriptor()
    {
        if (mValue >= 0)
            close(mValue);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return mValue; }
    int release() { return std::exchange(mValue, -1); }

private:
    int mValue;
};

void setFlag(int descriptor, int level, int option, int value)
{
    setsockopt(descriptor, level, option, &value, sizeof value);
}

// Returns 0 or the system's error.
int openAddress(const sockaddr* address, socklen_t size, bool alsoIpv4,
                std::vector<ListeningSocket>& sockets)
{
    Descriptor made(socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.get() < 0)
        return errno;
    setFlag(made.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    if (address->sa_family == AF_INET6)
        setFlag(made.get(), IPPROTO_IPV6, IPV6_V6ONLY, alsoIpv4 ? 0 : 1);
    if (bind(made.get(), address, size) != 0 || listen(made.get(), kListenBacklog) != 0)
        return errno;
    std::string name = boundName(made.get());
    sockets.emplace_back(made.get(), std::move(name), false);
    made.release();
    return 0;
}

int openAnyAddress(uint16_t port, std::vector<ListeningSocket>& sockets)
{
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_addr = in6addr_any;
    const int failure = openAddress(reinterpret_cast<sockaddr*>(&v6), sizeof v6, true, sockets);
    if (failure != EAFNOSUPPORT && failure != EADDRNOTAVAIL)
        return failure;
    // A machine without IPv6.
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(INADDR_ANY);
    return openAddress(reinterpret_cast<sockaddr*>(&v4), sizeof v4, false, sockets);
}

std::string openTcp(const Endpoint& endpoint, std::vector<ListeningSocket>& sockets)
{
    if (endpoint.host == kAnyHost) {
        const int failure = openAnyAddress(endpoint.port, sockets);
        return failure == 0 ? std::string() : cannotListen(endpoint.text, systemText(failure));
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int unresolved =
        getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found);
    if (unresolved != 0)
        return cannotListen(endpoint.text, unresolved == EAI_SYSTEM ? systemText(errno)
                                                                    : "the host has no address");
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> held(found, &freeaddrinfo);
    for (const addrinfo* one = found; one; one = one->ai_next) {
        const int failure = openAddress(one->ai_addr, one->ai_addrlen, false, sockets);
        if (failure != 0)
            return cannotListen(endpoint.text, systemText(failure));
    }
    return std::string();
}

// A file that a server has left behind is removed. Returns why the path cannot be used.
std::string removeStaleSocket(const std::string& path, const sockaddr_un& address)
{
    struct stat found
    {};
    if (lstat(path.c_str(), &found) != 0)
        return std::string();
    if (!S_ISSOCK(found.st_mode))
        return "the path exists and is no socket";
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (probe.get() < 0)
        return systemText(errno);
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED)
        return systemText(EADDRINUSE);
    return unlink(path.c_str()) == 0 ? std::string() : systemText(errno);
}

std::string openUnix(const Endpoint& endpoint, std::vector<ListeningSocket>& sockets)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    endpoint.path.copy(address.sun_path, kMaxPathBytes);
    std::string why = removeStaleSocket(endpoint.path, address);
    if (!why.empty())
        return cannotListen(endpoint.text, why);
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.get() < 0 ||
        bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return cannotListen(endpoint.text, systemText(errno));
    ListeningSocket bound(made.release(), std::string(kUnixPrefix) + endpoint.path, false);
    bound.removeFileAtEnd(endpoint.path);
    // Before listen: nobody connects while the mode is that of the process's mask.
    if (chmod(endpoint.path.c_str(), endpoint.mode) != 0 ||
        listen(bound.getDescriptor(), kListenBacklog) != 0)
        return cannotListen(endpoint.text, systemText(errno));
    sockets.push_back(std::move(bound));
    return std::string();
}

// The caller's descriptor stays open: it belongs to the process that passed it.
std::string openDescriptor(const std::string& where, int descriptor,
                           std::vector<ListeningSocket>& sockets)
{
    int isListening = 0;
    int type = 0;
    socklen_t size = sizeof isListening;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &isListening, &size) != 0)
        return cannotListen(where, systemText(errno));
    size = sizeof type;
    getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size);
    if (!isListening || type != SOCK_STREAM)
        return cannotListen(where, "the descriptor is no listening stream socket");
    Descriptor copy(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    const int flags = copy.get() < 0 ? -1 : fcntl(copy.get(), F_GETFL);
    if (flags < 0 || fcntl(copy.get(), F_SETFL, flags | O_NONBLOCK) != 0)
        return cannotListen(where, systemText(errno));
    std::string name = boundName(copy.get());
    sockets.emplace_back(copy.get(), std::move(name), true);
    copy.release();
    return std::string();
}

// The name of each passed socket; the manager separates them by colons.
std::string_view takePassedName(std::string_view& names)
{
    const std::string_view name = names.substr(0, names.find(':'));
    names.remove_prefix(std::min(name.size() + 1, names.size()));
    return name;
}

std::string openPassedDescriptors(const Endpoint& endpoint, std::vector<ListeningSocket>& sockets)
{
    const char* const process = std::getenv("LISTEN_PID");
    const char* const count = std::getenv("LISTEN_FDS");
    pid_t processNumber = 0;
    int passed = 0;
    if (!process || !count || !parseNumber(std::string_view(process), processNumber) ||
        processNumber != getpid() || !parseNumber(std::string_view(count), passed) || passed < 1)
        return cannotListen(endpoint.text, "no sockets were passed to this process "
                                           "(LISTEN_PID, LISTEN_FDS)");
    const char* const listed = std::getenv("LISTEN_FDNAMES");
    std::string_view names = listed ? listed : "";
    const size_t before = sockets.size();
    for (int i = 0; i < passed; ++i) {
        const int descriptor = kFirstPassedDescriptor + i;
        // A child of the application must not hold it.
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        const std::string_view name = takePassedName(names);
        if (!endpoint.socketName.empty() && name != endpoint.socketName)
            continue;
        std::string why =
            openDescriptor("systemd socket " + std::to_string(descriptor), descriptor, sockets);
        if (!why.empty())
            return why;
    }
    if (sockets.size() == before)
        return cannotListen(endpoint.text, "no socket of this name was passed to this process "
                                           "(LISTEN_FDNAMES)");
    return std::string();
}

}  // namespace

Endpoint ParseEndpoint(const std::string& text, std::string& error)
{
    const std::string_view view(text);
    Endpoint endpoint;
    endpoint.text = text;
    std::string why;
    if (view == kSystemdName)
        endpoint.kind = Endpoint::Kind::Systemd;
    else if (startsWith(view, kSystemdPrefix))
        why = parseSystemd(view.substr(kSystemdPrefix.size()), endpoint);
    else if (startsWith(view, kUnixPrefix))
        why = parseUnix(view.substr(kUnixPrefix.size()), endpoint);
    else if (startsWith(view, kDescriptorPrefix))
        why = parseDescriptor(view.substr(kDescriptorPrefix.size()), endpoint);
    else
        why = parseTcp(view, endpoint);
    error = why.empty() ? why : invalid(text, why);
    return endpoint;
}

ListeningSocket::ListeningSocket(int descriptor, std::string name, bool isShared)
    : mDescriptor(descriptor), mName(std::move(name)), mIsShared(isShared)
{}

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept
    : mDescriptor(std::exchange(other.mDescriptor, -1)), mName(std::move(other.mName)),
      mIsShared(other.mIsShared), mRole(other.mRole),
      mPath(std::exchange(other.mPath, std::string())), mDevice(other.mDevice), mInode(other.mInode)
{}

ListeningSocket::~ListeningSocket()
{
    struct stat found
    {};
    // A successor may have replaced the file.
    if (!mPath.empty() && lstat(mPath.c_str(), &found) == 0 && found.st_dev == mDevice &&
        found.st_ino == mInode)
        unlink(mPath.c_str());
    if (mDescriptor >= 0)
        close(mDescriptor);
}

void ListeningSocket::removeFileAtEnd(const std::string& path)
{
    struct stat made
    {};
    if (lstat(path.c_str(), &made) != 0)
        return;
    mPath = path;
    mDevice = made.st_dev;
    mInode = made.st_ino;
}

std::string OpenEndpoint(const Endpoint& endpoint, std::vector<ListeningSocket>& sockets)
{
    switch (endpoint.kind) {
    case Endpoint::Kind::Unix:
        return openUnix(endpoint, sockets);
    case Endpoint::Kind::Descriptor:
        return openDescriptor(endpoint.text, endpoint.descriptor, sockets);
    case Endpoint::Kind::Systemd:
        return openPassedDescriptors(endpoint, sockets);
    default:
        return openTcp(endpoint, sockets);
    }
}

}  // namespace qv::impl

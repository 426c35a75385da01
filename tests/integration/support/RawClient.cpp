// A client that sends exactly the bytes it is given, also bytes that no well-behaved client sends.

#include "RawClient.h"

#include "TestMode.h"
#include "Waiting.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace integration
{

namespace
{

constexpr size_t kReadBytes = 65536;

void setLimits(int descriptor)
{
    const timeval limit{kLimit.count(), 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

int connectTo(const char* address, uint16_t port)
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return -1;
    setLimits(descriptor);
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(port);
    if (::inet_pton(AF_INET, address, &target.sin_addr) == 1 &&
        ::connect(descriptor, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0)
        return descriptor;
    ::close(descriptor);
    return -1;
}

bool sameName(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<uint64_t> number(const std::string& text, int base)
{
    uint64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size())
        return std::nullopt;
    return value;
}

// The end of a socket as the kernel's table of connections writes it; empty without one.
std::string tableEntry(const sockaddr_in& end)
{
    std::ostringstream text;
    text << std::uppercase << std::hex << std::setfill('0') << std::setw(8) << end.sin_addr.s_addr
         << ':' << std::setw(4) << ntohs(end.sin_port);
    return text.str();
}

// The bytes that wait to be read at the end of a connection that is `local` there.
std::optional<uint64_t> waitingBytes(const std::string& local, const std::string& remote)
{
    std::ifstream table("/proc/net/tcp");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string index, from, to, state, queues;
        if (!(fields >> index >> from >> to >> state >> queues) || from != local || to != remote)
            continue;
        return number(queues.substr(queues.find(':') + 1), 16);
    }
    return std::nullopt;
}

}  // namespace

std::vector<std::string> RawResponse::values(std::string_view name) const
{
    std::vector<std::string> found;
    for (const auto& header : headers) {
        if (sameName(header.first, name))
            found.push_back(header.second);
    }
    return found;
}

std::string RawResponse::value(std::string_view name) const
{
    const std::vector<std::string> found = values(name);
    return found.size() == 1 ? found.front() : std::string();
}

RawClient::RawClient(uint16_t port) : mDescriptor(connectTo("127.0.0.1", port))
{
    if (mDescriptor < 0)
        throw std::runtime_error("cannot connect to port " + std::to_string(port));
    if (integration::isSecure())
        mTls = std::make_unique<TlsEnd>(mDescriptor);
}

RawClient::RawClient(uint16_t port, const TlsEnd::Prepare& prepare)
    : mDescriptor(connectTo("127.0.0.1", port))
{
    if (mDescriptor < 0)
        throw std::runtime_error("cannot connect to port " + std::to_string(port));
    mTls = std::make_unique<TlsEnd>(mDescriptor, prepare);
}

RawClient::RawClient(Connected connected) : mDescriptor(connected.descriptor)
{
    if (mDescriptor < 0)
        throw std::runtime_error("not connected");
    setLimits(mDescriptor);
    if (integration::isSecure())
        mTls = std::make_unique<TlsEnd>(mDescriptor);
}

RawClient::RawClient(Connected connected, const TlsEnd::Prepare& prepare)
    : mDescriptor(connected.descriptor)
{
    if (mDescriptor < 0)
        throw std::runtime_error("not connected");
    setLimits(mDescriptor);
    mTls = std::make_unique<TlsEnd>(mDescriptor, prepare);
}

RawClient::~RawClient()
{
    close();
}

bool RawClient::accepts(const char* address, uint16_t port)
{
    const int descriptor = connectTo(address, port);
    if (descriptor < 0)
        return false;
    ::close(descriptor);
    return true;
}

bool RawClient::send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = mTls ? mTls->send(bytes.data(), bytes.size())
                                  : ::send(mDescriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

ssize_t RawClient::receivePiece(char* bytes, size_t size)
{
    return mTls ? mTls->receive(bytes, size) : ::recv(mDescriptor, bytes, size, 0);
}

bool RawClient::fill()
{
    if (mEnded)
        return false;
    std::array<char, kReadBytes> piece;
    ssize_t got = 0;
    do {
        got = receivePiece(piece.data(), piece.size());
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
        // A limit that has passed is no end of the connection.
        mEnded = got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
        return false;
    }
    mBuffer.append(piece.data(), static_cast<size_t>(got));
    return true;
}

std::optional<std::string> RawClient::takeLine()
{
    size_t end = std::string::npos;
    while ((end = mBuffer.find("\r\n")) == std::string::npos) {
        if (!fill())
            return std::nullopt;
    }
    std::string line = mBuffer.substr(0, end);
    mBuffer.erase(0, end + 2);
    return line;
}

std::optional<RawResponse> RawClient::receiveHead()
{
    RawResponse response;
    std::optional<std::string> line = takeLine();
    if (!line)
        return std::nullopt;
    response.statusLine = *line;
    constexpr std::string_view kVersion = "HTTP/1.1 ";
    constexpr size_t kStatusDigits = 3;
    if (line->compare(0, kVersion.size(), kVersion) == 0) {
        const auto status = number(line->substr(kVersion.size(), kStatusDigits), 10);
        response.status = status ? static_cast<int>(*status) : 0;
    }
    while ((line = takeLine())) {
        if (line->empty())
            return response;
        const size_t colon = line->find(": ");
        if (colon == std::string::npos)
            return std::nullopt;
        response.headers.emplace_back(line->substr(0, colon), line->substr(colon + 2));
    }
    return std::nullopt;
}

bool RawClient::receiveChunks(RawResponse& response)
{
    for (;;) {
        const std::optional<std::string> sizeLine = takeLine();
        if (!sizeLine)
            return false;
        const std::optional<uint64_t> size = number(*sizeLine, 16);
        if (!size)
            return false;
        const std::string chunk = receiveExactly(static_cast<size_t>(*size));
        if (chunk.size() != *size || takeLine() != "")
            return false;
        if (*size == 0)
            return true;
        response.body += chunk;
    }
}

bool RawClient::receiveBody(RawResponse& response)
{
    if (response.value("Transfer-Encoding") == "chunked")
        return receiveChunks(response);
    const std::vector<std::string> lengths = response.values("Content-Length");
    if (lengths.empty()) {
        response.body = receiveToEnd();
        return mEnded;
    }
    const std::optional<uint64_t> length = number(lengths.front(), 10);
    if (!length)
        return false;
    response.body = receiveExactly(static_cast<size_t>(*length));
    return response.body.size() == *length;
}

std::optional<RawResponse> RawClient::receive(bool toHead)
{
    constexpr int kNoContent = 204;
    constexpr int kNotModified = 304;
    std::optional<RawResponse> response = receiveHead();
    if (!response)
        return std::nullopt;
    if (toHead || response->status == kNoContent || response->status == kNotModified)
        return response;
    if (!receiveBody(*response))
        return std::nullopt;
    return response;
}

std::string RawClient::receiveSome(size_t size)
{
    if (mBuffer.empty())
        fill();
    std::string bytes = mBuffer.substr(0, size);
    mBuffer.erase(0, bytes.size());
    return bytes;
}

std::string RawClient::receiveExactly(size_t size)
{
    while (mBuffer.size() < size && fill()) {
    }
    std::string bytes = mBuffer.substr(0, size);
    mBuffer.erase(0, bytes.size());
    return bytes;
}

std::string RawClient::receiveToEnd()
{
    while (fill()) {
    }
    return std::exchange(mBuffer, std::string());
}

bool RawClient::isClosedByServer()
{
    return receiveToEnd().empty() && mEnded;
}

bool RawClient::waitUntilTaken() const
{
    sockaddr_in own{};
    sockaddr_in server{};
    socklen_t size = sizeof own;
    if (::getsockname(mDescriptor, reinterpret_cast<sockaddr*>(&own), &size) != 0 ||
        ::getpeername(mDescriptor, reinterpret_cast<sockaddr*>(&server), &size) != 0)
        return false;
    return waitUntil([&] {
        int unsent = 0;
        return ::ioctl(mDescriptor, SIOCOUTQ, &unsent) == 0 && unsent == 0 &&
               waitingBytes(tableEntry(server), tableEntry(own)) == 0u;
    });
}

void RawClient::finishSending()
{
    if (mTls)
        mTls->finishSending();
    ::shutdown(mDescriptor, SHUT_WR);
}

void RawClient::reset()
{
    const linger atOnce{1, 0};
    ::setsockopt(mDescriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    mTls.reset();
    close();
}

void RawClient::close()
{
    if (mTls) {
        mTls->finishSending();
        // Unread tickets would reset the connection.
        std::array<char, kReadBytes> unread;
        ::recv(mDescriptor, unread.data(), unread.size(), MSG_DONTWAIT);
    }
    mTls.reset();
    if (mDescriptor >= 0)
        ::close(mDescriptor);
    mDescriptor = -1;
    mEnded = true;
}

int connectPlain(uint16_t port)
{
    return connectTo("127.0.0.1", port);
}

std::string getRequest(const std::string& target, const std::string& headerLines)
{
    return "GET " + target + " HTTP/1.1\r\nHost: x\r\n" + headerLines + "\r\n";
}

}  // namespace integration

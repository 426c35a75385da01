// Version 1 is a line of text, version 2 begins with a signature that no HTTP request begins with.

#include "listener/ProxyHeader.h"

#include "request/FieldText.h"

#include <algorithm>
#include <array>

namespace qv::impl
{
namespace
{

constexpr std::string_view kSignature1 = "PROXY ";
constexpr std::string_view kSignature2("\r\n\r\n\0\r\nQUIT\n", 12);

constexpr size_t kMaxLineBytes = 107;  // with the line end
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kUnknown = "UNKNOWN";
constexpr size_t kMaxPortDigits = 5;

constexpr size_t kVersionPosition = 12;
constexpr size_t kFamilyPosition = 13;
constexpr size_t kLengthPosition = 14;
constexpr size_t kFixedBytes = 16;
constexpr unsigned kLocal = 0x20;
constexpr unsigned kProxied = 0x21;
constexpr size_t kIpv4Bytes = 4;
constexpr size_t kPortBytes = 2;

ProxyHeader inState(ProxyHeader::State state)
{
    ProxyHeader header;
    header.state = state;
    return header;
}

ProxyHeader malformed()
{
    return inState(ProxyHeader::State::Malformed);
}

ProxyHeader incomplete()
{
    return inState(ProxyHeader::State::Incomplete);
}

ProxyHeader complete(size_t bytes)
{
    ProxyHeader header = inState(ProxyHeader::State::Complete);
    header.bytes = bytes;
    return header;
}

// The text up to the next space, which is removed as well; all of it without one.
std::string_view takeField(std::string_view& rest)
{
    const size_t space = rest.find(' ');
    const std::string_view field = rest.substr(0, space);
    rest = space == std::string_view::npos ? std::string_view() : rest.substr(space + 1);
    return field;
}

// Without leading zeros.
std::optional<uint16_t> parsePort(std::string_view text)
{
    if (text.size() > kMaxPortDigits || (text.size() > 1 && text.front() == '0'))
        return std::nullopt;
    return ParsePort(text);
}

// An address of the family that the line names.
std::optional<NetworkAddress> parseAddress(std::string_view text, bool isV6)
{
    if ((text.find(':') != std::string_view::npos) != isV6)
        return std::nullopt;
    return ParseNetworkAddress(text);
}

// `line`: behind the signature, without the line end.
ProxyHeader parseLine(std::string_view line, size_t bytes)
{
    std::string_view rest = line;
    const std::string_view family = takeField(rest);
    if (family == kUnknown)
        return complete(bytes);
    if (family != "TCP4" && family != "TCP6")
        return malformed();
    const bool isV6 = family == "TCP6";
    ProxyHeader header = complete(bytes);
    header.source = parseAddress(takeField(rest), isV6);
    const std::optional<NetworkAddress> destination = parseAddress(takeField(rest), isV6);
    const std::optional<uint16_t> port = parsePort(takeField(rest));
    const std::optional<uint16_t> destinationPort = parsePort(rest);
    if (!header.source || !destination || !port || !destinationPort)
        return malformed();
    header.source->port = *port;
    return header;
}

ProxyHeader parseVersion1(std::string_view received)
{
    const size_t end = received.substr(0, kMaxLineBytes).find_first_of(kLineEnd);
    if (end == std::string_view::npos)
        return received.size() < kMaxLineBytes ? incomplete() : malformed();
    const std::string_view lineEnd = received.substr(end, kLineEnd.size());
    if (lineEnd == kLineEnd && end + kLineEnd.size() <= kMaxLineBytes)
        return parseLine(received.substr(kSignature1.size(), end - kSignature1.size()),
                         end + kLineEnd.size());
    return lineEnd == "\r" && received.size() < kMaxLineBytes ? incomplete() : malformed();
}

unsigned byteAt(std::string_view text, size_t position)
{
    return static_cast<unsigned char>(text[position]);
}

unsigned numberAt(std::string_view text, size_t position)
{
    return byteAt(text, position) << 8 | byteAt(text, position + 1);
}

// Bytes of one address; 0 for families that tell none of a network. None for an unknown family.
std::optional<size_t> addressBytes(unsigned family)
{
    switch (family) {
    case 0x00:  // not specified
        return 0;
    case 0x11:  // IPv4 over TCP, UDP
    case 0x12:
        return kIpv4Bytes;
    case 0x21:  // IPv6 over TCP, UDP
    case 0x22:
        return NetworkAddress::kBytes;
    case 0x31:  // Unix sockets
    case 0x32:
        return 0;
    default:
        return std::nullopt;
    }
}

NetworkAddress sourceOf(std::string_view block, size_t bytes)
{
    NetworkAddress source;
    if (bytes == kIpv4Bytes) {
        source.bytes[10] = source.bytes[11] = 0xff;
        block.copy(reinterpret_cast<char*>(source.bytes.data()) + 12, kIpv4Bytes);
    } else {
        block.copy(reinterpret_cast<char*>(source.bytes.data()), bytes);
    }
    source.port = static_cast<uint16_t>(numberAt(block, 2 * bytes));
    return source;
}

// Each part is judged as soon as it has been received.
ProxyHeader parseVersion2(std::string_view received)
{
    if (received.size() <= kVersionPosition)
        return incomplete();
    const unsigned command = byteAt(received, kVersionPosition);
    if (command != kLocal && command != kProxied)
        return malformed();
    if (received.size() < kFixedBytes)
        return incomplete();
    const unsigned length = numberAt(received, kLengthPosition);
    if (length > kMaxProxyHeaderBytes - kFixedBytes)
        return malformed();
    // Of a connection of the proxy itself everything else is ignored.
    const std::optional<size_t> bytes =
        command == kLocal ? 0 : addressBytes(byteAt(received, kFamilyPosition));
    if (!bytes || (*bytes != 0 && length < 2 * (*bytes + kPortBytes)))
        return malformed();
    if (received.size() < kFixedBytes + length)
        return incomplete();
    ProxyHeader header = complete(kFixedBytes + length);
    header.isLocal = command == kLocal;
    if (*bytes != 0)
        header.source = sourceOf(received.substr(kFixedBytes, length), *bytes);
    return header;
}

bool haveSameStart(std::string_view a, std::string_view b)
{
    const size_t bytes = std::min(a.size(), b.size());
    return a.substr(0, bytes) == b.substr(0, bytes);
}

}  // namespace

ProxyHeader ParseProxyHeader(std::string_view received)
{
    if (haveSameStart(received, kSignature1))
        return received.size() < kSignature1.size() ? incomplete() : parseVersion1(received);
    if (haveSameStart(received, kSignature2))
        return received.size() < kSignature2.size() ? incomplete() : parseVersion2(received);
    return ProxyHeader();
}

}  // namespace qv::impl

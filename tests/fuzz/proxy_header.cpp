// The PROXY header against a reading of the rules by regular expression and by offset, and in any
// number of pieces: no byte behind a header matters, and a decision does not change with more
// bytes.

#include "listener/ProxyHeader.h"

#include "support/Check.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <regex>
#include <string>

namespace
{

using qv::impl::kMaxProxyHeaderBytes;
using qv::impl::ParseProxyHeader;
using qv::impl::ProxyHeader;

using State = ProxyHeader::State;

const std::string kSignature1 = "PROXY ";
const std::string kSignature2("\r\n\r\n\0\r\nQUIT\n", 12);

struct Reading
{
    State state = State::None;
    size_t bytes = 0;
    bool isLocal = false;
    std::string source;
};

std::string Shown(const ProxyHeader& header)
{
    return header.source ? header.source->toIpAddress().toStringWithPort() : std::string();
}

std::optional<std::string> Address(int family, const std::string& text)
{
    unsigned char bytes[16];
    if (inet_pton(family, text.c_str(), bytes) != 1)
        return std::nullopt;
    const bool isMapped = family == AF_INET6 &&
                          std::all_of(bytes, bytes + 10, [](auto b) { return b == 0; }) &&
                          bytes[10] == 0xff && bytes[11] == 0xff;
    char shown[INET6_ADDRSTRLEN];
    inet_ntop(isMapped ? AF_INET : family, isMapped ? bytes + 12 : bytes, shown, sizeof shown);
    return family == AF_INET || isMapped ? std::string(shown) : "[" + std::string(shown) + "]";
}

Reading Complete(size_t bytes, const std::string& source, bool isLocal)
{
    Reading reading;
    reading.state = State::Complete;
    reading.bytes = bytes;
    reading.source = source;
    reading.isLocal = isLocal;
    return reading;
}

Reading Judged(State state)
{
    Reading reading;
    reading.state = state;
    return reading;
}

Reading ReadLine(const std::string& received)
{
    const std::string line = received.substr(0, 107);
    const size_t mark = line.find_first_of("\r\n");
    if (mark == std::string::npos)
        return Judged(line.size() < 107 ? State::Incomplete : State::Malformed);
    if (line.substr(mark) == "\r" && line.size() < 107)
        return Judged(State::Incomplete);
    if (line.substr(mark, 2) != "\r\n")
        return Judged(State::Malformed);
    const std::string text = line.substr(0, mark);
    static const std::regex kUnknown("PROXY UNKNOWN( [^]*)?");
    if (std::regex_match(text, kUnknown))
        return Complete(mark + 2, "", false);
    static const std::regex kKnown("PROXY TCP([46]) ([0-9a-fA-F:.]+) ([0-9a-fA-F:.]+) "
                                   "(0|[1-9][0-9]{0,4}) (0|[1-9][0-9]{0,4})");
    std::smatch found;
    if (!std::regex_match(text, found, kKnown) || std::stoi(found[4]) > 65535 ||
        std::stoi(found[5]) > 65535)
        return Judged(State::Malformed);
    const int family = found[1] == "4" ? AF_INET : AF_INET6;
    const auto source = Address(family, found[2]);
    if (!source || !Address(family, found[3]))
        return Judged(State::Malformed);
    return Complete(mark + 2, *source + ":" + found[4].str(), false);
}

Reading ReadBlock(const std::string& received)
{
    const auto at = [&](size_t i) { return static_cast<unsigned char>(received[i]); };
    if (received.size() < 13)
        return Judged(State::Incomplete);
    if (at(12) != 0x20 && at(12) != 0x21)
        return Judged(State::Malformed);
    if (received.size() < 16)
        return Judged(State::Incomplete);
    const size_t length = at(14) * 256u + at(15);
    if (length > 4096)
        return Judged(State::Malformed);
    std::string source;
    if (at(12) == 0x21) {
        const unsigned family = at(13) >> 4;
        const unsigned protocol = at(13) & 15;
        const bool isUnspecified = at(13) == 0;
        if (!isUnspecified && (family < 1 || family > 3 || protocol < 1 || protocol > 2))
            return Judged(State::Malformed);
        const size_t size = family == 1 ? 4 : family == 2 ? 16 : 0;
        if (size != 0 && length < 2 * size + 4)
            return Judged(State::Malformed);
        if (size != 0 && received.size() >= 16 + length) {
            char shown[INET6_ADDRSTRLEN];
            inet_ntop(family == 1 ? AF_INET : AF_INET6, received.data() + 16, shown, sizeof shown);
            source = *Address(family == 1 ? AF_INET : AF_INET6, shown) + ":" +
                     std::to_string(at(16 + 2 * size) * 256 + at(17 + 2 * size));
        }
    }
    if (received.size() < 16 + length)
        return Judged(State::Incomplete);
    return Complete(16 + length, source, at(12) == 0x20);
}

Reading Read(const std::string& received)
{
    for (const std::string& signature : {kSignature1, kSignature2}) {
        if (received.size() < signature.size() &&
            signature.compare(0, received.size(), received) == 0)
            return Judged(State::Incomplete);
    }
    if (received.compare(0, kSignature1.size(), kSignature1) == 0)
        return ReadLine(received);
    if (received.compare(0, kSignature2.size(), kSignature2) == 0)
        return ReadBlock(received);
    return Judged(State::None);
}

void CheckSame(const ProxyHeader& header, const Reading& expected)
{
    FUZZ_CHECK(header.state == expected.state);
    FUZZ_CHECK(header.bytes == expected.bytes);
    FUZZ_CHECK(header.isLocal == expected.isLocal);
    FUZZ_CHECK(Shown(header) == expected.source);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    size = std::min(size, kMaxProxyHeaderBytes);
    const std::string received(reinterpret_cast<const char*>(data), size);
    const ProxyHeader whole = ParseProxyHeader(received);
    CheckSame(whole, Read(received));
    FUZZ_CHECK(whole.bytes <= size);
    // The decision that comes first is the decision.
    std::optional<size_t> decidedAt;
    for (size_t bytes = 0; bytes <= std::min<size_t>(size, 300); ++bytes) {
        const std::string part = received.substr(0, bytes);
        const ProxyHeader now = ParseProxyHeader(part);
        CheckSame(now, Read(part));
        if (decidedAt)
            CheckSame(now, Read(received.substr(0, *decidedAt)));
        else if (now.state != State::Incomplete)
            decidedAt = bytes;
    }
    if (decidedAt)
        CheckSame(whole, Read(received.substr(0, *decidedAt)));
    if (whole.state == State::Complete)
        FUZZ_CHECK(ParseProxyHeader(received.substr(0, whole.bytes - 1)).state ==
                   State::Incomplete);
    return 0;
}

// The first bytes of a secure endpoint against a reading by regular expression, in any number of
// pieces: a decision does not change with more bytes.

#include "listener/TlsFirstBytes.h"

#include "support/Check.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <regex>
#include <string>

namespace
{

using qv::impl::ClassifyFirstBytes;
using qv::impl::kMaxFirstBytes;
using qv::impl::TlsFirstBytes;

TlsFirstBytes Read(const std::string& received)
{
    static const std::regex kRequest(
        "(GET|HEAD|POST|PUT|DELETE|OPTIONS|CONNECT|TRACE|PATCH|PRI) [^]*");
    static const std::regex kBeginning(
        "(G(E(T)?)?|H(E(A(D)?)?)?|P(O(S(T)?)?|U(T)?|A(T(C(H)?)?)?|R(I)?)?|D(E(L(E(T(E)?)?)?)?)?|"
        "O(P(T(I(O(N(S)?)?)?)?)?)?|C(O(N(N(E(C(T)?)?)?)?)?)?|T(R(A(C(E)?)?)?)?)?");
    if (!received.empty() && received[0] == '\x16')
        return TlsFirstBytes::Handshake;
    if (std::regex_match(received, kRequest))
        return TlsFirstBytes::PlainHttp;
    return std::regex_match(received, kBeginning) ? TlsFirstBytes::Incomplete
                                                  : TlsFirstBytes::Other;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string received(reinterpret_cast<const char*>(data), std::min<size_t>(size, 64));
    TlsFirstBytes before = TlsFirstBytes::Incomplete;
    for (size_t bytes = 0; bytes <= received.size(); ++bytes) {
        const std::string part = received.substr(0, bytes);
        const TlsFirstBytes now = ClassifyFirstBytes(part);
        FUZZ_CHECK(now == Read(part));
        FUZZ_CHECK(before == TlsFirstBytes::Incomplete || now == before);
        FUZZ_CHECK(bytes < kMaxFirstBytes || now != TlsFirstBytes::Incomplete);
        before = now;
    }
    return 0;
}

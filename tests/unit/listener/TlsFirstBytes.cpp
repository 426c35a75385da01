// The first bytes of a connection to a secure endpoint, whole and cut after every byte.

#include "listener/TlsFirstBytes.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::tests
{
namespace
{

using qv::impl::ClassifyFirstBytes;
using qv::impl::TlsFirstBytes;

TEST(TlsFirstBytes, TellHandshakesAndPlainRequestsApart)
{
    const struct
    {
        std::string bytes;
        TlsFirstBytes wanted;
    } rows[] = {
        {"", TlsFirstBytes::Incomplete},
        {"\x16", TlsFirstBytes::Handshake},
        {"\x16\x03\x01", TlsFirstBytes::Handshake},
        {"GET /", TlsFirstBytes::PlainHttp},
        {"HEAD /", TlsFirstBytes::PlainHttp},
        {"POST /", TlsFirstBytes::PlainHttp},
        {"PUT /", TlsFirstBytes::PlainHttp},
        {"DELETE /", TlsFirstBytes::PlainHttp},
        {"OPTIONS ", TlsFirstBytes::PlainHttp},
        {"CONNECT ", TlsFirstBytes::PlainHttp},
        {"TRACE /", TlsFirstBytes::PlainHttp},
        {"PATCH /", TlsFirstBytes::PlainHttp},
        {"PRI * HT", TlsFirstBytes::PlainHttp},
        {"get / HT", TlsFirstBytes::Other},
        {"GETS /", TlsFirstBytes::Other},
        {"GET\t/", TlsFirstBytes::Other},
        {"OPTIONSX", TlsFirstBytes::Other},
        {"SSH-2.0-", TlsFirstBytes::Other},
        {std::string(1, '\0'), TlsFirstBytes::Other},
        {"\x80", TlsFirstBytes::Other},
        {"\x15\x03", TlsFirstBytes::Other},
        {"\r\nGET / ", TlsFirstBytes::Other},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        EXPECT_EQ(ClassifyFirstBytes(row.bytes), row.wanted);
    }
}

TEST(TlsFirstBytes, AreIncompleteUntilTheSpaceBehindTheMethod)
{
    for (const std::string method : {"GET ", "OPTIONS ", "PRI ", "PATCH "}) {
        for (size_t bytes = 1; bytes < method.size(); ++bytes) {
            SCOPED_TRACE(method.substr(0, bytes));
            EXPECT_EQ(ClassifyFirstBytes(method.substr(0, bytes)), TlsFirstBytes::Incomplete);
        }
        EXPECT_EQ(ClassifyFirstBytes(method), TlsFirstBytes::PlainHttp);
        EXPECT_LE(method.size(), qv::impl::kMaxFirstBytes);
    }
}

}  // namespace
}  // namespace qv::tests

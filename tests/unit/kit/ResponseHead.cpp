#include <Wendrel/kit/ResponseHead.h>

#include <gtest/gtest.h>

#include <string>

namespace qv::kit
{
namespace
{

std::string Contents(const ResponseHead& head)
{
    std::string text;
    for (const auto& [key, header] : head.headers())
        text += header.first + ": " + header.second + "\n";
    for (const auto& [name, value] : head.cookies())
        text += name + "=" + value + "\n";
    return text;
}

TEST(ResponseHead, IsEmptyAtFirst)
{
    const ResponseHead head;
    EXPECT_EQ(Contents(head), "");
    EXPECT_EQ(head.error(), "");
    EXPECT_EQ(head.contentLength(), -1);
    EXPECT_EQ(head.header("Content-Type"), "");
}

TEST(ResponseHead, KeepsHeadersOfOneNameTogether)
{
    ResponseHead head;
    std::string inOrder;
    for (int i = 0; i < 12; ++i) {
        const char* const name = i % 2 ? "link" : "Link";
        head.addHeader(name, std::to_string(i));
        inOrder += std::string(name) + ": " + std::to_string(i) + '\n';
    }
    EXPECT_EQ(Contents(head), inOrder);
    head.setHeader("Link-To", "other");
    head.setHeader("Lin", "other");
    EXPECT_EQ(head.header("LINK"), "0");
    head.setHeader("LINK", "only");
    EXPECT_EQ(Contents(head), "Lin: other\nLINK: only\nLink-To: other\n");
    head.setHeader("link", "");
    head.addHeader("link", "");
    EXPECT_EQ(Contents(head), "Lin: other\nLink-To: other\n");
}

TEST(ResponseHead, AcceptsWhatHeadersAndCookiesMayHold)
{
    ResponseHead head;
    head.setHeader("!#$%&'*+-.^_`|~09AZaz", "tab\t, \"quoted\"; \xc3\xa4\xff");
    head.setCookie(Cookie("a!", "!#$%&'()*+-./0:<=>?@A[]^_`a{|}~"));
    head.setCookie(Cookie("empty", ""));
    EXPECT_EQ(head.error(), "");
    EXPECT_EQ(head.headers().size(), 1u);
    EXPECT_EQ(head.cookies().size(), 2u);
}

TEST(ResponseHead, RefusesNamesAndValuesThatEndALine)
{
    for (int c = 0; c < 256; ++c) {
        const char byte = static_cast<char>(c);
        SCOPED_TRACE(c);
        const bool isControl = c < 32 || c == 127;
        ResponseHead value;
        value.setHeader("X", std::string("a") + byte + "b");
        EXPECT_EQ(value.error().empty(), !isControl || byte == '\t');
        EXPECT_EQ(value.headers().size(), value.error().empty() ? 1u : 0u);
        ResponseHead added;
        added.addHeader("X", std::string("a") + byte + "b");
        EXPECT_EQ(added.error().empty(), !isControl || byte == '\t');
        ResponseHead name;
        name.setHeader(std::string("X") + byte, "a");
        const bool isToken = std::isalnum(c) && c < 128;
        const bool isMark = c > 32 && c < 127 && !isToken &&
                            std::string("\"(),/:;<=>?@[\\]{}").find(byte) == std::string::npos;
        EXPECT_EQ(name.error().empty(), isToken || isMark);
    }
}

TEST(ResponseHead, RefusesWrongCookies)
{
    ResponseHead head;
    head.setCookie(Cookie("a", "b c"));
    EXPECT_EQ(head.error(), Cookie("a", "b c").error());
    EXPECT_TRUE(head.cookies().empty());
}

TEST(ResponseHead, RefusesTheHeadersOfTheLibrary)
{
    for (const char* name :
         {"Content-Length", "content-length", "Transfer-Encoding", "SET-COOKIE"}) {
        ResponseHead head;
        head.setHeader(name, "1");
        EXPECT_EQ(head.error(), std::string("the header ") + name + " cannot be set");
        EXPECT_TRUE(head.headers().empty());
    }
}

TEST(ResponseHead, KeepsItsFirstError)
{
    ResponseHead head;
    head.setHeader("", "a");
    head.setHeader("X", "a\n");
    EXPECT_EQ(head.error(), "the header name \"\" is no token");
}

}  // namespace
}  // namespace qv::kit

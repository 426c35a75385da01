// The head of a response.

#include <Wendrel/kit/ResponseHead.h>

#include <gmock/gmock.h>

namespace qv::kit::tests
{
namespace
{

using ::testing::ElementsAre;
using ::testing::Pair;

TEST(ResponseHead, IsAnOrdinaryTextOfUnknownLengthAtFirst)
{
    ResponseHead head;
    EXPECT_EQ(head.getStatusCode(), 200u);
    EXPECT_EQ(head.getHeader("Content-Type"), "text/plain; charset=utf-8");
    EXPECT_EQ(head.getHeaders().size(), 1u);
    EXPECT_LT(head.getContentLength(), 0);
    EXPECT_TRUE(head.getCookies().empty());
}

TEST(ResponseHead, KeepsStatusAndLength)
{
    ResponseHead head;
    head.setStatus(418);
    head.setContentLength(5'000'000'000);
    EXPECT_EQ(head.getStatusCode(), 418u);
    EXPECT_EQ(head.getContentLength(), 5'000'000'000);
}

TEST(ResponseHead, ReplacesAHeaderWhateverTheCaseOfItsName)
{
    ResponseHead head;
    head.setHeader("X-Count", "1");
    head.setHeader("x-cOUNT", "2");
    head.setContentType("image/png");
    EXPECT_EQ(head.getHeader("X-COUNT"), "2");
    EXPECT_THAT(head.getHeaders(),
                ElementsAre(Pair("content-type", Pair("Content-Type", "image/png")),
                            Pair("x-count", Pair("x-cOUNT", "2"))));
}

TEST(ResponseHead, RemovesAHeaderByAnEmptyValue)
{
    ResponseHead head;
    head.setHeader("X-Count", "1");
    head.setHeader("X-COUNT", "");
    head.setHeader("never-set", "");
    head.setContentType("");
    EXPECT_TRUE(head.getHeaders().empty());
    EXPECT_EQ(head.getHeader("x-count"), "");
}

TEST(ResponseHead, OrdersConnectionBeforeDateInAnyCase)
{
    ResponseHead head;
    head.setContentType("");
    head.setHeader("date", "x");
    head.setHeader("Connection", "close");
    head.setHeader("DAtE", "y");
    EXPECT_THAT(head.getHeaders(), ElementsAre(Pair("connection", Pair("Connection", "close")),
                                               Pair("date", Pair("DAtE", "y"))));
}

TEST(ResponseHead, ReplacesACookieOfTheSameName)
{
    ResponseHead head;
    head.addCookie("b", "2");
    head.addCookie("a", "1; Path=/");
    head.addCookie("b", "3");
    EXPECT_THAT(head.getCookies(), ElementsAre(Pair("a", "1; Path=/"), Pair("b", "3")));
}

TEST(ResponseHead, DescribesItselfByWhatIsKnown)
{
    const struct
    {
        uint32_t status;
        const char* type;
        int64_t length;
        const char* text;
    } rows[] = {
        {200, "text/plain; charset=utf-8", 13, "200 text/plain; charset=utf-8, 13 bytes"},
        {404, "a/b", 0, "404 a/b, 0 bytes"},
        {200, "a/b", -1, "200 a/b"},
        {304, "", 7, "304, 7 bytes"},
        {204, "", -1, "204"},
    };
    for (const auto& row : rows) {
        ResponseHead head;
        head.setStatus(row.status);
        head.setContentType(row.type);
        head.setContentLength(row.length);
        EXPECT_EQ(head.describe(), row.text);
    }
}

}  // namespace
}  // namespace qv::kit::tests

// The page, its nonce and its policy.

#include "Page.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace filedrop
{

TEST(Page, IsOneWholeDocumentWithoutOutsideAddresses)
{
    EXPECT_EQ(kPage.substr(0, 15), "<!doctype html>");
    EXPECT_NE(kPage.find("</html>\n"), std::string_view::npos);
    EXPECT_EQ(kPage.substr(kPage.size() - 8), "</html>\n");
    EXPECT_EQ(kPage.find("https:"), std::string_view::npos);
    EXPECT_EQ(kPage.find(" src="), std::string_view::npos);
    EXPECT_EQ(kPage.find("innerHTML"), std::string_view::npos);
}

TEST(Page, CarriesTheNonceInStyleAndScriptAlone)
{
    const std::string page = pageWithNonce("5ecret");
    EXPECT_EQ(page.find("@NONCE@"), std::string::npos);
    EXPECT_NE(page.find("<style nonce=\"5ecret\">"), std::string::npos);
    EXPECT_NE(page.find("<script nonce=\"5ecret\">"), std::string::npos);
    size_t count = 0;
    for (size_t at = page.find("5ecret"); at != std::string::npos; at = page.find("5ecret", at + 1))
        ++count;
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(page.size(), kPage.size() - 2);
}

TEST(Page, AllowsOnlyWhatCarriesTheNonce)
{
    EXPECT_EQ(pagePolicy("5ecret"),
              "default-src 'none'; connect-src 'self' ws: wss:; img-src data:; script-src "
              "'nonce-5ecret'; "
              "style-src 'nonce-5ecret'; base-uri 'none'; form-action 'none'; "
              "frame-ancestors 'none'");
}

TEST(Page, NeverUsesANonceTwice)
{
    const std::string first = makeNonce();
    EXPECT_EQ(first.size(), 32u);
    EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(first, makeNonce());
}

}  // namespace filedrop

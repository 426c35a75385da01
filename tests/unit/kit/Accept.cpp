#include "Accept.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::kit
{
namespace
{

// "name=weight" of each element.
std::string Elements(std::string_view list)
{
    std::string text;
    std::string_view name;
    int weight = 0;
    while (takeAccepted(list, name, weight))
        text += (text.empty() ? "" : " ") + std::string(name) + "=" + std::to_string(weight);
    return text;
}

TEST(Accept, ReadsElementsAndWeights)
{
    const struct
    {
        const char* header;
        const char* elements;
    } rows[] = {
        {"", ""},
        {" , ,\t", ""},
        {"gzip", "gzip=1000"},
        {"gzip, zstd;q=0.5", "gzip=1000 zstd=500"},
        {"a;q=0,b;q=0.001,c;q=1.000,d;Q=1.", "a=0 b=1 c=1000 d=1000"},
        {"a ; q=0.25 , b", "a=250 b=1000"},
        {"text/html;level=1;q=0.4", "text/html=400"},
        {"a;p=\"x,y;q=0\";q=0.5,b", "a=500 b=1000"},
        {"a;p=\"\\\",b", "a=1000"},
        {"a;q=2,b;q=1.001,c;q=0.1234,d;q=-1,e;q=,f;q=x,g;q=0x", "a=0 b=0 c=0 d=0 e=0 f=0 g=0"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Elements(row.header), row.elements) << row.header;
}

TEST(Accept, TakesTheMostSpecificElementOfAType)
{
    const struct
    {
        const char* header;
        int weight;
        bool isNamed;
    } rows[] = {
        {"", 1000, false},
        {" ", 1000, false},
        {"*/*", 1000, false},
        {"text/*;q=0.5, */*", 500, false},
        {"text/html;q=0.2, text/*;q=0.5, */*", 200, true},
        {"*/*, text/*;q=0.5, TEXT/HTML;q=0", 0, true},
        {"application/json", 0, false},
        {"text/htmlx, xtext/html, text", 0, false},
        {"*", 0, false},
    };
    for (const auto& row : rows) {
        bool isNamed = !row.isNamed;
        EXPECT_EQ(weightOfType(row.header, "text/html", isNamed), row.weight) << row.header;
        EXPECT_EQ(isNamed, row.isNamed) << row.header;
    }
}

TEST(Accept, KnowsWhichCodingsAreExcluded)
{
    const struct
    {
        const char* header;
        int gzip;
        int identity;
    } rows[] = {
        {"", 0, 1},
        {"gzip", 1000, 1},
        {"GZIP;q=0.5", 500, 1},
        {"*", 1000, 1},
        {"*;q=0", 0, 0},
        {"gzip, *;q=0", 1000, 0},
        {"gzip;q=0, *", 0, 1},
        {"identity;q=0", 0, 0},
        {"identity, *;q=0", 0, 1000},
        {"br", 0, 1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(weightOfCoding(row.header, "gzip"), row.gzip) << row.header;
        EXPECT_EQ(weightOfCoding(row.header, "identity"), row.identity) << row.header;
    }
}

}  // namespace
}  // namespace qv::kit

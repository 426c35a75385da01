#include "EventText.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace qv::kit
{
namespace
{

TEST(EventText, HasOneLineForEachField)
{
    const struct
    {
        const char* event;
        const char* data;
        const char* id;
        const char* text;
    } rows[] = {
        {"", "a", "", "data: a\n\n"},
        {"e", "a", "1", "id: 1\nevent: e\ndata: a\n\n"},
        {"", "", "", "data: \n\n"},
        {"", " a:b", "", "data:  a:b\n\n"},
        {"", "a\nb\r\nc\rd", "", "data: a\ndata: b\ndata: c\ndata: d\n\n"},
        {"", "\n", "", "data: \ndata: \n\n"},
        {"", "a\n\nevent: x\n", "", "data: a\ndata: \ndata: event: x\ndata: \n\n"},
        {"", "\n\r", "", "data: \ndata: \ndata: \n\n"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(makeEventText(row.event, row.data, row.id), row.text);
}

TEST(EventText, RefusesFieldsThatEndTheirLine)
{
    for (const std::string& text :
         {std::string("a\nb"), std::string("a\r"), std::string(1, '\0')}) {
        EXPECT_THROW(makeEventText(text, "", ""), std::invalid_argument);
        EXPECT_THROW(makeEventText("", "", text), std::invalid_argument);
        EXPECT_NO_THROW(makeEventText("", text, ""));
    }
}

}  // namespace
}  // namespace qv::kit

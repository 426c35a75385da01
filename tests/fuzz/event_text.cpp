// Server-sent events, read back by the algorithm of the HTML standard: name, data and id arrive as
// they were given, and a text makes exactly one event.

#include "support/Check.h"

#include "EventText.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace
{

struct Event
{
    std::string name;
    std::string data;
    std::string id;
};

// The lines of a text up to the empty one; false when text is left behind it or none comes.
bool Parse(std::string_view text, Event& event)
{
    bool hasData = false;
    for (;;) {
        const size_t end = text.find_first_of("\r\n");
        if (end == std::string_view::npos)
            return false;
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + (text.compare(end, 2, "\r\n") == 0 ? 2 : 1));
        if (line.empty())
            return text.empty();
        const size_t colon = line.find(':');
        const std::string_view name = line.substr(0, colon);
        std::string_view value = colon == std::string_view::npos ? "" : line.substr(colon + 1);
        if (!value.empty() && value.front() == ' ')
            value.remove_prefix(1);
        if (name == "data") {
            event.data.append(hasData ? "\n" : "").append(value);
            hasData = true;
        } else if (name == "event") {
            event.name = value;
        } else if (name == "id") {
            event.id = value;
        } else {
            return false;
        }
    }
}

std::string WithLineFeeds(const std::string& data)
{
    std::string text;
    for (size_t at = 0; at < data.size(); ++at) {
        if (data[at] == '\n' && at > 0 && data[at - 1] == '\r')
            continue;
        text += data[at] == '\r' ? '\n' : data[at];
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::string name = input.ConsumeRandomLengthString(50);
    const std::string id = input.ConsumeRandomLengthString(50);
    const std::string body = input.ConsumeRemainingBytesAsString();
    const std::string_view ends("\r\n\0", 3);
    const bool isValid = name.find_first_of(ends) == std::string::npos &&
                         id.find_first_of(ends) == std::string::npos;
    try {
        const std::string text = qv::kit::makeEventText(name, body, id);
        FUZZ_CHECK(isValid);
        Event event;
        FUZZ_CHECK(Parse(text, event));
        FUZZ_CHECK(event.name == name && event.id == id && event.data == WithLineFeeds(body));
    } catch (const std::invalid_argument&) {
        FUZZ_CHECK(!isValid);
    }
    return 0;
}

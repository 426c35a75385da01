// The format of server-sent events, as the HTML standard has it.

#include "EventText.h"

#include <algorithm>
#include <stdexcept>

namespace qv::kit
{
namespace
{

void addField(std::string& text, std::string_view name, std::string_view value)
{
    constexpr std::string_view kEnds("\r\n\0", 3);
    if (value.find_first_of(kEnds) != std::string_view::npos)
        throw std::invalid_argument("EventStream: a line break or NUL in the " + std::string(name) +
                                    " of an event");
    text.append(name).append(": ").append(value).append("\n");
}

}  // namespace

std::string makeEventText(std::string_view event, std::string_view data, std::string_view id)
{
    std::string text;
    text.reserve(event.size() + data.size() + id.size() + 32);
    if (!id.empty())
        addField(text, "id", id);
    if (!event.empty())
        addField(text, "event", event);
    for (;;) {
        const size_t end = std::min(data.find_first_of("\r\n"), data.size());
        text.append("data: ").append(data.substr(0, end)).append("\n");
        if (end == data.size())
            break;
        const bool isPair = data.compare(end, 2, "\r\n") == 0;
        data.remove_prefix(end + (isPair ? 2 : 1));
    }
    return text.append("\n");
}

}  // namespace qv::kit

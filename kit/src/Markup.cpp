// Texts within pages and JSON.

#include "Markup.h"

#include <nlohmann/json.hpp>

namespace qv::kit
{

// Only the texts are left to the JSON library: the destructor of its objects needs memory, and
// without any the process would end.
std::string jsonText(const std::string& text)
{
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string htmlText(std::string_view text)
{
    std::string html;
    for (const char c : text) {
        switch (c) {
        case '&':
            html += "&amp;";
            break;
        case '<':
            html += "&lt;";
            break;
        case '>':
            html += "&gt;";
            break;
        case '"':
            html += "&quot;";
            break;
        default:
            html += c;
        }
    }
    return html;
}

}  // namespace qv::kit

// Checks of bodies before they are parsed as JSON, and the texts of errors.

#include "Text.h"

#include <Wendrel/kit/HttpError.h>
#include <Wendrel/kit/Json.h>

#include <algorithm>
#include <string>

namespace qv::kit
{
namespace
{

constexpr int kBadRequest = 400;
constexpr int kUnsupportedType = 415;

// Of an error of the JSON library, which repeats what the client has sent.
constexpr size_t kMaxErrorBytes = 200;

// Arrays and objects within each other: copying and writing a value calls itself for each.
constexpr size_t kMaxJsonDepth = 128;

bool isJson(std::string_view contentType)
{
    constexpr std::string_view kJson = "application/json";
    constexpr std::string_view kSuffix = "+json";
    const std::string_view type = trimmed(contentType.substr(0, contentType.find(';')));
    return equalsIgnoringCase(type, kJson) ||
           (type.size() > kSuffix.size() &&
            equalsIgnoringCase(type.substr(type.size() - kSuffix.size()), kSuffix));
}

bool isTooDeep(std::string_view text)
{
    size_t depth = 0;
    bool isString = false;
    for (size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (isString && c == '\\')
            ++at;
        else if (c == '"')
            isString = !isString;
        else if (!isString && (c == '[' || c == '{') && ++depth > kMaxJsonDepth)
            return true;
        else if (!isString && (c == ']' || c == '}') && depth > 0)
            --depth;
    }
    return false;
}

}  // namespace

const std::string& Request::jsonText()
{
    if (!isJson(header("Content-Type")))
        throw HttpError(kUnsupportedType, "the body must be of the type application/json");
    const std::string& text = body();
    // The JSON library takes it for the end of the text.
    if (const size_t nul = text.find('\0'); nul != std::string::npos)
        impl::refuseJson(text, nul + 1);
    if (isTooDeep(text))
        throw HttpError(kBadRequest,
                        "the body has arrays or objects within each other, more than " +
                            std::to_string(kMaxJsonDepth) + " deep");
    return text;
}

namespace impl
{

void refuseJson(std::string_view text, size_t position)
{
    const std::string_view before =
        text.substr(0, std::min(position == 0 ? 0 : position - 1, text.size()));
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const std::string_view row = before.substr(before.rfind('\n') + 1);
    const auto column =
        row.size() - static_cast<size_t>(std::count_if(row.begin(), row.end(), isContinuation)) + 1;
    throw HttpError(kBadRequest, "the body is no JSON: line " + std::to_string(line) + ", column " +
                                     std::to_string(column));
}

void refuseJson(std::string_view error)
{
    // "[json.exception.out_of_range.403] key 'name' not found"
    if (!error.empty() && error.front() == '[')
        error.remove_prefix(std::min(error.find("] ") + 2, error.size()));
    throw HttpError(kBadRequest, "the JSON of the body is not as expected: " +
                                     std::string(cutUtf8(error, kMaxErrorBytes)));
}

}  // namespace impl
}  // namespace qv::kit

// The page requested by a client.

#include "support/Question.h"

#include <algorithm>
#include <charconv>

namespace bench
{
namespace
{

constexpr uint64_t kMaxStreamBytes = uint64_t{1} << 40;  // 1 TiB
constexpr uint64_t kMaxPauseMs = 10000;

}  // namespace

Page findPage(std::string_view method, std::string_view path)
{
    if (method == "POST")
        return path == "/upload" ? Page::Upload : Page::NotFound;
    if (method != "GET")
        return Page::NotFound;
    if (path == "/hello")
        return Page::Hello;
    if (path == "/big")
        return Page::Big;
    if (path == "/stream")
        return Page::Stream;
    if (path == "/slow")
        return Page::Slow;
    return Page::NotFound;
}

const char* argumentName(Page page)
{
    if (page == Page::Stream)
        return "bytes";
    return page == Page::Slow ? "ms" : nullptr;
}

Question makeQuestion(Page page, std::string_view argument)
{
    const uint64_t limit = page == Page::Stream ? kMaxStreamBytes : kMaxPauseMs;
    uint64_t number = 0;
    const char* end = argument.data() + argument.size();
    const auto [parsed, error] = std::from_chars(argument.data(), end, number);
    if (argument.empty() || error != std::errc() || parsed != end || number > limit)
        return {};
    return {page, number};
}

std::string_view findArgument(std::string_view query, std::string_view name)
{
    while (!query.empty()) {
        const std::string_view pair = query.substr(0, query.find('&'));
        if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=')
            return pair.substr(name.size() + 1);
        query.remove_prefix(std::min(query.size(), pair.size() + 1));
    }
    return {};
}

}  // namespace bench

// The page requested by a client.
#ifndef BENCH_SUPPORT_QUESTION_H
#define BENCH_SUPPORT_QUESTION_H

#include <cstdint>
#include <string_view>

namespace bench
{

enum class Page {
    NotFound,
    Hello,
    Big,
    Stream,
    Slow,
    Upload,
    // Of this library's server only.
    SlowUpload,
    Echo,       // responds with the request's body
    WebSocket,  // the handshake
    Wait,       // responds when Release is requested
    Waiting,    // how many wait
    Release,
    Refused  // a bad request
};

struct Question
{
    Page page = Page::NotFound;
    uint64_t number = 0;  // bytes of a stream, milliseconds of a slow response
};

// The page at this address; `path` is without the query.
Page findPage(std::string_view method, std::string_view path);

// The name of the query argument that the page wants; null when it wants none.
const char* argumentName(Page page);

// The page with its argument; not found when the argument is none.
Question makeQuestion(Page page, std::string_view argument);

// The value of an argument in a query such as "bytes=4096&other=1".
std::string_view findArgument(std::string_view query, std::string_view name);

// Finds and parses in one; `lookUp(name)` gives the value of a query argument.
template <typename LookUp>
Question parseQuestion(std::string_view method, std::string_view path, LookUp lookUp)
{
    const Page page = findPage(method, path);
    const char* name = argumentName(page);
    return name ? makeQuestion(page, lookUp(name)) : Question{page, 0};
}

}  // namespace bench

#endif

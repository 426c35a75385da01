// The benchmark's pages.

#include "civetweb/Pages.h"

#include "support/Content.h"
#include "support/Question.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>

namespace bench
{
namespace
{

constexpr int kOk = 200;
constexpr int kNotFoundStatus = 404;

// Up to this size head and body leave in one call.
constexpr size_t kTogetherLimitBytes = 4096;

Question questionOf(const mg_request_info& info)
{
    const std::string_view query = info.query_string ? info.query_string : "";
    return parseQuestion(info.request_method, info.local_uri,
                         [query](const char* name) { return findArgument(query, name); });
}

std::string makeHead(const char* statusLine, const std::string& lengthHeader)
{
    return std::string(statusLine) + "\r\nContent-Type: " + kContentType + "\r\n" + lengthHeader +
           "\r\n\r\n";
}

void reply(mg_connection* connection, const char* statusLine, const std::string& body)
{
    std::string head = makeHead(statusLine, "Content-Length: " + std::to_string(body.size()));
    const bool together = body.size() <= kTogetherLimitBytes;
    if (together)
        head += body;
    mg_write(connection, head.data(), head.size());
    if (!together)
        mg_write(connection, body.data(), body.size());
}

void replyOk(mg_connection* connection, const std::string& body)
{
    reply(connection, "HTTP/1.1 200 OK", body);
}

void stream(mg_connection* connection, uint64_t bytes)
{
    const std::string head = makeHead("HTTP/1.1 200 OK", "Transfer-Encoding: chunked");
    if (mg_write(connection, head.data(), head.size()) <= 0)
        return;
    while (bytes > 0) {
        const size_t part = std::min<uint64_t>(bytes, kPieceBytes);
        if (mg_send_chunk(connection, streamPiece().data(), static_cast<unsigned>(part)) < 0)
            return;
        bytes -= part;
    }
    mg_send_chunk(connection, "", 0);
}

void countUpload(mg_connection* connection)
{
    std::array<char, kPieceBytes> piece;
    uint64_t bytes = 0;
    for (;;) {
        const int got = mg_read(connection, piece.data(), piece.size());
        if (got <= 0)
            break;
        bytes += static_cast<uint64_t>(got);
    }
    replyOk(connection, std::to_string(bytes));
}

int serve(mg_connection* connection, void*)
{
    const Question question = questionOf(*mg_get_request_info(connection));
    switch (question.page) {
    case Page::Slow:
        std::this_thread::sleep_for(std::chrono::milliseconds(question.number));
        [[fallthrough]];
    case Page::Hello:
        replyOk(connection, kHello);
        return kOk;
    case Page::Big:
        replyOk(connection, bigBody());
        return kOk;
    case Page::Stream:
        stream(connection, question.number);
        return kOk;
    case Page::Upload:
        countUpload(connection);
        return kOk;
    default:
        break;
    }
    reply(connection, "HTTP/1.1 404 Not Found", kNotFound);
    return kNotFoundStatus;
}

}  // namespace

void addPages(mg_context* server)
{
    mg_set_request_handler(server, "**", &serve, nullptr);
}

}  // namespace bench

// The pages of the benchmark, served by the workers of the kit.

#include "server/WorkerApplication.h"

#include "server/Echo.h"
#include "server/Listening.h"
#include "support/Content.h"
#include "support/Question.h"
#include "support/StopSignal.h"

#include <Wendrel/kit/Server.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace bench
{
namespace
{

using qv::HttpBaseRequest;
using qv::kit::Request;

constexpr uint32_t kOk = 200;
constexpr uint32_t kNotFoundStatus = 404;
constexpr uint32_t kTooLarge = 413;
constexpr uint64_t kSlowBytesPerMicrosecond = 20;
constexpr uint64_t kMaxEchoBytes = 67108864;
constexpr int kAnyMethod = HttpBaseRequest::OPTIONS | HttpBaseRequest::GET | HttpBaseRequest::POST |
                           HttpBaseRequest::PUT | HttpBaseRequest::DELETE | HttpBaseRequest::TRACE |
                           HttpBaseRequest::PATCH | HttpBaseRequest::HEAD;
constexpr std::chrono::milliseconds kLastWordsLimit(1000);
constexpr std::chrono::milliseconds kStopLimit(2000);

Question questionOf(const Request& request, Page page)
{
    const auto* values = request.getQueryParameter(argumentName(page));
    return values ? makeQuestion(page, values->front()) : Question();
}

void stream(Request& request)
{
    const Question question = questionOf(request, Page::Stream);
    if (question.page == Page::NotFound) {
        request.reply(kNotFoundStatus, kContentType, kNotFound);
        return;
    }
    request.getHead().setContentType(kContentType);
    request.startStream();
    for (uint64_t left = question.number; left > 0;) {
        const size_t part = std::min<uint64_t>(left, kPieceBytes);
        if (!request.write(streamPiece().data(), part))
            return;
        left -= part;
    }
    request.finish();
}

void respondSlowly(Request& request)
{
    const Question question = questionOf(request, Page::Slow);
    if (question.page == Page::NotFound) {
        request.reply(kNotFoundStatus, kContentType, kNotFound);
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(question.number));
    request.reply(kOk, kContentType, kHello);
}

void countUpload(Request& request)
{
    std::array<char, kPieceBytes> piece;
    uint64_t bytes = 0;
    qv::kit::BodyResult result = qv::kit::BodyResult::More;
    while (result == qv::kit::BodyResult::More) {
        size_t got = 0;
        result = request.readBody(piece.data(), piece.size(), got);
        bytes += got;
    }
    request.reply(kOk, kContentType, std::to_string(bytes));
}

// As a slow disk would.
void countSlowly(Request& request)
{
    std::array<char, kPieceBytes> piece;
    uint64_t bytes = 0;
    qv::kit::BodyResult result = qv::kit::BodyResult::More;
    const auto start = std::chrono::steady_clock::now();
    while (result == qv::kit::BodyResult::More) {
        size_t got = 0;
        result = request.readBody(piece.data(), piece.size(), got);
        bytes += got;
        std::this_thread::sleep_until(start +
                                      std::chrono::microseconds(bytes / kSlowBytesPerMicrosecond));
    }
    request.reply(kOk, kContentType, std::to_string(bytes));
}

void echo(Request& request)
{
    std::string body;
    if (request.readWholeBody(kMaxEchoBytes, body) == qv::kit::BodyResult::TooLarge)
        request.replyError(kTooLarge, "the body is too large");
    else
        request.reply(kOk, kContentType, body);
}

qv::kit::Application::Options kitOptions(const bench::Options& options)
{
    qv::kit::Application::Options kit;
    kit.workers = options.workers;
    return kit;
}

}  // namespace

WorkerApplication::WorkerApplication(const bench::Options& options)
    : Application(kitOptions(options)), mHub({.workers = options.workers})
{
    addRoutes();
}

void WorkerApplication::addRoutes()
{
    qv::kit::Router& router = getRouter();
    router.add(HttpBaseRequest::GET, "/hello",
               [](Request& request) { request.reply(kOk, kContentType, kHello); });
    router.add(HttpBaseRequest::GET, "/big",
               [](Request& request) { request.reply(kOk, kContentType, bigBody()); });
    router.add(HttpBaseRequest::GET, "/stream", stream);
    router.add(HttpBaseRequest::GET, "/slow", respondSlowly);
    router.add(HttpBaseRequest::POST, "/upload", countUpload);
    router.add(HttpBaseRequest::POST, "/slow-upload", countSlowly);
    for (const char* path : {"/", "/echo"})
        router.add(kAnyMethod, path, echo);
}

void WorkerApplication::onNewWebSocket(qv::http::WebSocket* socket)
{
    mHub.adopt<Echo>(socket);
}

// The connections must be closed while the daemon is still there to close them.
void WorkerApplication::onServerStopped()
{
    mHub.close(kLastWordsLimit);
    Application::onServerStopped();
}

bool serveWithWorkers(const bench::Options& options)
{
    StopSignal stopSignal;
    qv::kit::Server server(std::make_unique<WorkerApplication>(options));
    if (!startServer(server.getHttpServer(), options))
        return false;
    stopSignal.wait();
    shutDownServer(server.getHttpServer(), options);
    server.stop(kStopLimit);
    return true;
}

}  // namespace bench

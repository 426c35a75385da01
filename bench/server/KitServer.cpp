// The pages of the benchmark as an application of the kit has them.

#include "server/KitServer.h"

#include "server/Listening.h"
#include "support/Content.h"
#include "support/Question.h"
#include "support/StopSignal.h"

#include <Wendrel/kit/Server.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bench
{
namespace
{

using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::Request;
using qv::kit::StreamWrite;

constexpr int kNotFoundStatus = 404;
constexpr uint64_t kSlowBytesPerMicrosecond = 20;
constexpr uint64_t kMaxEchoBytes = 67108864;
constexpr int kFirstPieces = 64;

const ContentType kType(kContentType);

Question questionOf(const Request& request, Page page)
{
    const std::string& value = request.query(argumentName(page));
    return value.empty() ? Question() : makeQuestion(page, value);
}

void stream(Request& request)
{
    const Question question = questionOf(request, Page::Stream);
    if (question.page == Page::NotFound) {
        request.reply(kNotFoundStatus, kNotFound, kType);
        return;
    }
    request.startStream(kType);
    for (uint64_t left = question.number; left > 0;) {
        const size_t part = std::min<uint64_t>(left, kPieceBytes);
        if (!request.write(std::string_view(streamPiece()).substr(0, part)))
            return;
        left -= part;
    }
}

void respondSlowly(Request& request)
{
    const Question question = questionOf(request, Page::Slow);
    if (question.page == Page::NotFound) {
        request.reply(kNotFoundStatus, kNotFound, kType);
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(question.number));
    request.reply(kHello, kType);
}

// `isSlow`: as a slow disk would.
void countUpload(Request& request, bool isSlow)
{
    std::array<char, kPieceBytes> piece;
    uint64_t bytes = 0;
    const auto start = std::chrono::steady_clock::now();
    while (const size_t got = request.readBody(piece.data(), piece.size())) {
        bytes += got;
        if (isSlow)
            std::this_thread::sleep_until(
                start + std::chrono::microseconds(bytes / kSlowBytesPerMicrosecond));
    }
    request.reply(std::to_string(bytes), kType);
}

// Requests that wait for /release.
class Waiting
{
public:
    void add(DeferredResponse later)
    {
        const std::lock_guard locker(mMutex);
        mResponses.push_back(std::move(later));
    }

    size_t count()
    {
        const std::lock_guard locker(mMutex);
        return mResponses.size();
    }

    size_t release()
    {
        std::vector<DeferredResponse> released;
        {
            const std::lock_guard locker(mMutex);
            released.swap(mResponses);
        }
        for (DeferredResponse& response : released)
            response.reply(kHello, kType);
        return released.size();
    }

private:
    std::mutex mMutex;
    std::vector<DeferredResponse> mResponses;  // under mMutex
};

// Streams that begin and go on for ever, without a thread: clients have left some.
class Streams
{
public:
    void start(Request& request)
    {
        DeferredStream stream = request.defer().startStream(kType);
        for (int i = 0; i < kFirstPieces && stream.write(streamPiece()) == StreamWrite::Taken;
             ++i) {
        }
        const std::lock_guard locker(mMutex);
        std::erase_if(mStreams, [](const DeferredStream& begun) { return begun.isGone(); });
        mStreams.push_back(std::move(stream));
    }

private:
    std::mutex mMutex;
    std::vector<DeferredStream> mStreams;  // under mMutex
};

void addRoutes(qv::kit::Router& router, Waiting& waiting, Streams& streams)
{
    router.get("/hello", [](Request& request) { request.reply(kHello, kType); });
    router.get("/ping", [](Request& request) { request.reply(kHello, kType); }).nonBlocking();
    router.get("/big", [body = std::make_shared<const std::string>(bigBody())](Request& request) {
        request.reply(body, kType);
    });
    router.get("/stream", stream);
    router.get("/slow", respondSlowly);
    router.post("/upload", [](Request& request) { countUpload(request, false); }).streaming();
    router.post("/slow-upload", [](Request& request) { countUpload(request, true); }).streaming();
    for (const char* path : {"/", "/echo"})
        router.any(path, [](Request& request) { request.reply(request.body(), kType); })
            .maxBodyBytes(kMaxEchoBytes);
    router.get("/wait", [&](Request& request) { waiting.add(request.defer()); }).nonBlocking();
    router.get("/events", [&](Request& request) { streams.start(request); });
    router.get("/waiting",
               [&](Request& request) { request.reply(std::to_string(waiting.count())); });
    router.get("/release",
               [&](Request& request) { request.reply(std::to_string(waiting.release())); });
}

}  // namespace

bool serveWithKit(const Options& options)
{
    StopSignal stopSignal;
    qv::kit::ServerOptions serving;
    static_cast<qv::http::ServerOptions&>(serving) = servingOptions(options);
    serving.workers = options.workers;
    Waiting waiting;
    Streams streams;
    qv::kit::Server server(serving);
    addRoutes(server.router(), waiting, streams);
    if (!server.start()) {
        std::cerr << "wendrel-bench-server: " << server.failureReason() << std::endl;
        return false;
    }
    for (const std::string& endpoint : server.endpoints())
        std::cout << "listening on " << endpoint << std::endl;
    stopSignal.wait();
    server.stop(std::chrono::milliseconds(options.stopLimitMs));
    return true;
}

}  // namespace bench

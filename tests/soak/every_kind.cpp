// A server of the kit with a route for each kind of request, for soak tests.

#include <Wendrel/BodySource.h>
#include <Wendrel/kit/Server.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

using qv::BodySource;
using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::StreamWrite;
using qv::kit::websocket::Session;
using qv::kit::websocket::SessionHandler;

namespace
{

constexpr size_t kStreamPieces = 64;
constexpr size_t kPieceBytes = 16384;

// Responds to what has been deferred, from a thread of its own.
class Responder
{
public:
    Responder() : mThread(&Responder::run, this) {}

    ~Responder()
    {
        mEnds = true;
        mThread.join();
    }

    void add(DeferredResponse later)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWaiting.push_back(std::move(later));
    }

private:
    void run()
    {
        while (!mEnds) {
            std::deque<DeferredResponse> due;
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                due.swap(mWaiting);
            }
            for (DeferredResponse& later : due)
                later.reply("later");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    std::mutex mMutex;
    std::deque<DeferredResponse> mWaiting;
    std::atomic<bool> mEnds{false};
    std::thread mThread;
};

// Writes as fast as the client reads; holds no worker.
class Pieces : public std::enable_shared_from_this<Pieces>
{
public:
    explicit Pieces(DeferredStream stream) : mStream(std::move(stream)) {}

    void start()
    {
        mStream.onWritable([self = shared_from_this()] { self->write(); });
        write();
    }

private:
    void write()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const std::string piece(kPieceBytes, 'p');
        for (; mWritten < kStreamPieces; ++mWritten) {
            if (mStream.write(piece) != StreamWrite::Taken)
                return;
        }
        mStream.finish();
    }

    std::mutex mMutex;
    DeferredStream mStream;
    size_t mWritten = 0;
};

class Echo : public SessionHandler
{
public:
    void onText(Session& session, std::string_view text) override { session.sendText(text); }
};

void stream(Request& request)
{
    request.startStream();
    const std::string piece(kPieceBytes, 'p');
    for (size_t i = 0; i < kStreamPieces; ++i) {
        if (!request.write(piece))
            return;
    }
}

void deliver(Request& request)
{
    struct Upload
    {
        DeferredResponse later;
        uint64_t bytes = 0;
    };
    auto upload = std::make_shared<Upload>();
    upload->later = request.defer();
    upload->later.onBody([upload](std::string_view piece) { upload->bytes += piece.size(); },
                         [upload] { upload->later.reply(std::to_string(upload->bytes)); });
}

void addRoutes(qv::kit::Router& router, Responder& responder, const std::string& file)
{
    router.get("/inline", [](Request& request) { request.reply("inline"); }).nonBlocking();
    router.get("/worker", [](Request& request) { request.reply("worker"); });
    router.get("/later", [&](Request& request) { responder.add(request.defer()); });
    router
        .get("/limited",
             [](Request& request) {
                 // Waits for its deadline: the callback keeps the response.
                 auto later = std::make_shared<DeferredResponse>(request.defer());
                 later->onGone([later] {});
             })
        .responseTimeout(std::chrono::milliseconds(20));
    router.get("/stream", stream);
    router.get("/stream-later", [](Request& request) {
        std::make_shared<Pieces>(request.defer().startStream(ContentType::bytes()))->start();
    });
    router.get("/file", [file](Request& request) {
        request.replySource(BodySource::fromFile(file), ContentType::bytes());
    });
    router.get("/error", [](Request&) { throw HttpError(409).setHeader("X-Error", "yes"); });
    router.get("/failure", [](Request&) { throw std::runtime_error("on purpose"); });
    router.put("/buffered",
               [](Request& request) { request.reply(std::to_string(request.body().size())); });
    router
        .put("/streaming",
             [](Request& request) {
                 request.reply(std::to_string(request.readAll(UINT64_MAX).size()));
             })
        .streaming();
    router.put("/delivered", deliver).streaming();
    router.put("/early", [](Request& request) { request.replyError(403); }).streaming();
    router.webSocket("/echo", {}, [](Request&) { return std::make_shared<Echo>(); });
}

}  // namespace

int main(int argc, char** argv)
{
    if ((argc != 4 && argc != 7) || std::strcmp(argv[1], "--port") != 0) {
        std::fprintf(stderr, "usage: soak_every_kind --port N FILE [SECURE_PORT CHAIN KEY]\n");
        return 2;
    }
    const std::string host = "127.0.0.1:";
    Responder responder;
    std::atomic<uint64_t> completed{0};
    qv::kit::ServerOptions options;
    options.workers = 4;
    options.headTimeout = std::chrono::seconds(2);
    options.bodyTimeout = std::chrono::seconds(2);
    options.idleTimeout = std::chrono::seconds(5);
    options.onCompleted = [&](const qv::kit::CompletedRequest&) { ++completed; };
    options.listen = {host + argv[2]};
    if (argc == 7) {
        options.listen.push_back(host + argv[4]);
        qv::http::TlsOptions tls;
        tls.endpoints = {options.listen.back()};
        tls.certificates.push_back({argv[5], argv[6], "", ""});
        options.tls.push_back(std::move(tls));
    }
    qv::kit::Server server(options);
    addRoutes(server.router(), responder, argv[3]);
    server.router()
        .get("/status",
             [&](Request& request) {
                 request.reply(std::to_string(server.openRequests()) + " " +
                               std::to_string(server.requestCount()) + " " +
                               std::to_string(completed));
             })
        .nonBlocking();
    return server.run();
}

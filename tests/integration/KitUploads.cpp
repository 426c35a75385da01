// Bodies that callbacks of a deferred response take: no worker waits for the client.

#include "support/KitTestServer.h"
#include "support/Pattern.h"

#include <support/BackgroundCall.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::Router;
using qv::tests::BackgroundCall;
using std::chrono::milliseconds;

// An upload as its callbacks see it; deleted with them.
struct Upload
{
    explicit Upload(Request& request) : later(request.defer()) {}

    DeferredResponse later;
    std::string body;
    size_t largestPiece = 0;
    std::atomic<int> calls{0};  // under way
};

// Echoes the body.
void echo(Request& request)
{
    auto upload = std::make_shared<Upload>(request);
    upload->later.onBody(
        [upload](std::string_view piece) {
            EXPECT_EQ(upload->calls++, 0);
            upload->body.append(piece);
            upload->largestPiece = std::max(upload->largestPiece, piece.size());
            --upload->calls;
        },
        [upload] {
            EXPECT_EQ(upload->calls, 0);
            EXPECT_LE(upload->largestPiece, 65536u);
            upload->later.reply(std::move(upload->body));
        });
}

void addPing(Router& router)
{
    router.get("/ping", [](Request& request) { request.reply("pong"); });
}

TEST(KitUploads, DeliverTheWholeBodyInOrder)
{
    KitTestServer server([](Router& router) { router.put("/", echo).streaming(); });
    RawClient client(server.port());
    for (const size_t size :
         {size_t{0}, size_t{1}, size_t{65535}, size_t{65536}, size_t{65537}, size_t{3000000}}) {
        for (const bool isChunked : {false, true}) {
            SCOPED_TRACE(std::to_string(size) + (isChunked ? " chunked" : ""));
            const std::string body = pattern(size);
            BackgroundCall sender([&] {
                client.send(isChunked ? chunkedHead("PUT", "/") : headOf("PUT", "/", size));
                if (isChunked)
                    client.send((size == 0 ? "" : chunk(body)) + "0\r\n\r\n");
                else
                    client.send(body);
            });
            EXPECT_EQ(client.receive().value_or(RawResponse()).body, body);
        }
    }
}

// Each byte on its own.
TEST(KitUploads, DeliverPiecesAsTheyArrive)
{
    Channel<std::string> pieces;
    KitTestServer server([&](Router& router) {
        router
            .put("/",
                 [&](Request& request) {
                     auto later = std::make_shared<DeferredResponse>(request.defer());
                     later->onBody([&](std::string_view piece) { pieces.push(std::string(piece)); },
                                   [later] { later->reply("end"); });
                 })
            .streaming();
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(headOf("PUT", "/", 3)));
    for (const char* const byte : {"a", "b", "c"}) {
        ASSERT_TRUE(client.send(byte));
        EXPECT_EQ(pieces.pop(), byte);
    }
    EXPECT_EQ(client.receive().value_or(RawResponse()).body, "end");
}

TEST(KitUploads, BeginBehindTheHandlersOwnReads)
{
    KitTestServer server([](Router& router) {
        router
            .put("/",
                 [](Request& request) {
                     std::string first(3, '\0');
                     EXPECT_EQ(request.readBody(first.data(), first.size()), first.size());
                     EXPECT_EQ(first, "abc");
                     echo(request);
                 })
            .streaming();
    });
    EXPECT_EQ(server.ask(withBody("PUT", "/", "abcdef")).body, "def");
}

TEST(KitUploads, HoldNoWorkerWhileTheClientIsSlow)
{
    constexpr size_t kUploads = 200;
    KitTestServer server(
        [](Router& router) {
            router.put("/", echo).streaming();
            addPing(router);
        },
        kitOptions(4));
    std::vector<std::unique_ptr<RawClient>> slow;
    for (size_t i = 0; i < kUploads; ++i) {
        slow.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(slow.back()->send(headOf("PUT", "/", 4) + "1"));
    }
    ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == kUploads; }));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(server.get("/ping").body, "pong");
    for (const auto& client : slow)
        ASSERT_TRUE(client->send("23"));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(server.get("/ping").body, "pong");
    for (const auto& client : slow) {
        ASSERT_TRUE(client->send("4"));
        EXPECT_EQ(client->receive().value_or(RawResponse()).body, "1234");
    }
    EXPECT_TRUE(server.stop());
}

// A callback that waits holds the client back: neither the queue nor the worker takes the rest.
TEST(KitUploads, HoldTheClientBackWhileACallbackWaits)
{
    constexpr size_t kBytes = size_t{64} * 1024 * 1024;
    Latch latch;
    std::atomic<size_t> received{0};
    KitTestServer server([&](Router& router) {
        router
            .put("/",
                 [&](Request& request) {
                     auto later = std::make_shared<DeferredResponse>(request.defer());
                     later->onBody(
                         [&](std::string_view piece) {
                             latch.wait();
                             received += piece.size();
                         },
                         [later] { later->reply("end"); });
                 })
            .streaming();
        addPing(router);
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(headOf("PUT", "/", kBytes)));
    {
        const std::string body(kBytes, 'x');
        BackgroundCall sender([&] { client.send(body); });
        ASSERT_TRUE(latch.waitForArrivals(1));
        EXPECT_EQ(server.get("/ping").body, "pong");
        EXPECT_TRUE(sender.isBlocked());
        EXPECT_EQ(received, 0u);
        latch.open();
    }
    EXPECT_EQ(client.receive().value_or(RawResponse()).body, "end");
    EXPECT_EQ(received, kBytes);
}

// One worker for all: uploads that are always ready do not keep it.
TEST(KitUploads, ThatAreFastShareTheWorkers)
{
    constexpr size_t kBytes = size_t{16} * 1024 * 1024;
    std::atomic<size_t> received{0};
    KitTestServer server(
        [&](Router& router) {
            router
                .put("/",
                     [&](Request& request) {
                         auto later = std::make_shared<DeferredResponse>(request.defer());
                         later->onBody([&](std::string_view piece) { received += piece.size(); },
                                       [later] { later->reply("end"); });
                     })
                .streaming();
            addPing(router);
        },
        kitOptions(1));
    std::vector<std::unique_ptr<RawClient>> clients;
    std::vector<std::unique_ptr<BackgroundCall>> senders;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.port()));
        senders.push_back(std::make_unique<BackgroundCall>(
            [&client = *clients.back()] { client.send(withBody("PUT", "/", pattern(kBytes))); }));
    }
    EXPECT_EQ(server.get("/ping").body, "pong");
    for (const auto& client : clients)
        EXPECT_EQ(client->receive().value_or(RawResponse()).body, "end");
    EXPECT_EQ(received, 4 * kBytes);
}

TEST(KitUploads, BeyondTheLimitGet413)
{
    std::atomic<int> ends{0};
    std::atomic<int> losses{0};
    KitTestServer server([&](Router& router) {
        router
            .put("/",
                 [&](Request& request) {
                     auto later = std::make_shared<DeferredResponse>(request.defer());
                     later->onGone([&] { ++losses; });
                     later->onBody([](std::string_view) {},
                                   [&, later] {
                                       ++ends;
                                       later->reply("end");
                                   });
                 })
            .streaming()
            .maxBodyBytes(1000);
    });
    const auto chunked = [](size_t size) {
        return chunkedHead("PUT", "/") + chunk(pattern(size)) + "0\r\n\r\n";
    };
    EXPECT_EQ(server.ask(chunked(1000)).body, "end");
    EXPECT_EQ(server.ask(chunked(1001)).status, 413);
    EXPECT_TRUE(waitUntil([&] { return losses == 1; }));
    EXPECT_EQ(ends, 1);
}

TEST(KitUploads, EndWithTheErrorOfACallback)
{
    const struct
    {
        const char* path;
        std::function<void()> fail;
        int status;
        const char* retryAfter;
    } rows[] = {
        {"/http", [] { throw HttpError(503, "full").setHeader("Retry-After", "7"); }, 503, "7"},
        {"/other", [] { throw std::runtime_error("disk full"); }, 500, ""},
        {"/unknown", [] { throw 1; }, 500, ""},
    };
    for (const bool isAtEnd : {false, true}) {
        std::atomic<int> losses{0};
        KitTestServer server([&](Router& router) {
            for (const auto& row : rows) {
                router
                    .put(row.path,
                         [&](Request& request) {
                             auto later = std::make_shared<DeferredResponse>(request.defer());
                             later->onGone([&] { ++losses; });
                             later->onBody(
                                 [&](std::string_view) {
                                     if (!isAtEnd)
                                         row.fail();
                                 },
                                 [&, later] {
                                     row.fail();
                                     later->reply("end");
                                 });
                         })
                    .streaming();
            }
        });
        int failures = 0;
        for (const auto& row : rows) {
            SCOPED_TRACE(row.path);
            const RawResponse response = server.ask(withBody("PUT", row.path, "body"));
            EXPECT_EQ(response.status, row.status);
            EXPECT_EQ(response.value("Retry-After"), row.retryAfter);
            ++failures;
            EXPECT_TRUE(waitUntil([&] { return losses == failures; }));
        }
        EXPECT_TRUE(logged("PUT /other: the callback onBody failed: disk full"));
        EXPECT_TRUE(logged(
            "PUT /unknown: the callback onBody failed: an exception that is no std::exception"));
        EXPECT_TRUE(server.stop());
    }
}

TEST(KitUploads, EndWithTheirClient)
{
    Channel<std::weak_ptr<Upload>> uploads;
    std::atomic<int> losses{0};
    KitTestServer server([&](Router& router) {
        router
            .put("/",
                 [&](Request& request) {
                     auto upload = std::make_shared<Upload>(request);
                     upload->later.onGone([&] { ++losses; });
                     upload->later.onBody(
                         [upload, &uploads](std::string_view) { uploads.push(upload); },
                         [] { ADD_FAILURE() << "complete"; });
                 })
            .streaming();
    });
    for (const bool resets : {true, false}) {
        SCOPED_TRACE(resets);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(headOf("PUT", "/", 4) + "1"));
        const auto upload = uploads.pop();
        ASSERT_TRUE(upload);
        resets ? client.reset() : client.close();
        EXPECT_TRUE(waitUntil([&] { return upload->expired(); }));
    }
    EXPECT_EQ(losses, 2);
    RawClient client(server.port());
    ASSERT_TRUE(client.send(headOf("PUT", "/", 4) + "1"));
    const auto upload = uploads.pop();
    ASSERT_TRUE(upload);
    EXPECT_FALSE(server.stop(milliseconds(0)));
    EXPECT_TRUE(upload->expired());
    EXPECT_EQ(losses, 3);
}

// The rest of the body is discarded.
TEST(KitUploads, EndWithAResponse)
{
    std::atomic<int> pieces{0};
    KitTestServer server([&](Router& router) {
        const auto add = [&](const char* path, std::function<void(Upload&)> respond) {
            router
                .put(path,
                     [&, respond](Request& request) {
                         auto upload = std::make_shared<Upload>(request);
                         upload->later.onBody(
                             [&pieces, upload, respond](std::string_view) {
                                 ++pieces;
                                 respond(*upload);
                             },
                             [] { ADD_FAILURE() << "complete"; });
                     })
                .streaming();
        };
        add("/early", [](Upload& upload) { EXPECT_TRUE(upload.later.reply(403, "no")); });
        add("/stream", [](Upload& upload) {
            auto stream = upload.later.startStream(ContentType::text(), 403);
            stream.write("no");
            stream.finish();
        });
        add("/dropped", [](Upload& upload) { upload.later = DeferredResponse(); });
    });
    for (const char* const path : {"/early", "/stream", "/dropped"}) {
        SCOPED_TRACE(path);
        RawClient client(server.port());
        pieces = 0;
        ASSERT_TRUE(client.send(headOf("PUT", path, 4) + "1"));
        ASSERT_TRUE(waitUntil([&] { return pieces == 1; }));
        ASSERT_TRUE(client.send("234"));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, path == std::string("/dropped") ? 500 : 403);
        EXPECT_EQ(pieces, 1);
    }
}

TEST(KitUploads, ThatAreAskedForWronglyAreRefused)
{
    KitTestServer server([](Router& router) {
        router.put("/buffered", echo);
        router
            .put("/twice",
                 [](Request& request) {
                     auto later = request.defer();
                     later.onBody([](std::string_view) {}, [] {});
                     EXPECT_THROW(later.onBody([](std::string_view) {}, [] {}), std::logic_error);
                     later.reply("refused");
                     // Nothing happens after a response.
                     later.onBody([](std::string_view) { ADD_FAILURE(); }, [] { ADD_FAILURE(); });
                 })
            .streaming();
    });
    EXPECT_EQ(server.ask(withBody("PUT", "/buffered", "body")).status, 500);
    EXPECT_TRUE(
        logged("PUT /buffered: the handler failed: onBody in a route that is not streaming"));
    EXPECT_EQ(server.ask(withBody("PUT", "/twice", "body")).body, "refused");
}

// Without callbacks, and without a body.
TEST(KitUploads, NeedNeitherPiecesNorCallbacks)
{
    KitTestServer server([](Router& router) {
        router
            .put("/",
                 [](Request& request) {
                     auto later = std::make_shared<DeferredResponse>(request.defer());
                     later->onBody(nullptr, [later] { later->reply("end"); });
                 })
            .streaming();
    });
    EXPECT_EQ(server.ask(withBody("PUT", "/", "body")).body, "end");
    EXPECT_EQ(server.ask("PUT / HTTP/1.1\r\nHost: x\r\n\r\n").body, "end");
}

// Uploads that end in every way, at random times, on few workers.
TEST(KitUploadStress, EachUploadHasOneEnd)
{
    const char* const given = std::getenv("WENDREL_STRESS_SEED");
    const unsigned seed =
        given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    SCOPED_TRACE("WENDREL_STRESS_SEED=" + std::to_string(seed));
    constexpr int kClients = 8;
    constexpr int kUploadsEach = 40;
    std::atomic<int> alive{0};
    std::atomic<int> wrong{0};
    std::atomic<int> echoed{0};
    std::atomic<unsigned> count{0};
    const auto serve = [&](Request& request) {
        ++alive;
        auto upload = std::shared_ptr<Upload>(new Upload(request), [&](Upload* ended) {
            --alive;
            delete ended;
        });
        auto random = std::make_shared<std::mt19937>(seed + ++count);
        auto losses = std::make_shared<std::atomic<int>>(0);
        upload->later.onGone([&wrong, losses] { wrong += losses->fetch_add(1) != 0; });
        if ((*random)() % 4 == 0)
            upload->later.setDeadline(milliseconds((*random)() % 4 + 1));
        upload->later.onBody(
            [&wrong, upload, random](std::string_view piece) {
                wrong += upload->calls++ != 0;
                upload->body.append(piece);
                if ((*random)() % 8 == 0)
                    std::this_thread::sleep_for(std::chrono::microseconds((*random)() % 500));
                const unsigned end = (*random)() % 64;
                if (end == 0)
                    throw HttpError(400);
                if (end == 1)
                    upload->later.reply(403, "no");
                else if (end == 2)
                    upload->later = DeferredResponse();
                --upload->calls;
            },
            [&wrong, upload] {
                wrong += upload->calls != 0;
                upload->later.reply(std::move(upload->body));
            });
    };
    {
        KitTestServer server([&](Router& router) { router.put("/", serve).streaming(); },
                             kitOptions(2));
        std::vector<std::thread> clients;
        for (unsigned i = 0; i < kClients; ++i) {
            clients.emplace_back([&, i] {
                std::mt19937 random(seed * 31 + i);
                for (int upload = 0; upload < kUploadsEach; ++upload) {
                    RawClient client(server.port());
                    const std::string body = pattern(random() % 300000);
                    client.send(headOf("PUT", "/", body.size()));
                    const size_t step = random() % 100000 + 1;
                    const size_t left = random() % 4 == 0 ? random() % (body.size() + 1) : 0;
                    for (size_t at = 0; at + left < body.size(); at += step) {
                        if (!client.send(std::string_view(body).substr(at, step)))
                            break;
                        if (random() % 4 == 0)
                            std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
                    }
                    if (left != 0)
                        continue;  // leaves
                    const auto response = client.receive();
                    if (response && response->status == 200) {
                        ++echoed;
                        wrong += response->body != body;
                    }
                }
            });
        }
        for (std::thread& client : clients)
            client.join();
        EXPECT_TRUE(waitUntil([&] { return server.server().openRequests() == 0; }));
        server.stop();
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(echoed, 0);
}

}  // namespace
}  // namespace integration

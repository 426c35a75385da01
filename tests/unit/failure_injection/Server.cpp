// The daemon's callbacks and the server's life while memory, threads and the daemon's own
// resources run out. Through the daemon an exception would end the process; here it is seen to
// come out of the callback, with nothing lost behind it.

#include "failure_injection/Support.h"
#include "support/CapturedLog.h"
#include "support/FakeTime.h"
#include "support/RecordingApplication.h"
#include "support/TestRequest.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include "request/ConnectionContext.h"
#include "request/DispatchAccess.h"
#include "server/Dispatch.h"
#include "server/UpgradeExchange.h"
#include "server/logging/DaemonLog.h"
#include "streaming/StreamCallbacks.h"
#include "streaming/Throttle.h"

#include <cstdarg>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

using Access = impl::DispatchAccess;
using testing::Contains;
using testing::IsEmpty;
using testing::SizeIs;

// One request and all that is around it. Ends it as the daemon would.
class Exchange
{
public:
    Exchange()
    {
        HttpBaseRequest::InitRequestTypes();
        auto made = std::make_unique<RecordingApplication>(daemon);
        application = made.get();
        application->setErrorBody("the error body of the application");
        application->makeRequest = [this]() -> HttpBaseRequest* {
            request = std::make_unique<WorkerRequest>();
            return request.get();
        };
        server = std::make_unique<Server>(made.release());
        impl::Throttle::OfThisThread().reset();
    }

    ~Exchange()
    {
        if (slot)
            impl::RequestCompleted(server.get(), &connection, &slot,
                                   MHD_REQUEST_TERMINATED_CLIENT_ABORT);
        if (request) {
            EXPECT_TRUE(request->isCompleted());
        }
        HttpBaseRequest::ClearRequestTypes();
    }

    void open(const std::string& target = "/a/target/that/does/not/fit/into/a/string/object")
    {
        slot = impl::OpenContext(nullptr, target.c_str(), &connection);
    }

    MHD_Result call(const std::string& body = std::string())
    {
        size_t size = body.size();
        const MHD_Result result = impl::HandleAccess(server.get(), &connection, "", method.c_str(),
                                                     "HTTP/1.1", body.data(), &size, &slot);
        EXPECT_EQ(size, 0u);
        return result;
    }

    // The response that was queued, if any.
    const MHD_Response* queued() const
    {
        for (size_t i = 0; i < daemon.responseCount(); ++i) {
            if (!daemon.response(i).queued.empty())
                return &daemon.response(i);
        }
        return nullptr;
    }

    class Server : public http::HttpServer
    {
    public:
        using HttpServer::HttpServer;
        using HttpServer::run;
    };

    FakeTime time;
    CapturedLog log;
    FailingDaemon daemon;
    MHD_Connection& connection = daemon.connection();
    RecordingApplication* application = nullptr;
    std::unique_ptr<WorkerRequest> request;  // outlives the server's part of the exchange
    std::unique_ptr<Server> server;
    std::string method = "GET";
    void* slot = nullptr;
};

TEST(DispatchFailures, AContextIsMadeWholeOrNotAtAll)
{
    FailEachCallOf({{"URI-log callback", [](Attempt& attempt) {
                         Exchange exchange;
                         const bool done = attempt([&] { exchange.open(); });
                         EXPECT_EQ(exchange.slot != nullptr, done);
                     }}});
}

// Adds query, header and cookie values to a request.
void AddValues(MHD_Connection& connection)
{
    connection.setClient("192.0.2.7", 40000);
    connection.add(MHD_GET_ARGUMENT_KIND, "argument", kLongText);
    connection.add(MHD_GET_ARGUMENT_KIND, "argument", "\xC0\x80");
    connection.add(MHD_HEADER_KIND, "Host", "127.0.0.1");
    connection.add(MHD_HEADER_KIND, "X-List", kLongText + ", b," + kLongText);
    connection.add(MHD_HEADER_KIND, "X-Broken", "\"");
    connection.add(MHD_COOKIE_KIND, "cookie", kLongText);
}

TEST(DispatchFailures, TheFirstCallFillsARequestOrPassesTheExceptionThrough)
{
    FailEachCallOf(
        {{"access handler: first call",
          [](Attempt& attempt) {
              Exchange exchange;
              AddValues(exchange.connection);
              exchange.open();
              bool handled = false;
              exchange.application->onRequest = [&](HttpBaseRequest*) { handled = true; };
              const bool done = attempt([&] { EXPECT_EQ(exchange.call(), MHD_YES); });
              EXPECT_EQ(handled, done);
              // Without its address, which the daemon may not be able to tell.
              EXPECT_EQ(done, !attempt.hasLackedMemory());
              if (done) {
                  EXPECT_EQ(exchange.request->getClientAddress().isValid(),
                            !attempt.hasFailed(Failing::Daemon));
                  EXPECT_THAT(*exchange.request->getHeader("x-list"), SizeIs(3));
                  EXPECT_EQ(exchange.request->getParseError(), "query parameter value is non utf8");
              }
          }},
         {"access handler: first call of a bad request",
          [](Attempt& attempt) {
              Exchange exchange;
              exchange.method = "a method that there is not";
              exchange.open("/" + std::string(5000, 'a'));
              const bool done = attempt([&] { EXPECT_EQ(exchange.call(), MHD_YES); });
              EXPECT_EQ(done, !attempt.hasLackedMemory());
              if (done) {
                  EXPECT_EQ(exchange.request->getParseError(), "Unexpected HTTP method");
              }
          }},
         {"access handler: first call while stopping", [](Attempt& attempt) {
              Exchange exchange;
              exchange.open();
              exchange.server->stopServer(false);
              MHD_Result result = MHD_YES;
              const bool done = attempt([&] { result = exchange.call(); });
              EXPECT_EQ(result == MHD_NO, done);
              EXPECT_EQ(exchange.request, nullptr);
              // Without memory for its text a line is left out.
              if (!attempt.hasFailed()) {
                  EXPECT_THAT(exchange.log.lines(), SizeIs(1));
              }
              EXPECT_EQ(exchange.call(), MHD_NO);
          }}});
}

TEST(DispatchFailures, ABodyIsFedWholeOrNotAtAll)
{
    FailEachCallOf({{"access handler: body",
                     [](Attempt& attempt) {
                         Exchange exchange;
                         exchange.open();
                         exchange.call();
                         std::string expected;
                         if (attempt([&] { EXPECT_EQ(exchange.call(kLongText), MHD_YES); }))
                             expected = kLongText;
                         exchange.call("the rest");
                         exchange.call();
                         expected += "the rest";
                         std::string body(1000, '\0');
                         HttpReceiveDevice& device = exchange.request->getReceiveDevice();
                         body.resize(device.readBytes(body.data(), body.size()));
                         EXPECT_EQ(body, expected);
                     }},
                    {"access handler: body that comes too late, end of the body, no response yet",
                     [](Attempt& attempt) {
                         Exchange exchange;
                         exchange.open();
                         exchange.call();
                         EXPECT_TRUE(attempt([&] {
                             for (int i = 0; i < 200; ++i)
                                 EXPECT_EQ(exchange.call(), MHD_YES);
                         }));
                         exchange.request->getResponseDevice().endSending();
                         EXPECT_TRUE(attempt([&] { EXPECT_EQ(exchange.call("late"), MHD_YES); }));
                     },
                     Points::None}});
}

// How the response of a row is sent.
enum class Way { Whole, Empty, Stream, StreamUnknown, Error };

void PrepareResponse(WorkerRequest& request, Way way)
{
    request.response.addHeader("x-first", "1");
    request.response.addHeader("x-second", kLongText);
    request.response.cookies["cookie"] = kLongText;
    request.response.cookies["other"] = "1";
    HttpResponseDevice& device = request.getResponseDevice();
    if (way != Way::Empty)
        device.writeBytes(kLongText.data(), kLongText.size());
    if (way == Way::Stream)
        request.response.contentLength = 100;
    if (way == Way::Whole || way == Way::Empty)
        device.endSending();
    if (way == Way::Error)
        device.setDeviceError("an error");
    device.setResponseReady();
}

TEST(DispatchFailures, AResponseIsQueuedOrItsConnectionCloses)
{
    const struct
    {
        const char* name;
        Way way;
    } rows[] = {
        {"access handler: response from a buffer", Way::Whole},
        {"access handler: empty response", Way::Empty},
        {"access handler: streamed response", Way::Stream},
        {"access handler: streamed response of unknown length", Way::StreamUnknown},
        {"access handler: error body", Way::Error},
    };
    for (const auto& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            Exchange exchange;
            exchange.open();
            exchange.call();
            PrepareResponse(*exchange.request, row.way);
            MHD_Result result = MHD_NO;
            const bool done = attempt([&] { result = exchange.call(); });
            EXPECT_EQ(done, !attempt.hasLackedMemory());
            if (!done) {
                EXPECT_EQ(exchange.queued(), nullptr);
                return;
            }
            const auto refused = [&](const char* function) {
                return attempt.hasFailed() && !exchange.daemon.callsOf(function).empty();
            };
            if (!attempt.hasFailed()) {
                EXPECT_EQ(result, MHD_YES);
            }
            if (exchange.daemon.responseCount() == 0) {
                // No response could be made.
                EXPECT_TRUE(refused("MHD_create_response_from_buffer") ||
                            refused("MHD_create_response_from_callback"));
                EXPECT_EQ(result, MHD_NO);
                return;
            }
            // A header for which the daemon has no memory is left out. The response is sent.
            const MHD_Response& response = exchange.daemon.response(0);
            EXPECT_THAT(response.queued, SizeIs(1));
            const size_t headers = row.way == Way::Error ? 0 : 4;
            if (result == MHD_YES && !attempt.hasFailed()) {
                EXPECT_THAT(response.headers, SizeIs(headers));
            } else {
                EXPECT_LE(response.headers.size(), headers);
            }
            EXPECT_EQ(response.destroyed, 1);
        });
    }
}

TEST(DispatchFailures, AResponseThatCouldNotBeQueuedIsQueuedTheNextTime)
{
    FailEachCallOf({{"access handler: no memory for the copy of the body", [](Attempt& attempt) {
                         Exchange exchange;
                         exchange.open();
                         exchange.call();
                         HttpResponseDevice& device = exchange.request->getResponseDevice();
                         device.writeBytes(kLongText.data(), kLongText.size());
                         device.endSending();
                         device.setResponseReady();
                         if (!attempt([&] { exchange.call(); })) {
                             EXPECT_EQ(exchange.call(), MHD_YES);
                             EXPECT_EQ(exchange.queued()->body, kLongText);
                         }
                     }}});
}

// Upgrades.

struct Handshake
{
    const char* name;
    const char* method;
    const char* version;
    const char* key;
    unsigned int status;
};

TEST(UpgradeFailures, AnUpgradeIsRespondedToOrItsConnectionCloses)
{
    const Handshake rows[] = {
        {"upgrade: accepted", "GET", "13", "dGhlIHNhbXBsZSBub25jZQ==", 101},
        {"upgrade: key of the wrong length", "GET", "13", "dGhlIHNhbXBsZSBub25jZQ=", 101},
        {"upgrade: wrong version", "GET", "13, 8", "dGhlIHNhbXBsZSBub25jZQ==", 426},
        {"upgrade: no version", "GET", nullptr, "dGhlIHNhbXBsZSBub25jZQ==", 426},
        {"upgrade: no key", "GET", "13", nullptr, 500},
        {"upgrade: wrong method", "POST", "13", "dGhlIHNhbXBsZSBub25jZQ==", 500},
    };
    for (const Handshake& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            Exchange exchange;
            exchange.method = row.method;
            exchange.connection.add(MHD_HEADER_KIND, "Upgrade", "WebSocket");
            exchange.connection.add(MHD_HEADER_KIND, "Connection", "keep-alive, Upgrade");
            if (row.version)
                exchange.connection.add(MHD_HEADER_KIND, "Sec-WebSocket-Version", row.version);
            if (row.key)
                exchange.connection.add(MHD_HEADER_KIND, "Sec-WebSocket-Key", row.key);
            exchange.open();
            MHD_Result result = MHD_NO;
            const bool done = attempt([&] { result = exchange.call(); });
            attempt.forgiveMalloc();
            EXPECT_EQ(exchange.request, nullptr);
            if (!done || exchange.daemon.responseCount() == 0) {
                EXPECT_TRUE(attempt.hasFailed());
                EXPECT_EQ(result, MHD_NO);
                EXPECT_EQ(exchange.queued(), nullptr);
                return;
            }
            const MHD_Response& response = exchange.daemon.response(0);
            ASSERT_THAT(response.queued, SizeIs(1));
            EXPECT_EQ(response.queued[0].second, row.status);
            if (!attempt.hasFailed()) {
                EXPECT_EQ(result, MHD_YES);
                EXPECT_THAT(response.headers, SizeIs(row.status == 500                   ? 0
                                                     : row.status == 426                 ? 1
                                                     : std::string(row.key).size() == 24 ? 3
                                                                                         : 2));
            }
        });
    }
}

TEST(UpgradeFailures, AnUpgradedConnectionReachesTheApplicationOrIsReleased)
{
    FailEachCallOf({{"upgrade handler", [](Attempt& attempt) {
                         Exchange exchange;
                         exchange.application->webSockets.reserve(1);
                         const bool done = attempt([&] {
                             impl::AcceptUpgraded(exchange.server.get(), &exchange.connection,
                                                  nullptr, nullptr, 0, -1, nullptr);
                         });
                         EXPECT_EQ(exchange.application->webSockets.size(), done ? 1u : 0u);
                     }}});
}

// The server.

class InitializedLibrary : public testing::Test
{
protected:
    InitializedLibrary() { initializeWendrel(); }
    ~InitializedLibrary() override { terminateWendrel(); }
};

class ServerFailures : public InitializedLibrary
{};

TEST_F(ServerFailures, ConstructionNeedsNoMemoryBeyondTheObject)
{
    FailEachCallOf({{"server: construction, stop, destruction",
                     [](Attempt& attempt) {
                         RecordingDaemon daemon;
                         auto application = std::make_unique<RecordingApplication>(daemon);
                         EXPECT_TRUE(attempt([&] {
                             http::HttpServer server(application.release());
                             server.stopServer(true);
                         }));
                         EXPECT_THAT(daemon.callsOf("~HttpServerImpl"), SizeIs(1));
                     },
                     Points::None},
                    {"server: error body", [](Attempt& attempt) {
                         RecordingDaemon daemon;
                         RecordingApplication application(daemon);
                         attempt([&] { application.setErrorBody(kLongText); });
                         EXPECT_EQ(application.getErrorBody(),
                                   attempt.hasFailed() ? "" : kLongText);
                     }}});
}

TEST_F(ServerFailures, AServerWithoutAThreadIsStoppedAndCanBeStarted)
{
    FailEachCallOf({{"server: start", [](Attempt& attempt) {
                         CapturedLog log;
                         RecordingDaemon daemon;
                         http::HttpServer server(new RecordingApplication(daemon));
                         http::HttpServer::Parameters parameters;
                         const bool started = attempt([&] { server.startServer(parameters); });
                         EXPECT_EQ(started, !attempt.hasFailed());
                         if (!started) {
                             EXPECT_EQ(server.getState(), http::HttpServer::Stopped);
                             EXPECT_THAT(daemon.calls(), IsEmpty());
                             server.startServer(parameters);
                         }
                         EXPECT_NE(server.getState(), http::HttpServer::Stopped);
                         EXPECT_TRUE(attempt([&] { server.stopServer(true); }));
                         EXPECT_EQ(server.getState(), http::HttpServer::Stopped);
                         EXPECT_THAT(daemon.starts(), SizeIs(1));
                         EXPECT_THAT(daemon.stops(), SizeIs(1));
                     }}});
}

TEST_F(ServerFailures, TheServerThreadStopsWhatItHasStarted)
{
    const struct
    {
        const char* name;
        std::set<MHD_FEATURE> features;
        bool canStart;
    } rows[] = {
        {"server thread: poll and epoll", {MHD_FEATURE_POLL, MHD_FEATURE_EPOLL}, true},
        {"server thread: without epoll", {MHD_FEATURE_POLL}, true},
        {"server thread: neither poll nor epoll", {}, false},
    };
    for (const auto& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            Exchange exchange;
            exchange.daemon.setFeatures(row.features);
            exchange.time.onWait([&](FakeTime::Wait&) { exchange.server->stopServer(false); });
            const bool done = attempt([&] { exchange.server->run(); });
            EXPECT_TRUE(done || attempt.hasLackedMemory());
            // The lock is free.
            exchange.server->stopServer(false);
            const auto starts = exchange.daemon.starts();
            const bool isUp = !starts.empty() && starts[0].daemon;
            EXPECT_THAT(exchange.daemon.stops(), SizeIs(isUp ? 1 : 0));
            if (done) {
                EXPECT_EQ(exchange.server->getState(),
                          isUp ? http::HttpServer::Stopped : http::HttpServer::Failed);
                EXPECT_THAT(exchange.daemon.callsOf("onServerStopped"), SizeIs(1));
            }
            if (!attempt.hasFailed()) {
                EXPECT_EQ(isUp, row.canStart);
            }
        });
    }
}

TEST(UninitializedServerFailures, TheServerThreadSaysThatTheLibraryIsNotInitialized)
{
    FailEachCallOf({{"server thread: library not initialised", [](Attempt& attempt) {
                         Exchange exchange;
                         const bool done = attempt([&] { exchange.server->run(); });
                         exchange.server->stopServer(false);
                         EXPECT_THAT(exchange.daemon.starts(), IsEmpty());
                         if (done) {
                             EXPECT_EQ(exchange.server->getState(), http::HttpServer::Failed);
                         }
                         if (!attempt.hasFailed()) {
                             EXPECT_THAT(exchange.log.lines(), SizeIs(1));
                         }
                     }}});
}

// The daemon's log.

__attribute__((format(printf, 1, 2))) void LogAsDaemon(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // Not by a locker of the list: an exception ends it, too.
    try {
        impl::LogDaemonMessage(nullptr, format, arguments);
    } catch (...) {
        va_end(arguments);
        throw;
    }
    va_end(arguments);
}

TEST(DaemonLogFailures, ALineIsWrittenLeftOutOrPassesTheExceptionThrough)
{
    FailEachCallOf({{"daemon log", [](Attempt& attempt) {
                         CapturedLog log;
                         const bool done = attempt(
                             [] { LogAsDaemon("Failed: %s\n", std::string(900, 'x').c_str()); });
                         const auto lines = log.lines();
                         EXPECT_THAT(lines, SizeIs(testing::Le(done ? 1u : 0u)));
                         const std::string text = "libmicrohttpd: Failed: " + std::string(900, 'x');
                         // A line for which memory ends half-way is cut.
                         for (const LogLine& line : lines)
                             EXPECT_EQ(line.message, text.substr(0, line.message.size()));
                         if (!attempt.hasFailed()) {
                             ASSERT_THAT(lines, SizeIs(1));
                             EXPECT_EQ(lines[0].message, text);
                         }
                     }}});
}

}  // namespace
}  // namespace qv::tests

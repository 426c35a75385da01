// The server under attack in a process of its own, so that memory, descriptors and threads can be
// told from those of its clients: of the kit in event-driven mode, otherwise on the library's own
// classes in polling mode.
//
// Arguments, all as name=number: threads, workers, queue, timeout (ms), websocket (0 or 1; polling
// mode), events (1: event-driven mode, which echoes messages on /), and for it secure (1: over
// TLS), handshake (ms) and places (connections), and for its sessions unsent (ms) and budget
// (bytes); and log=path for a log in a file (without it, lines are only counted). Prints "port=N".
// Obeys orders on standard input, a line each:
//   metrics   gives unused memory back to the system and prints numbers
//   endings   prints how requests of polling mode ended: their number, then "count kind: error" a
//             line each
//   release   lets those requests go on that ask for /hold
//   stop N    stops within N ms, prints numbers, and ends the process

#include "../support/Certificates.h"
#include "../support/WorkerApplication.h"

#include <Wendrel/kit/Server.h>

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>
#include <qvSystem/qvLog.h>
#include <support/Ports.h>

#include <malloc.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Of the sanitizers' runtime; not every compiler brings its header.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace
{

using qv::kit::Request;
using qv::kit::websocket::BinaryView;
using qv::kit::websocket::Session;
using std::chrono::milliseconds;

constexpr size_t kPieceBytes = 65536;
constexpr unsigned kWorkers = 16;
constexpr unsigned kMaxKitWorkers = 1024;
constexpr unsigned kQueueLimit = 2048;
constexpr unsigned kThreads = 2;
constexpr unsigned kTimeoutMs = 60000;
constexpr unsigned kUnsentMs = 30000;
constexpr unsigned kBudgetBytes = 256u << 20;
constexpr uint64_t kUploadLimitBytes = 1u << 30;

class Arguments
{
public:
    Arguments(int argc, char** argv)
    {
        for (int i = 1; i < argc; ++i) {
            const std::string word = argv[i];
            const size_t equals = word.find('=');
            if (equals == std::string::npos)
                throw std::runtime_error("'" + word + "' is not name=value");
            mValues[word.substr(0, equals)] = word.substr(equals + 1);
        }
    }

    unsigned number(const std::string& name, unsigned otherwise) const
    {
        const auto found = mValues.find(name);
        return found == mValues.end() ? otherwise
                                      : static_cast<unsigned>(std::stoul(found->second));
    }

    std::string text(const std::string& name) const
    {
        const auto found = mValues.find(name);
        return found == mValues.end() ? std::string() : found->second;
    }

private:
    std::map<std::string, std::string> mValues;
};

// The record of ended requests, and state shared by the routes.
struct RequestRecord
{
    void noteEnd(const std::string& kind, const std::string& error)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++endings[kind + ": " + (error.empty() ? "no error" : error)];
    }

    void hold()
    {
        std::unique_lock<std::mutex> lock(mutex);
        ++holding;
        released.wait(lock, [this] { return isReleased; });
        --holding;
    }

    std::atomic<uint64_t> holding{0};
    std::atomic<uint64_t> deleted{0};    // of polling mode
    std::atomic<uint64_t> completed{0};  // of secure endpoints
    std::mutex mutex;                    // guards all below
    std::condition_variable released;
    bool isReleased = false;
    std::map<std::string, uint64_t> endings;
};

// A request of polling mode.
class NotedRequest : public integration::WorkerRequest
{
public:
    explicit NotedRequest(RequestRecord& record) : mRecord(record) {}

    ~NotedRequest() override
    {
        mRecord.noteEnd(mKind, getResponseDevice().getDeviceErrorMsg());
        ++mRecord.deleted;
    }

    void serve() override
    {
        if (hasParseError()) {
            respond(getRequestType() == UNKNOWN_HTTP_METHOD ? 501 : 400, getParseError());
            return;
        }
        std::vector<std::string> path = getUrl().pathSegments();
        path.resize(2);
        mKind = path[0];
        if (mKind == "upload")
            takeUpload(path[1]);
        else
            sendBody(path[1]);
    }

private:
    void sendBody(const std::string& size)
    {
        const uint64_t bytes = std::strtoull(size.c_str(), nullptr, 10);
        if (mKind == "small") {
            respond(200, "small");
        } else if (mKind == "buffered") {
            respond(200, std::string(bytes, 'b'));
        } else if (mKind == "known" || mKind == "chunked") {
            stream(bytes, mKind == "known");
        } else if (mKind == "hold") {
            mRecord.hold();
            respond(200, "held");
        } else {
            respond(mKind == "throws" ? 500 : 404, std::string());
        }
    }

    void takeUpload(const std::string& kind)
    {
        if (!kind.empty())
            mKind = kind;
        std::vector<char> piece(kPieceBytes);
        qv::HttpReceiveDevice& device = getReceiveDevice();
        uint64_t total = 0;
        while (!device.atEnd() && total <= kUploadLimitBytes)
            total += device.readBytes(piece.data(), piece.size());
        respond(device.hasDeviceError() ? 400 : 200, std::to_string(total));
    }

    RequestRecord& mRecord;
    std::string mKind = "unserved";
};

// A server of either mode.
class Target
{
public:
    virtual ~Target() = default;

    virtual bool start(uint16_t port) = 0;
    virtual bool stop(milliseconds limit) = 0;
    virtual size_t openCount() const = 0;
    virtual uint64_t requestCount() const = 0;
    // When it has stopped.
    virtual uint64_t deletedCount() const = 0;
    virtual size_t connections() const { return 0; }
    virtual uint64_t messages() const { return 0; }
};

class PollingApplication : public integration::WorkerApplication
{
public:
    PollingApplication(const Arguments& arguments, RequestRecord& record)
        : WorkerApplication(arguments.number("workers", kWorkers),
                            arguments.number("queue", kQueueLimit)),
          mRecord(record)
    {}

    ~PollingApplication() override { stopWorkers(); }

protected:
    std::unique_ptr<integration::WorkerRequest> newRequest() override
    {
        return std::make_unique<NotedRequest>(mRecord);
    }

    void onNewWebSocket(qv::http::WebSocket* socket) override
    {
        const std::unique_ptr<qv::http::WebSocket> refused(socket);
        refused->markForDeletion();
    }

private:
    RequestRecord& mRecord;
};

class PollingTarget : public Target
{
public:
    PollingTarget(const Arguments& arguments, RequestRecord& record)
        : mArguments(arguments), mRecord(record)
    {
        qv::initializeWendrel();
    }

    ~PollingTarget() override
    {
        mServer.reset();
        qv::terminateWendrel();
    }

    // A server that has failed cannot be started again.
    bool start(uint16_t port) override
    {
        mApplication = new PollingApplication(mArguments, mRecord);
        mServer = std::make_unique<qv::http::HttpServer>(mApplication);
        qv::http::HttpServer::Parameters parameters;
        parameters.port = port;
        parameters.threadPoolSize = mArguments.number("threads", kThreads);
        parameters.connectionTimeoutMs = mArguments.number("timeout", kTimeoutMs);
        parameters.allowWebSocket = mArguments.number("websocket", 1) != 0;
        mServer->startServer(parameters);
        return mServer->waitUntilRunning(std::chrono::seconds(30));
    }

    bool stop(milliseconds limit) override
    {
        const bool finished = mApplication->drain(limit);
        mServer->stopServer(true);
        mRequests = mApplication->requestCount();
        mServer.reset();
        return finished;
    }

    size_t openCount() const override { return mApplication->openCount(); }
    uint64_t requestCount() const override
    {
        return mServer ? mApplication->requestCount() : mRequests;
    }
    uint64_t deletedCount() const override { return mRecord.deleted; }

private:
    const Arguments& mArguments;
    RequestRecord& mRecord;
    PollingApplication* mApplication = nullptr;  // the server's
    std::unique_ptr<qv::http::HttpServer> mServer;
    uint64_t mRequests = 0;
};

// Echoes; "flood" requests a large message.
class Echo : public qv::kit::websocket::SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>&) override { ++connections; }
    void onText(Session& session, std::string_view text) override
    {
        constexpr size_t kFloodBytes = 1u << 20;
        ++messages;
        if (text == "flood")
            session.sendBinary(BinaryView(std::string(kFloodBytes, 'f')));
        else
            session.sendText(text);
    }
    void onBinary(Session& session, BinaryView bytes) override
    {
        ++messages;
        session.sendBinary(bytes);
    }
    void onClose(Session&, uint16_t, std::string_view, bool) override { --connections; }

    std::atomic<size_t> connections{0};
    std::atomic<uint64_t> messages{0};
};

// With the limits of polling mode, where they are the same.
class KitTarget : public Target
{
public:
    KitTarget(const Arguments& arguments, RequestRecord& record)
        : mServer(optionsOf(arguments, record))
    {
        addRoutes(mServer.router(), record);
        qv::kit::websocket::WebSocketOptions sessions;
        sessions.sendTimeout = milliseconds(arguments.number("unsent", kUnsentMs));
        mServer.router().webSocket("/", sessions, [this](Request&) { return mEcho; });
    }

    bool start(uint16_t port) override
    {
        return mServer.start("127.0.0.1:" + std::to_string(port));
    }

    bool stop(milliseconds limit) override { return mServer.stop(limit); }
    size_t openCount() const override { return mServer.openRequests(); }
    uint64_t requestCount() const override { return mServer.requestCount(); }
    uint64_t deletedCount() const override { return requestCount() - openCount(); }
    size_t connections() const override { return mEcho->connections; }
    uint64_t messages() const override { return mEcho->messages; }

private:
    static qv::kit::ServerOptions optionsOf(const Arguments& arguments, RequestRecord& record)
    {
        constexpr uint32_t kMaxConnections = 1020;
        constexpr size_t kConnectionMemoryBytes = 262144;
        qv::kit::ServerOptions options;
        options.workers = std::min(arguments.number("workers", kWorkers), kMaxKitWorkers);
        options.workerQueueLimit = arguments.number("queue", kQueueLimit);
        options.threads = arguments.number("threads", kThreads);
        options.maxConnections = arguments.number("places", kMaxConnections);
        options.connectionMemoryBytes = kConnectionMemoryBytes;
        options.webSockets.memoryBudgetBytes = arguments.number("budget", kBudgetBytes);
        options.headTimeout = options.idleTimeout = options.bodyTimeout = options.sendTimeout =
            milliseconds(arguments.number("timeout", kTimeoutMs));
        if (arguments.number("secure", 0) != 0) {
            constexpr unsigned kHandshakeMs = 10000;
            options.tls.push_back(integration::localhostTls());
            options.onCompleted = [&record](const qv::kit::CompletedRequest&) {
                ++record.completed;
            };
            options.tls.front().handshakeTimeout =
                milliseconds(arguments.number("handshake", kHandshakeMs));
        }
        return options;
    }

    static uint64_t bytesAskedFor(const Request& request)
    {
        return static_cast<uint64_t>(request.pathParameter("bytes").asInt(std::nullopt, 0));
    }

    static void writeBody(Request& request)
    {
        static const std::string piece(kPieceBytes, 'd');
        uint64_t bytes = bytesAskedFor(request);
        request.startStream();
        while (bytes > 0) {
            const auto part = static_cast<size_t>(std::min<uint64_t>(bytes, piece.size()));
            if (!request.write({piece.data(), part}))
                return;
            bytes -= part;
        }
    }

    static void takeUpload(Request& request)
    {
        std::vector<char> piece(kPieceBytes);
        uint64_t total = 0;
        while (const size_t got = request.readBody(piece.data(), piece.size()))
            total += got;
        request.reply(std::to_string(total));
    }

    static void addRoutes(qv::kit::Router& router, RequestRecord& record)
    {
        router.get("/small", [](Request& request) { request.reply("small"); });
        router.get("/buffered/{bytes}", [](Request& request) {
            request.reply(std::string(bytesAskedFor(request), 'b'));
        });
        router.get("/known/{bytes}", [](Request& request) {
            request.setContentLength(static_cast<int64_t>(bytesAskedFor(request)));
            writeBody(request);
        });
        // The part behind the length is only part of the name, for the log.
        router.get("/chunked/{bytes}/{name*}", writeBody);
        for (const char* pattern : {"/upload", "/upload/{kind}"})
            router.put(pattern, takeUpload).streaming().maxBodyBytes(kUploadLimitBytes);
        router.post("/upload", takeUpload).streaming().maxBodyBytes(kUploadLimitBytes);
        router.get("/hold", [&record](Request& request) {
            record.hold();
            request.reply("held");
        });
        router.get("/throws/{name*}", [](Request& request) {
            throw std::runtime_error("on purpose\nwith a second line, " + request.target());
        });
        // Fails behind the head of its response.
        router.get("/cut/{name*}", [](Request& request) {
            request.startStream();
            request.write("begun");
            throw std::runtime_error("on purpose");
        });
    }

    const std::shared_ptr<Echo> mEcho = std::make_shared<Echo>();
    qv::kit::Server mServer;
};

class CountingSink : public qv::qvLogSink
{
public:
    explicit CountingSink(std::atomic<uint64_t>& lines) : mLines(lines) {}
    void write(const qv::qvLog::LogEntry&) override { ++mLines; }
    void flush() override {}

private:
    std::atomic<uint64_t>& mLines;
};

// Bytes of the heap in use.
size_t heapBytes()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#endif
    ::malloc_trim(0);
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

class Run
{
public:
    explicit Run(const Arguments& arguments) : mArguments(arguments) {}

    bool start()
    {
        constexpr int kTries = 5;
        for (int i = 0; i < kTries; ++i) {
            const uint16_t port = qv::tests::findFreePort();
            mTarget = makeTarget();
            if (mTarget->start(port)) {
                std::printf("port=%d\n", port);
                std::fflush(stdout);
                return true;
            }
        }
        return false;
    }

    void obey(const std::string& order)
    {
        if (order == "metrics")
            std::printf("metrics open=%zu requests=%llu holding=%llu connections=%zu "
                        "messages=%llu heap=%zu lines=%llu completed=%llu\n",
                        mTarget->openCount(), number(mTarget->requestCount()),
                        number(mRecord.holding), mTarget->connections(),
                        number(mTarget->messages()), heapBytes(), number(mLogLines),
                        number(mRecord.completed));
        else if (order == "endings")
            printEndings();
        else if (order == "release")
            release();
        else
            std::printf("what?\n");
        std::fflush(stdout);
    }

    // The numbers are taken after the server is destroyed.
    void stop(milliseconds limit)
    {
        const auto start = std::chrono::steady_clock::now();
        const bool finished = mTarget->stop(limit);
        const auto time =
            std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
        const uint64_t created = mTarget->requestCount();
        const uint64_t deleted = mTarget->deletedCount();
        mTarget.reset();
        std::printf("stopped ms=%lld finished=%d created=%llu deleted=%llu heap=%zu\n",
                    static_cast<long long>(time.count()), finished ? 1 : 0, number(created),
                    number(deleted), heapBytes());
        std::fflush(stdout);
    }

    std::atomic<uint64_t> mLogLines{0};

private:
    std::unique_ptr<Target> makeTarget()
    {
        if (mArguments.number("events", 0) == 0)
            return std::make_unique<PollingTarget>(mArguments, mRecord);
        return std::make_unique<KitTarget>(mArguments, mRecord);
    }

    static unsigned long long number(uint64_t value) { return value; }

    void printEndings()
    {
        const std::lock_guard<std::mutex> lock(mRecord.mutex);
        std::printf("endings lines=%zu\n", mRecord.endings.size());
        for (const auto& [text, count] : mRecord.endings)
            std::printf("%llu %s\n", number(count), text.c_str());
    }

    void release()
    {
        const std::lock_guard<std::mutex> lock(mRecord.mutex);
        mRecord.isReleased = true;
        mRecord.released.notify_all();
        std::printf("released\n");
    }

    const Arguments& mArguments;
    RequestRecord mRecord;
    std::unique_ptr<Target> mTarget;
};

int run(const Arguments& arguments)
{
    // A test that is cut off leaves no server behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The number of heaps is fixed: by default it depends on the number of cores.
    constexpr int kHeaps = 4;
    ::mallopt(M_ARENA_MAX, kHeaps);
    // Constant defaults: the dynamic threshold grows to 64 MiB with the blocks freed, and
    // malloc_trim does not release the top of a thread's heap below the threshold.
    constexpr int kThresholdBytes = 128 * 1024;
    ::mallopt(M_MMAP_THRESHOLD, kThresholdBytes);
    ::mallopt(M_TRIM_THRESHOLD, kThresholdBytes);
    // Ends by an order only.
    ::signal(SIGPIPE, SIG_IGN);
    qv::qvLog log;
    Run server(arguments);
    std::string error;
    const std::string path = arguments.text("log");
    constexpr size_t kLogFileBytes = 64u << 20;
    std::unique_ptr<qv::qvLogSink> sink;
    if (path.empty())
        sink = std::make_unique<CountingSink>(server.mLogLines);
    else
        sink = qv::MakeRotatingFileSink(path, kLogFileBytes, 1, error);
    if (!sink)
        return 1;
    log.addSink(std::move(sink));
    log.install();
    if (!server.start())
        return 1;
    std::string order;
    while (std::getline(std::cin, order)) {
        const std::string stop = "stop ";
        if (order.compare(0, stop.size(), stop) == 0) {
            server.stop(milliseconds(std::stoul(order.substr(stop.size()))));
            return 0;
        }
        server.obey(order);
    }
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    return run(Arguments(argc, argv));
}

// The server under attack: an application of the kit in a process of its own, so that memory,
// descriptors and threads can be told from those of its clients.
//
// Arguments, all as name=number: threads, workers, queue, timeout (ms), websocket (0 or 1),
// hubworkers, unsent (ms), sendbuffer (bytes, of upgraded sockets), events (1: event-driven mode);
// and log=path for a log in a file (without it, lines are only counted). Prints "port=N". Obeys
// orders on standard input, a line each:
//   metrics   gives unused memory back to the system and prints numbers
//   endings   prints how requests ended: their number, then "count kind: error" a line each
//   release   lets those requests go on that ask for /hold
//   stop N    stops within N ms, prints numbers, and ends the process

#include <Wendrel/kit/Server.h>
#include <Wendrel/kit/WebSocketHub.h>

#include <Wendrel/HttpDevices.h>
#include <qvSystem/qvLog.h>
#include <support/Ports.h>

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
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

using qv::HttpBaseRequest;
using qv::kit::BodyResult;
using qv::kit::Request;
using std::chrono::milliseconds;

constexpr size_t kPieceBytes = 65536;
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

    std::atomic<uint64_t> created{0};
    std::atomic<uint64_t> deleted{0};
    std::atomic<uint64_t> holding{0};
    std::mutex mutex;  // guards all below
    std::condition_variable released;
    bool isReleased = false;
    std::map<std::string, uint64_t> endings;
};

class NotedRequest : public Request
{
public:
    explicit NotedRequest(RequestRecord& record) : mRecord(record) { ++mRecord.created; }

    ~NotedRequest() override
    {
        mRecord.noteEnd(kind, getResponseDevice().getDeviceErrorMsg());
        ++mRecord.deleted;
    }

    std::string kind = "unserved";

private:
    RequestRecord& mRecord;
};

uint64_t bytesAskedFor(const Request& request)
{
    return std::stoull(request.getPathParameter("bytes"));
}

// False when the connection is closed.
bool writeBody(Request& request, uint64_t bytes)
{
    static const std::string piece(kPieceBytes, 'd');
    while (bytes > 0) {
        const auto part = static_cast<size_t>(std::min<uint64_t>(bytes, piece.size()));
        if (!request.write(piece.data(), part))
            return false;
        bytes -= part;
    }
    request.finish();
    return true;
}

void takeUpload(Request& request)
{
    std::vector<char> piece(kPieceBytes);
    uint64_t total = 0;
    BodyResult result = BodyResult::More;
    while (result == BodyResult::More && total <= kUploadLimitBytes) {
        size_t got = 0;
        result = request.readBody(piece.data(), piece.size(), got);
        total += got;
    }
    if (result == BodyResult::Complete)
        request.reply(200, "text/plain", std::to_string(total));
}

// Echoes; "flood" requests a large message first.
class Echo : public qv::kit::HubConnection
{
public:
    Echo(qv::http::WebSocket&& upgraded, std::atomic<uint64_t>& messages, int sendBuffer)
        : HubConnection(std::move(upgraded)), mMessages(messages)
    {
        if (sendBuffer > 0)
            ::setsockopt(getSocket(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    }

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        constexpr size_t kFloodBytes = 1u << 20;
        ++mMessages;
        const std::string_view bytes(reinterpret_cast<const char*>(received.data()),
                                     received.size());
        if (bytes == "flood")
            sendBinary(std::string(kFloodBytes, 'f'));
        else if (isBinary)
            sendBinary(bytes);
        else
            sendText(bytes);
    }

private:
    std::atomic<uint64_t>& mMessages;
};

class Target : public qv::kit::Application
{
public:
    Target(const Options& options, const qv::kit::WebSocketHub::Options& hubOptions, int sendBuffer,
           RequestRecord& record)
        : Application(options), mRecord(record), mSendBuffer(sendBuffer), mHub(hubOptions)
    {
        addRoutes();
    }

    ~Target() override { stopWorkers(); }

    size_t connections() const { return mHub.getCount(); }
    uint64_t messages() const { return mMessages; }

protected:
    Request* newRequest() override { return new NotedRequest(mRecord); }

    void onNewWebSocket(qv::http::WebSocket* socket) override
    {
        mHub.adopt<Echo>(socket, mMessages, mSendBuffer);
    }

    void onServerStopped() override
    {
        mHub.close(milliseconds(0));
        Application::onServerStopped();
    }

private:
    void add(int methods, const std::string& kind, const std::string& pattern,
             const qv::kit::Router::Handler& handler)
    {
        getRouter().add(methods, pattern, [kind, handler](Request& request) {
            static_cast<NotedRequest&>(request).kind = kind;
            handler(request);
        });
    }

    void addRoutes()
    {
        add(HttpBaseRequest::GET, "small", "/small",
            [](Request& request) { request.reply(200, "text/plain", "small"); });
        add(HttpBaseRequest::GET, "buffered", "/buffered/{bytes}", [](Request& request) {
            request.reply(200, "text/plain", std::string(bytesAskedFor(request), 'b'));
        });
        add(HttpBaseRequest::GET, "known", "/known/{bytes}", [](Request& request) {
            const uint64_t bytes = bytesAskedFor(request);
            request.getHead().setContentLength(static_cast<int64_t>(bytes));
            writeBody(request, bytes);
        });
        // The part behind the length is only part of the name, for the log.
        add(HttpBaseRequest::GET, "chunked", "/chunked/{bytes}/{name*}",
            [](Request& request) { writeBody(request, bytesAskedFor(request)); });
        add(HttpBaseRequest::PUT | HttpBaseRequest::POST, "upload", "/upload", takeUpload);
        getRouter().add(HttpBaseRequest::PUT, "/upload/{kind}", [](Request& request) {
            static_cast<NotedRequest&>(request).kind = request.getPathParameter("kind");
            takeUpload(request);
        });
        add(HttpBaseRequest::GET, "hold", "/hold", [this](Request& request) {
            hold();
            request.reply(200, "text/plain", "held");
        });
        add(HttpBaseRequest::GET, "throws", "/throws/{name*}",
            [](Request&) { throw std::runtime_error("on purpose\nwith a second line"); });
    }

    void hold()
    {
        std::unique_lock<std::mutex> lock(mRecord.mutex);
        ++mRecord.holding;
        mRecord.released.wait(lock, [this] { return mRecord.isReleased; });
        --mRecord.holding;
    }

    RequestRecord& mRecord;
    const int mSendBuffer;
    std::atomic<uint64_t> mMessages{0};
    qv::kit::WebSocketHub mHub;
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
            qv::kit::Application::Options options;
            options.workers = mArguments.number("workers", options.workers);
            options.queueLimit = mArguments.number("queue", 2048);
            qv::kit::WebSocketHub::Options hubOptions;
            hubOptions.workers = mArguments.number("hubworkers", hubOptions.workers);
            hubOptions.unsentLimit = milliseconds(mArguments.number("unsent", 60000));
            auto target = std::make_unique<Target>(
                options, hubOptions, static_cast<int>(mArguments.number("sendbuffer", 0)), mRecord);
            mTarget = target.get();
            mServer = std::make_unique<qv::kit::Server>(std::move(target));
            qv::http::HttpServer::Parameters parameters;
            parameters.port = qv::tests::findFreePort();
            parameters.threadPoolSize = mArguments.number("threads", 2);
            parameters.connectionTimeoutMs = mArguments.number("timeout", 60000);
            parameters.allowWebSocket = mArguments.number("websocket", 1) != 0;
            if (startServer(parameters)) {
                std::printf("port=%d\n", parameters.port);
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
                        "messages=%llu heap=%zu lines=%llu\n",
                        mTarget->getOpenCount(), number(mTarget->getRequestCount()),
                        number(mRecord.holding), mTarget->connections(),
                        number(mTarget->messages()), heapBytes(), number(mLogLines));
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
        const bool finished = mServer->stop(limit);
        const auto time =
            std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
        mServer.reset();
        std::printf("stopped ms=%lld finished=%d created=%llu deleted=%llu heap=%zu\n",
                    static_cast<long long>(time.count()), finished ? 1 : 0, number(mRecord.created),
                    number(mRecord.deleted), heapBytes());
        std::fflush(stdout);
    }

    std::atomic<uint64_t> mLogLines{0};

private:
    // With the limits of polling mode, where they are the same.
    bool startServer(const qv::http::HttpServer::Parameters& parameters)
    {
        if (mArguments.number("events", 0) == 0)
            return mServer->start(parameters, std::chrono::seconds(30));
        constexpr uint32_t kMaxConnections = 1020;
        constexpr size_t kConnectionMemoryBytes = 262144;
        qv::http::ServerOptions options;
        options.listen = {"127.0.0.1:" + std::to_string(parameters.port)};
        options.threads = parameters.threadPoolSize;
        options.maxConnections = kMaxConnections;
        options.connectionMemoryBytes = kConnectionMemoryBytes;
        options.headTimeout = options.idleTimeout = options.bodyTimeout = options.sendTimeout =
            milliseconds(parameters.connectionTimeoutMs);
        return mServer->start(options);
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
    Target* mTarget = nullptr;
    std::unique_ptr<qv::kit::Server> mServer;
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
    qv::kit::StopSignal signals;
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

// Bytes of a client over a loopback socket to a server of the kit in this process. The server
// responds to an ordinary request between the inputs, every request ends, and the server stops
// cleanly at the end of the run.
//
// An input is one byte that says how the client behaves, one that says into which pieces the rest
// is cut, and the bytes for the wire.
//
// Threads of the server may still be busy with an input when the next one begins: should a kept
// input not fail by itself, run the whole corpus again (-runs=0).
//
// Kept out, because it is required behaviour and ends the process: a WebSocket frame with a length
// of 2^64 - 14 and above, see tame. An end of stream in the middle of a frame, which would keep a
// worker of the library for ever, is left to the hub.

#include "support/Check.h"

#include <Wendrel/kit/Server.h>
#include <Wendrel/kit/WebSocketHub.h>
#include <qvSystem/qvLog.h>
#include <support/Ports.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

// The daemon keeps some contexts for itself when a connection ends early, and requests end later
// than the input that made them; that all requests are deleted is checked below.
extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}

namespace
{

using qv::HttpBaseRequest;
using qv::kit::BodyResult;
using qv::kit::Request;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr size_t kBodyLimitBytes = 100000;
constexpr size_t kStreamLimitBytes = 300000;
constexpr unsigned kInputsBetweenProbes = 32;

// Above the response times of the library, the kit and the hub under sanitizers.
constexpr std::chrono::seconds kAliveLimit(60);

constexpr size_t kMaxKeptResponseBytes = 4096;

// More than the longest pause of the dispatch between two looks at a waiting request.
constexpr milliseconds kQuiet(60);
constexpr milliseconds kInputLimit(250);

class Echo : public qv::kit::HubConnection
{
public:
    explicit Echo(qv::http::WebSocket&& upgraded) : HubConnection(std::move(upgraded)) {}

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        const std::string_view bytes(reinterpret_cast<const char*>(received.data()),
                                     received.size());
        if (bytes == "abort")
            abort();
        else if (isBinary)
            sendBinary(bytes);
        else
            sendText(bytes);
    }
};

// Takes every line, down to the least important, and shows none.
class DeafSink : public qv::qvLogSink
{
public:
    void write(const qv::qvLog::LogEntry& entry) override { mBytes += entry.message.size(); }
    void flush() override {}

private:
    size_t mBytes = 0;
};

class Application : public qv::kit::Application
{
public:
    explicit Application(const Options& options)
        : qv::kit::Application(options), mHub(std::make_unique<qv::kit::WebSocketHub>())
    {}
    ~Application() override { stopWorkers(); }

protected:
    void onNewWebSocket(qv::http::WebSocket* upgraded) override { mHub->adopt<Echo>(upgraded); }
    void onServerStopped() override { mHub->close(milliseconds(100)); }

private:
    std::unique_ptr<qv::kit::WebSocketHub> mHub;
};

void EchoBody(Request& request)
{
    std::string body;
    const BodyResult result = request.readWholeBody(kBodyLimitBytes, body);
    if (result == BodyResult::Complete)
        request.reply(200, "application/octet-stream", body);
    else
        request.replyError(result == BodyResult::TooLarge ? 413 : 400, "body");
}

// Responds while the body is being received.
void PassOn(Request& request)
{
    char part[1000];
    request.startStream();
    for (auto result = BodyResult::More; result == BodyResult::More;) {
        size_t got = 0;
        result = request.readBody(part, sizeof part, got);
        if (!request.write(part, got))
            return;
    }
    request.finish();
}

void Stream(Request& request)
{
    const std::string text = request.getPathParameter("size");
    const size_t size =
        std::min<size_t>(std::strtoul(text.c_str(), nullptr, 10), kStreamLimitBytes);
    const std::string part(777, 's');
    request.startStream();
    for (size_t done = 0; done < size && request.write(part.data(), part.size());)
        done += part.size();
    request.finish();
}

void ShowHead(Request& request)
{
    std::string text = request.getUrl().path() + '\n' + request.getUrl().query() + '\n';
    const auto show = [&text](const auto& map) {
        for (const auto& [name, values] : map) {
            for (const std::string& value : values)
                text += name + '=' + value + '\n';
        }
    };
    show(request.getHeaders());
    show(request.getCookies());
    show(request.getQueryParameters());
    request.reply(200, "text/plain", text);
}

void AddRoutes(qv::kit::Router& router)
{
    constexpr int kAll = HttpBaseRequest::GET | HttpBaseRequest::POST | HttpBaseRequest::PUT |
                         HttpBaseRequest::DELETE | HttpBaseRequest::PATCH |
                         HttpBaseRequest::OPTIONS;
    router.add(kAll, "/", [](Request& request) { request.reply(200, "text/plain", "here"); });
    router.add(kAll, "/echo", EchoBody);
    router.add(kAll, "/pass", PassOn);
    router.add(kAll, "/stream/{size}", Stream);
    router.add(kAll, "/head/{rest*}", ShowHead);
    router.add(kAll, "/fail", [](Request&) { throw std::runtime_error("as asked for"); });
    router.add(kAll, "/silent", [](Request&) {});
}

sockaddr_in Loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The server of all inputs.
class Subject
{
public:
    static Subject& Get()
    {
        static auto* subject = new Subject;
        return *subject;
    }

    uint16_t port() const { return mPort; }
    size_t openRequests() const { return mServer->getApplication().getOpenCount(); }
    void stop()
    {
        mServer->stop(std::chrono::seconds(5));
        FUZZ_CHECK(openRequests() == 0);
        mServer.reset();
    }

private:
    Subject()
    {
        mLog.setMinimumLevel(0);
        mLog.addSink(std::make_unique<DeafSink>());
        mLog.install();
        constexpr int kTries = 5;  // somebody else may take the port in between
        for (int i = 0; i < kTries; ++i) {
            qv::kit::Application::Options options;
            options.workers = 24;
            auto application = std::make_unique<Application>(options);
            AddRoutes(application->getRouter());
            mServer = std::make_unique<qv::kit::Server>(std::move(application));
            qv::http::HttpServer::Parameters parameters;
            parameters.port = mPort = qv::tests::findFreePort();
            parameters.threadPoolSize = 2;
            parameters.connectionTimeoutMs = 1000;  // frees workers that wait for a body
            parameters.allowWebSocket = true;
            if (mServer->start(parameters, std::chrono::seconds(30)))
                return;
        }
        FUZZ_CHECK(!"the server starts");
    }

    qv::qvLog mLog;
    std::unique_ptr<qv::kit::Server> mServer;
    uint16_t mPort = 0;
};

class Client
{
public:
    Client() : mDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in address = Loopback(Subject::Get().port());
        if (::connect(mDescriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
            0)
            waitFor(POLLOUT, milliseconds(5000));
    }
    ~Client() { ::close(mDescriptor); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Receives responses meanwhile, so that neither side waits for the other.
    void send(std::string_view bytes, Clock::time_point end)
    {
        while (!bytes.empty() && !mEnded && Clock::now() < end) {
            const ssize_t sent = ::send(mDescriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent > 0) {
                bytes.remove_prefix(static_cast<size_t>(sent));
            } else if (errno != EAGAIN) {
                return;
            } else {
                waitFor(POLLIN | POLLOUT, kQuiet);
            }
            take();
        }
    }

    // Until the server has ended the connection or is quiet.
    void receive(Clock::time_point end)
    {
        while (!mEnded && Clock::now() < end && waitFor(POLLIN, kQuiet))
            take();
    }

    // Until a first byte of the response has arrived.
    void receiveSome(Clock::time_point end)
    {
        while (!mEnded && mResponse.empty() && Clock::now() < end && waitFor(POLLIN, kQuiet))
            take();
    }

    void finishSending() { ::shutdown(mDescriptor, SHUT_WR); }

    // The server will see a reset when this object goes.
    void abandon()
    {
        const linger reset{1, 0};
        ::setsockopt(mDescriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }

    const std::string& response() const { return mResponse; }

private:
    bool waitFor(short events, milliseconds limit)
    {
        pollfd entry{mDescriptor, events, 0};
        return ::poll(&entry, 1, static_cast<int>(limit.count())) > 0;
    }

    void take()
    {
        char part[16384];
        const ssize_t got = ::recv(mDescriptor, part, sizeof part, 0);
        if (got > 0 && mResponse.size() < kMaxKeptResponseBytes)
            mResponse.append(part, static_cast<size_t>(got));
        mEnded = got == 0 || (got < 0 && errno != EAGAIN);
    }

    int mDescriptor;
    std::string mResponse;  // its first kMaxKeptResponseBytes
    bool mEnded = false;
};

// Sends an ordinary request until the server responds to it.
void Probe()
{
    const auto end = Clock::now() + kAliveLimit;
    for (;;) {
        Client client;
        client.send("GET / HTTP/1.1\r\nHost: probe\r\nConnection: close\r\n\r\n", end);
        client.receive(end);
        const std::string& response = client.response();
        if (response.find("HTTP/1.1 200 ") == 0 && response.size() > 4 &&
            response.substr(response.size() - 4) == "here")
            return;
        FUZZ_CHECK(Clock::now() < end);
    }
}

void WaitUntilAtMostOpen(size_t count)
{
    const auto end = Clock::now() + kAliveLimit;
    while (Subject::Get().openRequests() > count) {
        FUZZ_CHECK(Clock::now() < end);
        std::this_thread::sleep_for(milliseconds(1));  // there is nothing to wait on
    }
}

// Takes the top bit from every length that would end the process.
void tame(std::string& wire)
{
    constexpr size_t kLengthBytes = 8;
    for (size_t i = 0; i + kLengthBytes < wire.size(); ++i) {
        const auto at = wire.begin() + static_cast<std::ptrdiff_t>(i);
        if ((*at & 0x7f) == 0x7f &&
            std::all_of(at + 1, at + kLengthBytes, [](char c) { return c == '\xff'; }))
            at[1] = '\x7f';
    }
}

enum Ending { Leave, Reset, HalfClose, WaitAndReset, EndingCount };

// In the first byte of an input: the client waits for the response to the first head. Otherwise the
// daemon drops frames that directly follow the request for an upgrade.
constexpr uint8_t kAwaitsResponse = 0x80;

std::string_view TakeFirstHead(std::string_view& wire)
{
    constexpr std::string_view kHeadEnd = "\r\n\r\n";
    const size_t end = wire.find(kHeadEnd);
    const std::string_view head =
        wire.substr(0, end == std::string_view::npos ? wire.size() : end + kHeadEnd.size());
    wire.remove_prefix(head.size());
    return head;
}

void Converse(uint8_t manner, uint8_t cut, std::string_view wire)
{
    const auto ending = static_cast<Ending>(manner % EndingCount);
    const auto end = Clock::now() + kInputLimit;
    Client client;
    if (manner & kAwaitsResponse) {
        client.send(TakeFirstHead(wire), end);
        client.receiveSome(end);
    }
    const size_t piece = cut == 0 ? wire.size() : std::max<size_t>(1, wire.size() / cut);
    for (size_t at = 0; at < wire.size(); at += piece)
        client.send(wire.substr(at, piece), end);
    if (ending == HalfClose)
        client.finishSending();
    if (ending == HalfClose || ending == WaitAndReset)
        client.receive(end);
    if (ending != Leave)
        client.abandon();
    const std::string& response = client.response();
    FUZZ_CHECK(response.compare(0, std::min<size_t>(7, response.size()), "HTTP/1.", 0,
                                std::min<size_t>(7, response.size())) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // libFuzzer uses signals, which must not interrupt the library's threads.
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    for (const int number : {SIGALRM, SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
        sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    std::signal(SIGPIPE, SIG_IGN);
    Subject::Get();
    Probe();  // starts threads that the server starts late
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    std::atexit([] { Subject::Get().stop(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    static unsigned inputs = 0;
    std::string wire(reinterpret_cast<const char*>(data) + 2, size - 2);
    tame(wire);
    Converse(data[0], data[1], wire);
    WaitUntilAtMostOpen(8);
    if (++inputs % kInputsBetweenProbes == 0)
        Probe();
    return 0;
}

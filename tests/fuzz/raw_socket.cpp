// Bytes of a client over a loopback socket to a server of the kit in this process. The server
// responds to an ordinary request between the inputs, every request ends, and the server stops
// cleanly at the end of the run.
//
// An input is one byte that says how the client behaves, one that says into which pieces the rest
// is cut, and the bytes for the wire.
//
// Threads of the server may still be busy with an input when the next one begins: should a kept
// input not fail by itself, run the whole corpus again (-runs=0).

#include "support/Check.h"

#include <Wendrel/kit/Server.h>
#include <qvSystem/qvLog.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <mutex>
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

using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::Request;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr size_t kBodyLimitBytes = 100000;
constexpr size_t kStreamLimitBytes = 300000;
constexpr unsigned kInputsBetweenProbes = 32;

// Above the response times of the library and the kit under sanitizers.
constexpr std::chrono::seconds kAliveLimit(60);

constexpr size_t kMaxKeptResponseBytes = 4096;

// More than the time to a response on a busy machine, mostly.
constexpr milliseconds kQuiet(60);
constexpr milliseconds kInputLimit(250);

// Takes every line, down to the least important, and shows none.
class DeafSink : public qv::qvLogSink
{
public:
    void write(const qv::qvLog::LogEntry& entry) override { mBytes += entry.message.size(); }
    void flush() override {}

private:
    size_t mBytes = 0;
};

void EchoBody(Request& request)
{
    request.reply(request.body(), ContentType::bytes());
}

// Responds while the body is being received.
void PassOn(Request& request)
{
    char part[1000];
    request.startStream();
    while (const size_t got = request.readBody(part, sizeof part)) {
        if (!request.write({part, got}))
            return;
    }
}

size_t SizeOf(const Request& request)
{
    const std::string& text = request.pathParameter("size");
    return std::min<size_t>(std::strtoul(text.c_str(), nullptr, 10), kStreamLimitBytes);
}

void Stream(Request& request)
{
    const size_t size = SizeOf(request);
    const std::string part(777, 's');
    request.startStream();
    for (size_t done = 0; done < size && request.write(part);)
        done += part.size();
}

void ShowHead(Request& request)
{
    std::string text = request.path() + '\n' + request.target() + '\n';
    for (const char* name : {"a", "b", "name"}) {
        text += request.query(name) + "\n" + request.cookie(name) + "\n" + request.header(name);
        for (const std::string& value : request.queryValues(name))
            text += value + '\n';
    }
    request.reply(text + request.pathParameter("rest"));
}

// Responses that are given by later requests, and streams that those write to.
class Deferred
{
public:
    void addResponse(Request& request)
    {
        DeferredResponse later = request.defer();
        later.setDeadline(milliseconds(300));
        later.onGone([this] { ++mAborted; });
        const std::lock_guard<std::mutex> locker(mMutex);
        mResponses.push_back(std::move(later));
        if (mResponses.size() > kMaxWaiting)
            mResponses.erase(mResponses.begin());
    }

    void addStream(Request& request)
    {
        DeferredStream stream = request.defer().startStream(ContentType::text());
        stream.onWritable([this] { ++mWritable; });
        stream.write("first\n");
        const std::lock_guard<std::mutex> locker(mMutex);
        mStreams.push_back(std::move(stream));
        if (mStreams.size() > kMaxWaiting)
            mStreams.erase(mStreams.begin());
    }

    void goOn(Request& request)
    {
        std::vector<DeferredResponse> responses;
        std::vector<DeferredStream> streams;
        {
            const std::lock_guard<std::mutex> locker(mMutex);
            responses.swap(mResponses);
            streams.swap(mStreams);
        }
        for (DeferredResponse& response : responses)
            response.reply("later");
        for (DeferredStream& stream : streams) {
            stream.write(std::string(1000, 'd'));
            stream.finish();
        }
        request.reply("done");
    }

private:
    // Fewer than the requests that may be open between two inputs.
    static constexpr size_t kMaxWaiting = 2;

    std::atomic<uint64_t> mAborted{0};
    std::atomic<uint64_t> mWritable{0};
    std::mutex mMutex;  // guards both below
    std::vector<DeferredResponse> mResponses;
    std::vector<DeferredStream> mStreams;
};

void AddRoutes(qv::kit::Router& router, Deferred& deferred)
{
    router.any("/", [](Request& request) { request.reply("here"); });
    router.any("/echo", EchoBody).maxBodyBytes(kBodyLimitBytes);
    router.any("/inline", EchoBody).nonBlocking();
    router.any("/pass", PassOn).streaming();
    router.any("/stream/{size}", Stream);
    router.any("/head/{rest*}", ShowHead);
    router.any("/fail", [](Request&) { throw std::runtime_error("as asked for"); });
    router.any("/silent", [](Request&) {});
    router.any("/later", [&](Request& request) { deferred.addResponse(request); });
    router.any("/events", [&](Request& request) { deferred.addStream(request); });
    router.any("/on", [&](Request& request) { deferred.goOn(request); }).nonBlocking();
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
    size_t openRequests() const { return mServer.openRequests(); }
    void stop()
    {
        mServer.stop(std::chrono::seconds(5));
        FUZZ_CHECK(openRequests() == 0);
    }

private:
    Subject() : mServer(Options())
    {
        mLog.setMinimumLevel(0);
        mLog.addSink(std::make_unique<DeafSink>());
        mLog.install();
        AddRoutes(mServer.router(), mDeferred);
        FUZZ_CHECK(mServer.start());
        const std::string endpoint = mServer.endpoints().front();
        mPort = static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    }

    static qv::kit::ServerOptions Options()
    {
        qv::kit::ServerOptions options;
        options.listen = {"127.0.0.1:0"};
        options.threads = 2;
        options.workers = 24;
        // Clients that have stopped in the middle go soon.
        options.headTimeout = options.idleTimeout = options.bodyTimeout = milliseconds(1000);
        return options;
    }

    qv::qvLog mLog;
    Deferred mDeferred;
    qv::kit::Server mServer;  // last: its threads use all above
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

enum Ending { Leave, Reset, HalfClose, WaitAndReset, EndingCount };

// In the first byte of an input: the client waits for the response to the first head.
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
    const std::string wire(reinterpret_cast<const char*>(data) + 2, size - 2);
    Converse(data[0], data[1], wire);
    WaitUntilAtMostOpen(8);
    if (++inputs % kInputsBetweenProbes == 0)
        Probe();
    return 0;
}

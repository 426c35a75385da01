// wendrel-bench-broadcast: one message to many WebSocket sessions, against a loop of send() over
// the same sockets, and the memory of a session.
//
//     wendrel-bench-broadcast [CONNECTIONS [BYTES [ROUNDS [LOOPS]]]]

#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/kit/websocket/Engine.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

namespace websocket = qv::kit::websocket;
using Clock = std::chrono::steady_clock;

constexpr int kMaxEvents = 512;
constexpr int kAlternations = 5;
constexpr size_t kUsedBytes = 60000;
constexpr std::chrono::seconds kLimit(120);

void require(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(what);
}

struct Pair
{
    int server;
    int client;
};

std::vector<Pair> connect(size_t count)
{
    const int listening = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    require(::bind(listening, plain, size) == 0 && ::listen(listening, 16) == 0, "cannot listen");
    ::getsockname(listening, plain, &size);
    std::vector<Pair> pairs;
    for (size_t i = 0; i < count; ++i) {
        const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        require(client != -1 && ::connect(client, plain, size) == 0, "cannot connect");
        const int server = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        require(server != -1, "cannot accept");
        const int on = 1;
        ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        ::fcntl(client, F_SETFL, O_NONBLOCK);
        pairs.push_back({server, client});
    }
    ::close(listening);
    return pairs;
}

// Counts the bytes that all clients receive.
class Receiver
{
public:
    explicit Receiver(const std::vector<Pair>& pairs) : mEpoll(epoll_create1(EPOLL_CLOEXEC))
    {
        for (const Pair& pair : pairs) {
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.fd = pair.client;
            epoll_ctl(mEpoll, EPOLL_CTL_ADD, pair.client, &event);
        }
        mThread = std::thread([this] { run(); });
    }
    ~Receiver()
    {
        mStops = true;
        mThread.join();
        ::close(mEpoll);
    }

    void waitFor(uint64_t bytes)
    {
        const auto end = Clock::now() + kLimit;
        uint64_t received = mReceived.load(std::memory_order_acquire);
        while (received < bytes) {
            require(Clock::now() < end, "not everything was received");
            mReceived.wait(received, std::memory_order_acquire);
            received = mReceived.load(std::memory_order_acquire);
        }
    }

private:
    void run()
    {
        std::array<epoll_event, kMaxEvents> events;
        std::array<char, 65536> bytes;
        while (!mStops) {
            const int count = epoll_wait(mEpoll, events.data(), kMaxEvents, 100);
            uint64_t received = 0;
            for (int i = 0; i < count; ++i) {
                const ssize_t got =
                    ::recv(events[static_cast<size_t>(i)].data.fd, bytes.data(), bytes.size(), 0);
                received += got > 0 ? static_cast<uint64_t>(got) : 0;
            }
            mReceived.fetch_add(received, std::memory_order_release);
            mReceived.notify_one();
        }
    }

    const int mEpoll;
    std::atomic<uint64_t> mReceived{0};
    std::atomic<bool> mStops{false};
    std::thread mThread;
};

class Echo : public websocket::SessionHandler
{
    void onBinary(websocket::Session& session, websocket::BinaryView bytes) override
    {
        session.sendBinary(bytes);
    }
};

size_t heapBytes()
{
    ::malloc_trim(0);
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

std::string clientFrame(size_t bytes)
{
    std::string frame{'\x82', '\xfe', static_cast<char>(bytes >> 8),
                      static_cast<char>(bytes & 0xff)};
    return frame.append(4, '\0').append(bytes, 'u');
}

template <typename Send>
double rate(size_t messages, Receiver& receiver, uint64_t& expected, size_t rounds,
            size_t frameBytes, Send send)
{
    const auto begin = Clock::now();
    for (size_t round = 0; round < rounds; ++round) {
        send();
        expected += messages * frameBytes;
        receiver.waitFor(expected);
    }
    const std::chrono::duration<double> taken = Clock::now() - begin;
    return static_cast<double>(messages * rounds) / taken.count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void measure(size_t connections, size_t bytes, size_t rounds, unsigned loops)
{
    const std::vector<Pair> pairs = connect(connections);
    websocket::Engine engine({loops});
    const auto handler = std::make_shared<Echo>();
    const auto options = std::make_shared<websocket::WebSocketOptions>();
    // The clients respond to nothing.
    options->pingInterval = options->silenceTimeout = std::chrono::milliseconds(0);
    const size_t before = heapBytes();
    std::vector<std::shared_ptr<websocket::Session>> sessions;
    sessions.reserve(connections);
    for (const Pair& pair : pairs) {
        // The engine's from now on; the bare loop uses it too while nothing else is sent.
        sessions.push_back(engine.open(
            std::make_unique<qv::UpgradedConnection>(pair.server, "", qv::IpAddress(), nullptr), {},
            handler, options));
    }
    Receiver receiver(pairs);
    uint64_t expected = 0;
    const auto message = websocket::PreparedMessage::binary(
        websocket::BinaryView(std::string_view(std::string(bytes, 'm'))));
    const size_t headerBytes = bytes < 126 ? 2 : bytes < 65536 ? 4 : 10;
    const std::string frame(headerBytes + bytes, 'f');
    const auto broadcast = [&] {
        for (const auto& session : sessions)
            session->send(message);
    };
    rate(connections, receiver, expected, 1, frame.size(), broadcast);
    const size_t idle = (heapBytes() - before) / connections;

    std::vector<double> bare;
    std::vector<double> engines;
    for (int i = 0; i < kAlternations; ++i) {
        bare.push_back(rate(connections, receiver, expected, rounds, frame.size(), [&] {
            for (const Pair& pair : pairs)
                ::send(pair.server, frame.data(), frame.size(), MSG_NOSIGNAL);
        }));
        engines.push_back(rate(connections, receiver, expected, rounds, frame.size(), broadcast));
    }

    // Each session receives a large message in two parts, and sends it back.
    const std::string large = clientFrame(kUsedBytes);
    for (const Pair& pair : pairs) {
        ::send(pair.client, large.data(), large.size() / 2, MSG_NOSIGNAL);
    }
    for (const Pair& pair : pairs)
        ::send(pair.client, large.data() + large.size() / 2, large.size() - large.size() / 2,
               MSG_NOSIGNAL);
    expected += connections * (kUsedBytes + 4);
    receiver.waitFor(expected);
    const size_t used = (heapBytes() - before) / connections;
    std::printf("{\"connections\":%zu,\"bytes\":%zu,\"loops\":%u,\"bare_per_second\":%.0f,"
                "\"sessions_per_second\":%.0f,\"ratio\":%.2f,\"idle_bytes\":%zu,"
                "\"idle_bytes_after_use\":%zu}\n",
                connections, bytes, loops, median(bare), median(engines),
                median(engines) / median(bare), idle, used);
    engine.shutDown(std::chrono::milliseconds(0));
    for (const Pair& pair : pairs)
        ::close(pair.client);
}

}  // namespace

int main(int argc, char** argv)
{
    const auto argument = [&](int index, size_t standard) {
        return argc > index ? std::strtoul(argv[index], nullptr, 10) : standard;
    };
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    try {
        measure(argument(1, 9000), argument(2, 100), argument(3, 5),
                static_cast<unsigned>(argument(4, 1)));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "wendrel-bench-broadcast: %s\n", error.what());
        return 1;
    }
    return 0;
}

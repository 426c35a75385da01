// The client's end of a session, over a socket pair or a TCP connection.
#ifndef WENDREL_TESTS_UNIT_KIT_WEBSOCKET_PEER_H
#define WENDREL_TESTS_UNIT_KIT_WEBSOCKET_PEER_H

#include "Support.h"

#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/kit/websocket/Engine.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace websockettests
{

using namespace qv::kit::websocket;

inline constexpr std::chrono::seconds kLimit{60};

// Two ends of a TCP connection over loopback, both blocking; the first is the server's.
inline std::pair<int, int> tcpPair(int bufferBytes = 0)
{
    const int listening = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bufferBytes != 0) {
        ::setsockopt(listening, SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
        ::setsockopt(client, SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof bufferBytes);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listening, reinterpret_cast<sockaddr*>(&address), size);
    ::listen(listening, 1);
    ::getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size);
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), size) != 0)
        throw std::runtime_error("cannot connect");
    const int server = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listening);
    const int on = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return {server, client};
}

// Receives frames of a server; every wait has a limit.
class Peer
{
public:
    explicit Peer(int descriptor) : mDescriptor(descriptor) {}
    ~Peer() { close(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool send(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(mDescriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
        return true;
    }

    // The next frame as "81:payload", the first byte in hexadecimal; "end" when the server has
    // closed, "reset", or "nothing" after the limit.
    std::string receive(std::chrono::milliseconds limit = kLimit)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        for (;;) {
            if (auto frame = take(); !frame.empty())
                return frame;
            pollfd readable{mDescriptor, POLLIN, 0};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            if (left.count() < 0 || ::poll(&readable, 1, static_cast<int>(left.count()) + 1) == 0)
                return "nothing";
            char bytes[65536];
            const ssize_t received = ::recv(mDescriptor, bytes, sizeof bytes, 0);
            if (received == 0)
                return "end";
            if (received < 0)
                return "reset";
            mReceived.append(bytes, static_cast<size_t>(received));
        }
    }

    // Drops frames until the end; true when it was no reset.
    bool receiveEnd()
    {
        std::string frame;
        do
            frame = receive();
        while (frame != "end" && frame != "reset" && frame != "nothing");
        return frame == "end";
    }

    void shutDownSending() { ::shutdown(mDescriptor, SHUT_WR); }

    void reset()
    {
        const linger now{1, 0};
        ::setsockopt(mDescriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }

    void close()
    {
        if (mDescriptor != -1)
            ::close(std::exchange(mDescriptor, -1));
    }

    int descriptor() const { return mDescriptor; }

private:
    std::string take()
    {
        const auto byte = [this](size_t i) { return static_cast<unsigned char>(mReceived[i]); };
        if (mReceived.size() < 2)
            return {};
        const size_t code = byte(1);
        const size_t extended = code == 127 ? 8 : code == 126 ? 2 : 0;
        if (mReceived.size() < 2 + extended)
            return {};
        size_t length = extended == 0 ? code : 0;
        for (size_t i = 0; i < extended; ++i)
            length = length << 8 | byte(2 + i);
        if (mReceived.size() < 2 + extended + length)
            return {};
        char first[8];
        std::snprintf(first, sizeof first, "%02x:", byte(0));
        std::string frame = first + mReceived.substr(2 + extended, length);
        mReceived.erase(0, 2 + extended + length);
        return frame;
    }

    int mDescriptor;
    std::string mReceived;
};

// Records the callbacks; waits have a limit.
class Recorder : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>& opened) override
    {
        const Turn turn(*this);
        session = opened;
        add("open");
        if (whenOpen)
            whenOpen(*opened);
    }
    void onText(Session& from, std::string_view text) override
    {
        const Turn turn(*this);
        add("text:" + std::string(text));
        if (whenText)
            whenText(from, text);
    }
    void onBinary(Session& from, BinaryView bytes) override
    {
        const Turn turn(*this);
        add("binary:" + std::string(bytes.asText()));
        if (whenBinary)
            whenBinary(from, bytes);
    }
    void onPong(Session&, BinaryView payload) override
    {
        const Turn turn(*this);
        add("pong:" + std::string(payload.asText()));
    }
    void onDrained(Session& from) override
    {
        const Turn turn(*this);
        add("drained");
        if (whenDrained)
            whenDrained(from);
    }
    void onClose(Session& from, uint16_t code, std::string_view reason, bool clean) override
    {
        const Turn turn(*this);
        if (whenClose)
            whenClose(from);
        add("close:" + std::to_string(code) + ":" + std::string(reason) +
            (clean ? ":clean" : ":lost"));
    }

    std::vector<std::string> events() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }

    // The last event, when there are `count`; waits for them.
    std::string event(size_t count)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        const bool isThere =
            mChanged.wait_for(lock, kLimit, [&] { return mEvents.size() >= count; });
        return isThere ? mEvents[count - 1] : "nothing";
    }

    // The event of onClose; waits for it.
    std::string closed()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        const bool isClosed = mChanged.wait_for(lock, kLimit, [&] {
            return !mEvents.empty() && mEvents.back().rfind("close:", 0) == 0;
        });
        return isClosed ? mEvents.back() : "nothing";
    }

    int overlaps() const { return mOverlaps; }

    std::shared_ptr<Session> session;
    std::function<void(Session&)> whenOpen;
    std::function<void(Session&, std::string_view)> whenText;
    std::function<void(Session&, BinaryView)> whenBinary;
    std::function<void(Session&)> whenDrained;
    std::function<void(Session&)> whenClose;

private:
    // Counts callbacks that run at once.
    struct Turn
    {
        explicit Turn(Recorder& of) : recorder(of)
        {
            if (recorder.mRunning++ != 0)
                ++recorder.mOverlaps;
        }
        ~Turn() { --recorder.mRunning; }
        Recorder& recorder;
    };

    void add(std::string event)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEvents.push_back(std::move(event));
        mChanged.notify_all();
    }

    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<std::string> mEvents;
    std::atomic<int> mRunning{0};
    std::atomic<int> mOverlaps{0};
};

// One session and its client.
struct SessionRun
{
    explicit SessionRun(WebSocketOptions options = {}, Agreement agreement = {},
                        std::string received = {}, int bufferBytes = 0,
                        EngineOptions engineOptions = {1})
        : engine(engineOptions), recorder(std::make_shared<Recorder>())
    {
        mOptions = std::make_shared<WebSocketOptions>(std::move(options));
        mAgreement = std::move(agreement);
        mReceived = std::move(received);
        mBufferBytes = bufferBytes;
    }

    Peer& open()
    {
        const auto [server, client] = tcpPair(mBufferBytes);
        ::fcntl(server, F_SETFL, O_NONBLOCK);
        peer = std::make_unique<Peer>(client);
        session = engine.open(std::make_unique<qv::UpgradedConnection>(
                                  server, mReceived, qv::IpAddress::fromText("192.0.2.7", 99),
                                  std::make_shared<int>(1)),
                              mAgreement, recorder, mOptions);
        return *peer;
    }

    Engine engine;
    std::shared_ptr<Recorder> recorder;
    std::shared_ptr<Session> session;
    std::unique_ptr<Peer> peer;

private:
    std::shared_ptr<const WebSocketOptions> mOptions;
    Agreement mAgreement;
    std::string mReceived;
    int mBufferBytes = 0;
};

inline std::string closeFrame(uint16_t code, const std::string& reason = {})
{
    std::string payload{static_cast<char>(code >> 8), static_cast<char>(code & 0xff)};
    return frame(Opcode::Close, payload + reason);
}

// A close frame of the server, as Peer::receive returns it.
inline std::string closed(uint16_t code, const std::string& reason = {})
{
    return std::string("88:") + static_cast<char>(code >> 8) + static_cast<char>(code & 0xff) +
           reason;
}

inline bool waitUntil(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::poll(nullptr, 0, 1);
    }
    return true;
}

}  // namespace websockettests

#endif

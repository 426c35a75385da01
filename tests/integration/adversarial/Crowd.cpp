// Very many clients on one thread, which do things that no good client does.

#include "Crowd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace adversarial
{

namespace
{

constexpr size_t kReadBytes = 65536;
constexpr size_t kAddresses = 32;
constexpr int kEventsAtOnce = 256;

#ifndef IP_BIND_ADDRESS_NO_PORT
#define IP_BIND_ADDRESS_NO_PORT 24
#endif

sockaddr_in loopback(uint32_t lastByte, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl((uint32_t{127} << 24) + lastByte);
    return address;
}

const sockaddr* raw(const sockaddr_in& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

Crowd::Crowd(uint16_t port) : mPort(port)
{
    raiseDescriptorLimit();
    mPoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (mPoll < 0)
        throw std::runtime_error("no epoll");
}

Crowd::~Crowd()
{
    for (Client& client : mClients)
        closeDescriptor(client);
    ::close(mPoll);
}

Client& Crowd::open(int role, int receiveBuffer)
{
    Client& client = mClients.emplace_back();
    client.number = mClients.size() - 1;
    client.role = role;
    client.opened = client.lastSent = Clock::now();
    ++mCounts[Client::Connecting];
    client.descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (client.descriptor < 0)
        throw std::runtime_error("no socket is left");
    const int on = 1;
    ::setsockopt(client.descriptor, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    if (receiveBuffer > 0)
        ::setsockopt(client.descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer,
                     sizeof receiveBuffer);
    const sockaddr_in from = loopback(2 + static_cast<uint32_t>(mOpened++ % kAddresses), 0);
    const sockaddr_in to = loopback(1, mPort);
    if (::bind(client.descriptor, raw(from), sizeof from) != 0)
        throw std::runtime_error("no source address is left");
    epoll_event event{};
    event.data.ptr = &client;
    event.events = client.watched = EPOLLOUT;
    ::epoll_ctl(mPoll, EPOLL_CTL_ADD, client.descriptor, &event);
    if (::connect(client.descriptor, raw(to), sizeof to) != 0 && errno != EINPROGRESS) {
        client.wasRefused = true;
        ended(client, false);
    }
    return client;
}

void Crowd::send(Client& client, std::string_view bytes)
{
    if (client.state == Client::Ended)
        return;
    client.pending.append(bytes);
    if (client.state == Client::Open && sendPending(client))
        update(client);
}

void Crowd::finishSending(Client& client)
{
    if (client.state == Client::Open)
        ::shutdown(client.descriptor, SHUT_WR);
}

void Crowd::end(Client& client, End how)
{
    if (client.state == Client::Ended)
        return;
    if (how == End::Reset) {
        const linger atOnce{1, 0};
        ::setsockopt(client.descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
    closeDescriptor(client);
    client.ended = Clock::now();
    setState(client, Client::Ended);
}

void Crowd::update(Client& client)
{
    if (client.state == Client::Ended)
        return;
    uint32_t wanted = EPOLLRDHUP;
    if (client.state == Client::Connecting || !client.pending.empty())
        wanted |= EPOLLOUT;
    if (client.received < client.receiveUpTo)
        wanted |= EPOLLIN;
    if (wanted == client.watched)
        return;
    epoll_event event{};
    event.data.ptr = &client;
    event.events = client.watched = wanted;
    ::epoll_ctl(mPoll, EPOLL_CTL_MOD, client.descriptor, &event);
}

bool Crowd::run(const std::function<bool()>& until, milliseconds limit)
{
    constexpr milliseconds kMaxWait(10);
    const auto end = Clock::now() + limit;
    std::array<epoll_event, kEventsAtOnce> events;
    while (!until()) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        if (left.count() <= 0)
            return false;
        const int got = ::epoll_wait(mPoll, events.data(), kEventsAtOnce,
                                     static_cast<int>(std::min(left, kMaxWait).count()));
        for (int i = 0; i < got; ++i)
            serve(*static_cast<Client*>(events[static_cast<size_t>(i)].data.ptr),
                  events[static_cast<size_t>(i)].events);
    }
    return true;
}

void Crowd::runFor(milliseconds time)
{
    run([] { return false; }, time);
}

void Crowd::forgetEnded()
{
    while (!mClients.empty() && mClients.front().state == Client::Ended) {
        mClients.pop_front();
        --mCounts[Client::Ended];
    }
}

void Crowd::setState(Client& client, Client::State state)
{
    --mCounts[client.state];
    client.state = state;
    ++mCounts[state];
}

void Crowd::serve(Client& client, uint32_t events)
{
    if (client.state == Client::Ended)
        return;
    if (client.state == Client::Connecting)
        connected(client);
    if (client.state == Client::Open && (events & EPOLLOUT) && !sendPending(client))
        return;
    if (client.state == Client::Open && (events & (EPOLLIN | EPOLLERR | EPOLLHUP)) &&
        !receive(client))
        return;
    // A client that does not read sees the end all the same.
    if (client.state == Client::Open && (events & EPOLLRDHUP) && !(client.watched & EPOLLIN)) {
        ended(client, (events & EPOLLERR) != 0);
        return;
    }
    update(client);
}

void Crowd::connected(Client& client)
{
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(client.descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        client.wasRefused = true;
        ended(client, false);
        return;
    }
    setState(client, Client::Open);
    if (onChange)
        onChange(client);
}

// False when the connection has ended.
bool Crowd::sendPending(Client& client)
{
    bool moved = false;
    while (!client.pending.empty()) {
        const ssize_t sent =
            ::send(client.descriptor, client.pending.data(), client.pending.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EAGAIN)
            break;
        if (sent < 0) {
            // Bytes that the server sent before it closed may still be read.
            client.pending.clear();
            if (client.received < client.receiveUpTo)
                break;
            ended(client, true);
            return false;
        }
        client.pending.erase(0, static_cast<size_t>(sent));
        client.sent += static_cast<uint64_t>(sent);
        client.lastSent = Clock::now();
        moved = true;
    }
    if (moved && onChange)
        onChange(client);
    return client.state != Client::Ended;
}

// False when the connection has ended.
bool Crowd::receive(Client& client)
{
    std::array<char, kReadBytes> piece;
    const uint64_t capacity = client.receiveUpTo - client.received;
    if (capacity == 0)
        return true;
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(capacity, piece.size()));
    const ssize_t got = ::recv(client.descriptor, piece.data(), wanted, 0);
    if (got < 0 && errno == EAGAIN)
        return true;
    if (got <= 0) {
        ended(client, got < 0);
        return false;
    }
    const auto bytes = static_cast<size_t>(got);
    client.received += bytes;
    client.text.append(piece.data(), std::min(bytes, kKeptBytes - client.text.size()));
    if (onChange)
        onChange(client);
    return client.state != Client::Ended;
}

void Crowd::ended(Client& client, bool byReset)
{
    client.wasReset = byReset;
    closeDescriptor(client);
    client.ended = Clock::now();
    setState(client, Client::Ended);
    if (onChange)
        onChange(client);
}

void Crowd::closeDescriptor(Client& client)
{
    if (client.descriptor >= 0)
        ::close(client.descriptor);
    client.descriptor = -1;
    std::string().swap(client.pending);
}

}  // namespace adversarial

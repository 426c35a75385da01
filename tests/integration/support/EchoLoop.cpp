// An echo server over upgraded connections.

#include "EchoLoop.h"

#include "Waiting.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <utility>

namespace integration
{
namespace
{

// False when the peer has left.
bool sendAll(int descriptor, const char* bytes, size_t size)
{
    while (size != 0) {
        const ssize_t sent = send(descriptor, bytes, size, MSG_NOSIGNAL);
        if (sent > 0) {
            bytes += sent;
            size -= static_cast<size_t>(sent);
        } else if (errno != EAGAIN) {
            return false;
        } else {
            pollfd writable{descriptor, POLLOUT, 0};
            if (poll(&writable, 1, qv::tests::kLimitMs) != 1)
                return false;
        }
    }
    return true;
}

}  // namespace

EchoLoop::EchoLoop()
    : mEpoll(epoll_create1(EPOLL_CLOEXEC)), mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = mWake;
    epoll_ctl(mEpoll, EPOLL_CTL_ADD, mWake, &event);
    mThread = std::thread([this] { run(); });
}

EchoLoop::~EchoLoop()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEnding = true;
    }
    eventfd_write(mWake, 1);
    mThread.join();
    mConnections.clear();
    mAdded.clear();
    close(mWake);
    close(mEpoll);
}

void EchoLoop::add(Connection connection)
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mAdded.push_back(std::move(connection));
    }
    eventfd_write(mWake, 1);
}

size_t EchoLoop::count() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAdded.size() + mConnections.size();
}

void EchoLoop::run()
{
    std::array<epoll_event, 64> events;
    for (;;) {
        const int count = epoll_wait(mEpoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) {
            const int descriptor = events[static_cast<size_t>(i)].data.fd;
            if (descriptor != mWake)
                echo(descriptor);
        }
        takeAdded();
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mEnding)
            return;
    }
}

void EchoLoop::takeAdded()
{
    eventfd_t wakes = 0;
    eventfd_read(mWake, &wakes);
    std::vector<std::pair<int, std::string>> added;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (Connection& connection : mAdded) {
            const int descriptor = connection->getDescriptor();
            added.emplace_back(descriptor, connection->takeReceivedBytes());
            EXPECT_EQ(mConnections.count(descriptor), 0u);
            mConnections[descriptor] = std::move(connection);
        }
        mAdded.clear();
    }
    for (const auto& [descriptor, received] : added) {
        sendAll(descriptor, received.data(), received.size());
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        EXPECT_EQ(epoll_ctl(mEpoll, EPOLL_CTL_ADD, descriptor, &event), 0);
    }
}

void EchoLoop::echo(int descriptor)
{
    std::array<char, 65536> bytes;
    const ssize_t received = recv(descriptor, bytes.data(), bytes.size(), 0);
    if (received < 0 && errno == EAGAIN)
        return;
    if (received > 0 && sendAll(descriptor, bytes.data(), static_cast<size_t>(received)))
        return;
    const std::lock_guard<std::mutex> lock(mMutex);
    mConnections.erase(descriptor);
}

}  // namespace integration

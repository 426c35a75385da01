// A server of event-driven mode whose process has no descriptor left.

#include "support/EventRun.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"

#include <support/Forking.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::onOneThread;
using integration::RawClient;
using integration::RawResponse;
using std::chrono::milliseconds;

constexpr rlim_t kFree = 3;
constexpr size_t kClients = 12;

double processorSeconds()
{
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    constexpr double kMicro = 1e-6;
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           kMicro * static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
}

// In a child: fails with a line on standard error.
void check(bool isTrue, const char* what)
{
    if (isTrue)
        return;
    std::fprintf(stderr, "failed: %s\n", what);
    ::_exit(1);
}

// So many descriptors are left to the process from now on.
void leaveDescriptors(rlim_t count)
{
    const int lowest = ::dup(STDERR_FILENO);
    check(lowest >= 0, "a descriptor");
    ::close(lowest);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(lowest) + count;
    check(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "the limit");
}

void serveWithoutDescriptors()
{
    EventRun run([](EventRequest& request) { request.respondHere(200, "served"); }, onOneThread());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(run.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<int> sockets;
    for (size_t i = 0; i < kClients; ++i)
        sockets.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    leaveDescriptors(kFree);
    for (const int socket : sockets)
        check(::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
              "a connection");
    check(integration::processLog->waitForLine("cannot accept connections: Too many open files"),
          "the line in the log");
    // The listening socket is ready all the time.
    constexpr milliseconds kSilence{1000};
    const double before = processorSeconds();
    std::this_thread::sleep_for(kSilence);
    check(processorSeconds() - before < 0.25, "no busy loop");
    // Each connection that ends makes place for the next one.
    for (const int socket : sockets) {
        RawClient client(RawClient::Connected{socket});
        check(client.send(getRequest("/")), "a request");
        const std::optional<RawResponse> response = client.receive();
        check(response && response->body == "served", "a response");
    }
    check(run.requestCount() == kClients, "the number of requests");
    check(integration::processLog->lines("cannot accept connections: Too many open files").size() ==
              1,
          "one line in the log");
}

TEST(Descriptors, ThatAreUsedUpDelayConnectionsWithoutABusyLoop)
{
    if (!qv::tests::kChildrenAllocate)
        GTEST_SKIP() << "no allocation in a child under AddressSanitizer";
    EXPECT_TRUE(qv::tests::endsInAChild(&serveWithoutDescriptors));
}

}  // namespace

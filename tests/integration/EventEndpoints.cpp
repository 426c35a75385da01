// Endpoints of event-driven mode, and the reasons why a server does not start.

#include "support/EventRun.h"
#include "support/RawClient.h"

#include <support/Forking.h>
#include <support/Ports.h>

#include <Wendrel/Wendrel.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::RawClient;
using integration::waitUntil;
using qv::http::HttpServer;
using qv::http::ServerOptions;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::StartsWith;

void respondAtOnce(EventRequest& request)
{
    request.respondHere(200, request.getClientAddress().toString());
}

ServerOptions listeningOn(std::vector<std::string> endpoints)
{
    ServerOptions options;
    options.threads = 1;
    options.listen = std::move(endpoints);
    return options;
}

RawClient::Connected connectUnix(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return {descriptor};
    ::close(descriptor);
    return {-1};
}

RawClient::Connected connectV6(uint16_t port)
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = in6addr_loopback;
    const int descriptor = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return {descriptor};
    ::close(descriptor);
    return {-1};
}

// The client address that the server has seen; a description of the failure otherwise.
std::string seenBy(RawClient& client)
{
    client.send(getRequest("/"));
    const auto response = client.receive();
    return response && response->status == 200 ? response->body : "no response";
}

class Endpoints : public testing::Test
{
protected:
    Endpoints() : mDirectory(makeDirectory()) {}

    ~Endpoints() override { std::filesystem::remove_all(mDirectory); }

    std::string path(const std::string& name = "app.sock") const { return mDirectory + "/" + name; }

    static std::string makeDirectory()
    {
        std::string name = std::filesystem::temp_directory_path() / "wendrel.XXXXXX";
        if (!::mkdtemp(name.data()))
            throw std::runtime_error("mkdtemp");
        return name;
    }

    // Why the server does not start.
    static std::string failureOf(std::vector<std::string> endpoints)
    {
        try {
            const EventRun run(&respondAtOnce, listeningOn(std::move(endpoints)));
            return "it has started";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }

private:
    const std::string mDirectory;
};

TEST_F(Endpoints, OfIpv6IsServed)
{
    EventRun run(&respondAtOnce, listeningOn({"[::1]:0"}));
    EXPECT_THAT(run.server().getEndpoints(), ElementsAre(StartsWith("[::1]:")));
    RawClient client(connectV6(run.port()));
    EXPECT_EQ(seenBy(client), "::1");
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", run.port()));
}

TEST_F(Endpoints, OfANameAreAllItsAddresses)
{
    const uint16_t port = qv::tests::findFreePort();
    EventRun run(&respondAtOnce, listeningOn({"localhost:" + std::to_string(port)}));
    RawClient client(port);
    EXPECT_EQ(seenBy(client), "127.0.0.1");
}

TEST_F(Endpoints, CanBeSeveral)
{
    EventRun run(&respondAtOnce, listeningOn({"127.0.0.1:0", "unix:" + path(), "127.0.0.2:0"}));
    ASSERT_EQ(run.server().getEndpoints().size(), 3u);
    EXPECT_EQ(run.server().getEndpoints()[0], "127.0.0.1:" + std::to_string(run.portOf(0)));
    EXPECT_EQ(run.server().getEndpoints()[1], "unix:" + path());
    EXPECT_EQ(run.server().getEndpoints()[2], "127.0.0.2:" + std::to_string(run.portOf(2)));
    RawClient tcp(run.portOf(0));
    RawClient local(connectUnix(path()));
    EXPECT_EQ(seenBy(tcp), "127.0.0.1");
    EXPECT_EQ(seenBy(local), "");
    EXPECT_TRUE(RawClient::accepts("127.0.0.2", run.portOf(2)));
}

// In a network of its own: outside of it nothing but the loopback is listened on.
TEST_F(Endpoints, OfEveryAddressServeBothFamilies)
{
    constexpr int kNotPossible = 77;
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            ::_exit(kNotPossible);
        ifreq loopback{};
        std::strcpy(loopback.ifr_name, "lo");
        loopback.ifr_flags = IFF_UP | IFF_RUNNING;
        const int any = ::socket(AF_INET, SOCK_DGRAM, 0);
        if (::ioctl(any, SIOCSIFFLAGS, &loopback) != 0)
            ::_exit(kNotPossible);
        bool isRight = false;
        {
            EventRun run(&respondAtOnce, listeningOn({"*:0"}));
            RawClient v4(run.port());
            RawClient v6(connectV6(run.port()));
            isRight = seenBy(v4) == "127.0.0.1" && seenBy(v6) == "::1" &&
                      run.server().getEndpoints().front() == "[::]:" + std::to_string(run.port());
        }
        ::_exit(isRight ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == kNotPossible)
        GTEST_SKIP() << "no network of its own";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Endpoints, OfUnixHaveTheirModeAndLeaveNoFile)
{
    const struct
    {
        const char* option;
        mode_t mode;
    } rows[] = {{"", 0600}, {",mode=660", 0660}, {",mode=0666", 0666}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.option);
        {
            EventRun run(&respondAtOnce, listeningOn({"unix:" + path() + row.option}));
            EXPECT_THAT(run.server().getEndpoints(), ElementsAre("unix:" + path()));
            struct stat found
            {};
            ASSERT_EQ(::stat(path().c_str(), &found), 0);
            EXPECT_EQ(found.st_mode & 0777u, row.mode);
            RawClient client(connectUnix(path()));
            EXPECT_EQ(seenBy(client), "");
        }
        EXPECT_FALSE(std::filesystem::exists(path()));
    }
}

TEST_F(Endpoints, OfUnixReplaceTheFileOfAServerThatHasEnded)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    const int old = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(old, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(old);
    ASSERT_TRUE(std::filesystem::exists(path()));
    EventRun run(&respondAtOnce, listeningOn({"unix:" + path()}));
    RawClient client(connectUnix(path()));
    EXPECT_EQ(seenBy(client), "");
}

TEST_F(Endpoints, OfUnixLeaveTheFileOfASuccessor)
{
    {
        EventRun run(&respondAtOnce, listeningOn({"unix:" + path()}));
        std::filesystem::remove(path());
        std::ofstream(path()) << "another's";
    }
    EXPECT_TRUE(std::filesystem::exists(path()));
}

TEST_F(Endpoints, ThatCannotBeOpenedAreNamedWithTheReason)
{
    const qv::tests::TakenPort taken;
    const std::string inUse = "127.0.0.1:" + std::to_string(taken.port());
    EXPECT_EQ(failureOf({inUse}), "cannot listen on " + inUse + ": address already in use");

    EventRun other(&respondAtOnce, listeningOn({"unix:" + path("live")}));
    EXPECT_EQ(failureOf({"unix:" + path("live")}),
              "cannot listen on unix:" + path("live") + ": address already in use");
    RawClient client(connectUnix(path("live")));
    EXPECT_EQ(seenBy(client), "");

    std::ofstream(path("file")) << "a file";
    EXPECT_EQ(failureOf({"unix:" + path("file")}),
              "cannot listen on unix:" + path("file") + ": the path exists and is no socket");
    EXPECT_TRUE(std::filesystem::exists(path("file")));

    EXPECT_EQ(failureOf({"unix:" + path("none/app.sock")}),
              "cannot listen on unix:" + path("none/app.sock") + ": no such file or directory");
    EXPECT_EQ(failureOf({"host.invalid:0"}),
              "cannot listen on host.invalid:0: the host has no address");
    EXPECT_EQ(failureOf({"fd:1000000"}), "cannot listen on fd:1000000: bad file descriptor");
    EXPECT_EQ(failureOf({"nowhere"}),
              "ServerOptions::listen: \"nowhere\": no port; use host:port, [IPv6 address]:port, "
              "*:port, unix:/path, fd:N, systemd or systemd:NAME");
    EXPECT_EQ(failureOf({"systemd"}), "cannot listen on systemd: no sockets were passed to this "
                                      "process (LISTEN_PID, LISTEN_FDS)");

    const int file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(failureOf({"fd:" + std::to_string(file)}),
              "cannot listen on fd:" + std::to_string(file) + ": socket operation on non-socket");
    ::close(file);
    const int unbound = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(failureOf({"fd:" + std::to_string(unbound)}),
              "cannot listen on fd:" + std::to_string(unbound) +
                  ": the descriptor is no listening stream socket");
    ::close(unbound);
}

TEST_F(Endpoints, OpenNothingWhenOneFails)
{
    const uint16_t port = qv::tests::findFreePort();
    const std::string first = "127.0.0.1:" + std::to_string(port);
    EXPECT_NE(failureOf({first, "unix:" + path(), "fd:1000000"}), "it has started");
    EXPECT_FALSE(std::filesystem::exists(path()));
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", port));
}

class ListeningSocket
{
public:
    ListeningSocket() : mDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const plain = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(mDescriptor, plain, size), 0);
        EXPECT_EQ(::listen(mDescriptor, 100), 0);
        EXPECT_EQ(::getsockname(mDescriptor, plain, &size), 0);
        mPort = ntohs(address.sin_port);
    }
    ~ListeningSocket() { ::close(mDescriptor); }
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    std::string endpoint() const { return "fd:" + std::to_string(mDescriptor); }
    uint16_t port() const { return mPort; }

private:
    const int mDescriptor;
    uint16_t mPort = 0;
};

// A client that connects between two servers of the same socket is served by the second.
TEST_F(Endpoints, OfAnInheritedSocketKeepItsQueue)
{
    const ListeningSocket inherited;
    {
        EventRun run(&respondAtOnce, listeningOn({inherited.endpoint()}));
        EXPECT_THAT(run.server().getEndpoints(),
                    ElementsAre("127.0.0.1:" + std::to_string(inherited.port())));
        RawClient client(inherited.port());
        EXPECT_EQ(seenBy(client), "127.0.0.1");
        EXPECT_TRUE(run.server().shutDown(std::chrono::minutes(1)));
    }
    RawClient between(inherited.port());
    ASSERT_TRUE(between.send(getRequest("/")));
    EventRun next(&respondAtOnce, listeningOn({inherited.endpoint()}));
    const auto response = between.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
}

// Calls of serve that fail leave the server as it was.
class Serve : public testing::Test
{
protected:
    Serve() : application(new Application), server(application) {}

    class Application : public qv::http::HttpServerImpl
    {
    public:
        qv::HttpBaseRequest* createRequest() override { return nullptr; }
        void handleRequest(qv::HttpBaseRequest*) override {}
        void onNewWebSocket(qv::http::WebSocket*) override {}
        void onServerStopped() override { ++stops; }
        void onRequestCompleted() override {}
        std::atomic<int> stops{0};
    };

    Application* application;  // owned by the server
    HttpServer server;
};

TEST_F(Serve, FailsWithoutTheLibrary)
{
    EXPECT_FALSE(server.serve(listeningOn({"127.0.0.1:0"})));
    EXPECT_EQ(server.getFailureReason(),
              "Wendrel is not initialized; call initializeWendrel first");
    EXPECT_EQ(server.getState(), HttpServer::Stopped);
    EXPECT_FALSE(server.waitUntilRunning(milliseconds(0)));
}

TEST_F(Serve, FailsWithoutAnyEffectAndSucceedsLater)
{
    qv::initializeWendrel();
    ServerOptions options = listeningOn({"127.0.0.1:0"});
    options.threads = 0;
    EXPECT_FALSE(server.serve(options));
    EXPECT_EQ(server.getFailureReason(), "ServerOptions::threads: 0 is not between 1 and 1024");
    EXPECT_EQ(server.getState(), HttpServer::Stopped);
    EXPECT_THAT(server.getEndpoints(), ElementsAre());

    for (int round = 0; round < 2; ++round) {
        options.threads = 2;
        EXPECT_TRUE(server.serve(options));
        EXPECT_EQ(server.getFailureReason(), "");
        EXPECT_EQ(server.getState(), HttpServer::Running);
        EXPECT_TRUE(server.waitUntilRunning(milliseconds(0)));
        const auto endpoints = server.getEndpoints();

        EXPECT_FALSE(server.serve(options));
        EXPECT_EQ(server.getFailureReason(), "the server is not stopped");
        EXPECT_EQ(server.getState(), HttpServer::Running);
        EXPECT_EQ(server.getEndpoints(), endpoints);

        EXPECT_TRUE(server.shutDown(std::chrono::minutes(1)));
        EXPECT_EQ(server.getState(), HttpServer::Stopped);
        EXPECT_EQ(application->stops, round + 1);
    }
    qv::terminateWendrel();
}

// A program that was built with fewer options: the rest have their defaults.
TEST_F(Serve, ReadsNoMoreOfTheOptionsThanTheCallerKnows)
{
    qv::initializeWendrel();
    ServerOptions options = listeningOn({"127.0.0.1:0"});
    options.maxConnections = 0;  // impossible, and not read
    EXPECT_TRUE(server.serve(options, offsetof(ServerOptions, maxConnections)));
    EXPECT_EQ(server.getFailureReason(), "");
    EXPECT_TRUE(server.shutDown(std::chrono::minutes(1)));
    qv::terminateWendrel();
}

}  // namespace

// The turns of a server's threads, which a watchdog counts.

#include "support/KitTestServer.h"

#include <Wendrel/kit/ServiceManager.h>
#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace integration
{
namespace
{

using qv::kit::Request;

class KitTurns : public ::testing::Test
{
public:
    ~KitTurns() override { mLatch.open(); }

protected:
    uint64_t turns() { return mServer.server().countTurns(); }

    bool passes(uint64_t count)
    {
        return waitUntil([&] { return turns() >= count; });
    }

    // A handler keeps its thread until the latch is open: no round is complete meanwhile, but one
    // that was nearly so.
    void expectNoTurnsWhileHandling(const char* target)
    {
        RawClient client(mServer.port());
        client.send(getRequest(target));
        ASSERT_TRUE(mLatch.waitForArrivals(1));
        const uint64_t before = turns();
        EXPECT_FALSE(waitUntil([&] { return turns() > before + 1; }, kWatched));
        mLatch.open();
        EXPECT_TRUE(passes(before + 3));
        EXPECT_EQ(client.receive().value_or(RawResponse()).status, 200);
    }

    static constexpr std::chrono::milliseconds kWatched{300};
    Latch mLatch;
    KitTestServer mServer{[this](qv::kit::Router& router) {
                              const auto wait = [this](Request& request) {
                                  EXPECT_TRUE(mLatch.wait());
                                  request.reply("done");
                              };
                              router.get("/daemon", wait).nonBlocking();
                              router.get("/worker", wait);
                          },
                          kitOptions(1)};
};

TEST_F(KitTurns, GrowWithEachCallOfAnIdleServer)
{
    EXPECT_TRUE(passes(5));
    EXPECT_EQ(mServer.get("/nowhere").status, 404);
}

TEST_F(KitTurns, StandStillWhileADaemonThreadHangs)
{
    expectNoTurnsWhileHandling("/daemon");
}

TEST_F(KitTurns, StandStillWhileEachWorkerIsOccupied)
{
    expectNoTurnsWhileHandling("/worker");
}

TEST_F(KitTurns, GoOnAfterAnotherStart)
{
    EXPECT_TRUE(passes(2));
    EXPECT_TRUE(mServer.stop());
    const uint64_t before = turns();
    EXPECT_FALSE(waitUntil([&] { return turns() > before + 1; }, kWatched));
    ASSERT_TRUE(mServer.server().start());
    EXPECT_TRUE(passes(before + 3));
}

// The socket of a service manager with a watchdog that is to hear from the process every 40 ms. The
// environment is as before when it is destroyed.
class ManagerSocket
{
protected:
    ManagerSocket() : mDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const std::string path = mDirectory / "notify";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(mDescriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("no socket " + path);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        setenv("WATCHDOG_USEC", "40000", 1);
        unsetenv("WATCHDOG_PID");
    }

    ~ManagerSocket()
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        close(mDescriptor);
    }

    ManagerSocket(const ManagerSocket&) = delete;
    ManagerSocket& operator=(const ManagerSocket&) = delete;

    // Reads all messages that have come. Returns how many of them are the watchdog's.
    int takeMessages() const
    {
        char text[4096];
        int count = 0;
        for (;;) {
            const ssize_t bytes = recv(mDescriptor, text, sizeof text, MSG_DONTWAIT);
            if (bytes < 0)
                return count;
            count += std::string_view(text, static_cast<size_t>(bytes)) == "WATCHDOG=1" ? 1 : 0;
        }
    }

    // More of the watchdog's messages come than `count`.
    template <typename... Limit> bool comeMoreThan(int count, Limit... limit) const
    {
        int seen = 0;
        return waitUntil([&] { return (seen += takeMessages()) > count; }, limit...);
    }

private:
    const qv::tests::TemporaryDirectory mDirectory;
    const int mDescriptor;
};

// The environment is changed before the server has threads.
class KitWatchdog : protected ManagerSocket, public KitTurns
{};

TEST_F(KitWatchdog, IsSilentWhileEachWorkerIsOccupied)
{
    qv::kit::ServiceManager manager(mServer.server());
    manager.ready();
    EXPECT_TRUE(comeMoreThan(2));
    RawClient client(mServer.port());
    client.send(getRequest("/worker"));
    ASSERT_TRUE(mLatch.waitForArrivals(1));
    takeMessages();
    // That of a round that was nearly complete may come, and the one before it.
    EXPECT_FALSE(comeMoreThan(2, kWatched));
    mLatch.open();
    EXPECT_TRUE(comeMoreThan(2));
    EXPECT_EQ(client.receive().value_or(RawResponse()).status, 200);
}

}  // namespace
}  // namespace integration

// The listener with fake sinks in place of daemons: the places of connections, the nudges of a
// sink, the descriptors of refused connections.

#include "listener/Listener.h"

#include "support/FakeTime.h"

#include <gmock/gmock.h>
#include <support/Waiting.h>

#include <qvSystem/qvThread.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

using qv::impl::ConnectionSink;
using qv::impl::ConnectionTable;
using qv::impl::Listener;
using qv::impl::ListeningSocket;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr int kNoDescriptor = 1000000;  // of records without a connection

class FakeSink : public ConnectionSink
{
public:
    ~FakeSink() override
    {
        for (const int descriptor : mDescriptors)
            ::close(descriptor);
    }

    ConnectionTable& getTable() override { return mTable; }

    bool serve(int descriptor, const sockaddr*, size_t) override
    {
        if (failing) {
            ::close(descriptor);
            return false;
        }
        mDescriptors.push_back(descriptor);
        ++served;
        return true;
    }

    void nudge() override { ++nudges; }
    void stopNudging() override { ++stops; }

    void askForTurn(uint64_t number) override
    {
        if (!hanging)
            turn = number;
    }
    uint64_t getTurn() const override { return turn; }

    // Records without a connection. Before the listener runs.
    void add(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            ConnectionTable::Pointer abandoned;
            const int descriptor = kNoDescriptor + static_cast<int>(mTable.getCount());
            mRecords.push_back(mTable.add(descriptor, {}, 0, abandoned));
        }
    }

    // As a daemon does that closes a connection.
    void remove()
    {
        const int descriptor = mRecords.back()->close();
        EXPECT_TRUE(mTable.remove(descriptor, *mRecords.back()));
        mRecords.pop_back();
    }

    std::atomic<bool> failing{false};
    std::atomic<size_t> served{0};
    std::atomic<size_t> nudges{0};
    std::atomic<size_t> stops{0};
    std::atomic<bool> hanging{false};
    std::atomic<uint64_t> turn{0};

private:
    ConnectionTable mTable{{}, 0};
    std::vector<ConnectionTable::Pointer> mRecords;
    std::vector<int> mDescriptors;  // listener thread, while there is one
};

// A connection to the listener.
class Client
{
public:
    explicit Client(uint16_t port) : mDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const timeval limit{kLimit.count(), 0};
        ::setsockopt(mDescriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(mDescriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { ::close(mDescriptor); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // The bytes up to the end; empty also at the limit.
    std::string receiveToEnd()
    {
        std::string all;
        char bytes[512];
        for (ssize_t got = 0; (got = ::recv(mDescriptor, bytes, sizeof bytes, 0)) > 0;)
            all.append(bytes, static_cast<size_t>(got));
        return all;
    }

private:
    int mDescriptor;
};

// A listener thread with its sinks. The clock stands still.
class ListenerRun
{
public:
    // `prepare` fills the tables before the listener looks at them.
    template <typename Prepare>
    ListenerRun(size_t maxConnections, size_t sinks, const Prepare& prepare)
    {
        for (size_t i = 0; i < sinks; ++i)
            mSinks.push_back(std::make_unique<FakeSink>());
        prepare(*this);
        Listener::Limits limits;
        limits.maxConnections = maxConnections;
        std::vector<ListeningSocket> sockets;
        std::string error;
        for (uint16_t& port : mPorts) {
            EXPECT_EQ(OpenEndpoint(qv::impl::ParseEndpoint("127.0.0.1:0", error), sockets), "");
            const std::string name = sockets.back().getName();
            port = static_cast<uint16_t>(std::stoi(name.substr(name.rfind(':') + 1)));
        }
        std::vector<ConnectionSink*> plain;
        for (const auto& sink : mSinks)
            plain.push_back(sink.get());
        mListener = std::make_unique<Listener>(limits, std::move(sockets), std::move(plain));
        mThread = std::thread([this] { mListener->run(); });
    }

    ListenerRun(size_t maxConnections, size_t sinks)
        : ListenerRun(maxConnections, sinks, [](ListenerRun&) {})
    {}

    ~ListenerRun()
    {
        mListener->stop(0);
        mThread.join();
    }

    FakeSink& sink(size_t index = 0) { return *mSinks[index]; }
    Listener& listener() { return *mListener; }
    uint16_t port() const { return mPorts[0]; }

    FakeTime& time() { return mTime; }

    // The time passes, and the listener has done all that is due then. Needs a listener that
    // refuses every connection. In one turn of its loop it accepts from the sockets that were ready
    // at the beginning: the second client is refused in a turn that begins after the time has
    // passed, and the third one in a later turn.
    void pass(int64_t ms)
    {
        mTime.advanceMs(ms);
        for (const size_t socket : {0, 1, 0})
            EXPECT_EQ(Client(mPorts[socket]).receiveToEnd().rfind("HTTP/1.1 503 ", 0), 0u);
    }

    // Connects, and waits until a sink has the connection. Returns the number of the sink.
    size_t placeOne()
    {
        std::vector<size_t> before;
        for (const auto& sink : mSinks)
            before.push_back(sink->served);
        mClients.push_back(std::make_unique<Client>(port()));
        size_t found = mSinks.size();
        EXPECT_TRUE(waitUntil([&] {
            for (size_t i = 0; i < mSinks.size(); ++i) {
                if (mSinks[i]->served != before[i])
                    found = i;
            }
            return found != mSinks.size();
        }));
        return found;
    }

private:
    FakeTime mTime;
    std::vector<std::unique_ptr<FakeSink>> mSinks;
    std::vector<std::unique_ptr<Client>> mClients;
    std::array<uint16_t, 2> mPorts{};
    std::unique_ptr<Listener> mListener;
    std::thread mThread;
};

// Turns.

TEST(ListenerTurns, RoundIsCompleteWhenTheThreadAndEachSinkHaveTurned)
{
    ListenerRun run(1, 2);
    EXPECT_EQ(run.listener().countTurns(), 0u);
    EXPECT_TRUE(waitUntil([&] { return run.listener().countTurns() >= 3; }));
    EXPECT_GE(run.sink(0).turn, 3u);
    EXPECT_GE(run.sink(1).turn, 3u);
}

TEST(ListenerTurns, NoRoundIsCompleteWhileOneSinkHangs)
{
    ListenerRun run(1, 2);
    run.sink(1).hanging = true;
    EXPECT_EQ(run.listener().countTurns(), 0u);
    EXPECT_TRUE(waitUntil([&] { return run.sink(0).turn == 1; }));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(run.listener().countTurns(), 0u);
    EXPECT_EQ(run.sink(0).turn, 1u);
    run.sink(1).turn = 1;
    run.sink(1).hanging = false;
    EXPECT_TRUE(waitUntil([&] { return run.listener().countTurns() >= 2; }));
}

TEST(ListenerTurns, NoRoundIsCompleteWhileTheThreadDoesNotRun)
{
    FakeSink sink;
    Listener::Limits limits;
    Listener listener(limits, {}, {&sink});
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(listener.countTurns(), 0u);
    EXPECT_EQ(sink.turn, 0u);
}

size_t countDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// Nudges.

TEST(ListenerNudges, ComeInTheIntervalOfTheConnectionsThatCanHaveAnEvent)
{
    constexpr int64_t kNever = 0;
    const struct
    {
        const char* name;
        size_t connections;
        size_t suspended;
        bool isActive;
        int64_t intervalMs;
    } rows[] = {
        {"one fewer than are nudged", 125, 0, true, kNever},
        {"as many as are nudged", 126, 0, true, 10},
        {"a full batch with the nudge", 127, 0, true, 1},
        {"a full batch", 128, 0, true, 1},
        {"one more", 129, 0, true, 10},
        {"two full batches with the nudge", 255, 0, true, 1},
        {"two full batches", 256, 0, true, 1},
        {"one more than two", 257, 0, true, 10},
        {"without requests", 126, 0, false, 64},
        {"a full batch without requests", 128, 0, false, 64},
        {"a full batch with the nudge, without requests", 127, 0, false, 64},
        {"suspended down to the least", 127, 1, true, 10},
        {"suspended below the least", 127, 2, true, kNever},
        {"suspended down to a full batch", 130, 2, true, 1},
        {"suspended beyond a full batch", 128, 2, true, 10},
        {"all suspended", 128, 128, true, kNever},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ListenerRun run(0, 1, [&](ListenerRun& made) {
            made.sink().add(row.connections);
            for (size_t i = 0; i < row.suspended; ++i)
                made.sink().getTable().countSuspended();
            if (row.isActive)
                made.sink().getTable().countRequest();
        });
        FakeSink& sink = run.sink();
        run.pass(0);
        if (row.intervalMs == kNever) {
            const size_t stops = sink.stops;
            run.pass(10);
            EXPECT_EQ(sink.nudges, 0u);
            EXPECT_EQ(sink.stops, stops + 1);
            continue;
        }
        // The request is seen at the nudge, and decides on the time of the next one.
        EXPECT_EQ(sink.nudges, 1u);
        run.pass(row.intervalMs - 1);
        EXPECT_EQ(sink.nudges, 1u);
        if (row.isActive)
            sink.getTable().countEnd();
        run.pass(1);
        EXPECT_EQ(sink.nudges, 2u);
        // No request since.
        run.pass(63);
        EXPECT_EQ(sink.nudges, 2u);
        run.pass(1);
        EXPECT_EQ(sink.nudges, 3u);
        EXPECT_EQ(sink.stops, 0u);
    }
}

TEST(ListenerNudges, ComeSoonAfterTheFirstEventOfARest)
{
    for (const bool isRequest : {true, false}) {
        SCOPED_TRACE(isRequest);
        ListenerRun run(0, 1, [](ListenerRun& made) {
            made.sink().add(130);
            made.sink().getTable().countSuspended();
        });
        FakeSink& sink = run.sink();
        const auto passEvent = [&] {
            if (isRequest)
                sink.getTable().countRequest();
            else
                sink.getTable().countResumed();
        };
        run.pass(0);
        const size_t known = sink.nudges;
        run.pass(20);
        EXPECT_EQ(sink.nudges, known);
        EXPECT_TRUE(sink.getTable().isResting());
        passEvent();
        EXPECT_FALSE(sink.getTable().isResting());
        // The event has woken the listener.
        run.pass(0);
        EXPECT_EQ(sink.nudges, known);
        run.pass(10);
        EXPECT_EQ(sink.nudges, known + 1);
    }
}

// The events that wait in all descriptors of the process for events.
size_t waitingEvents()
{
    size_t sum = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
        std::ifstream file(entry.path());
        for (std::string word; file >> word;) {
            if (word == "eventfd-count:" && file >> word)
                sum += std::stoul(word, nullptr, 16);
        }
    }
    return sum;
}

TEST(ConnectionTableRest, EndsWithAnEventForTheListener)
{
    FakeSink sink;
    const Listener listener(Listener::Limits(), {}, {&sink});
    const size_t before = waitingEvents();
    sink.getTable().setResting(true);
    sink.getTable().countResumed();
    EXPECT_EQ(waitingEvents(), before + 1);
}

TEST(ConnectionTableRest, IsEndedByOneEvent)
{
    qv::impl::ConnectionTable table(qv::impl::ConnectionLimits(), 0);
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ASSERT_GE(wake, 0);
    table.setWake(wake);
    eventfd_t events = 0;
    table.countRequest();
    EXPECT_NE(eventfd_read(wake, &events), 0);
    table.setResting(true);
    table.countRequest();
    table.countRequest();
    EXPECT_EQ(eventfd_read(wake, &events), 0);
    EXPECT_EQ(events, 1u);
    close(wake);
}

TEST(ListenerNudges, ComeMoreOftenWhileARequestIsInProgress)
{
    ListenerRun run(0, 1, [](ListenerRun& made) {
        made.sink().add(130);
        made.sink().getTable().countRequest();
    });
    const auto passUntilNudged = [&run] {
        const size_t known = run.sink().nudges;
        int64_t passed = 0;
        for (; run.sink().nudges == known && passed < 100; ++passed)
            run.pass(1);
        return passed;
    };
    run.pass(0);
    EXPECT_EQ(passUntilNudged(), 10);
    EXPECT_EQ(passUntilNudged(), 10);
    // It waits for the application.
    run.sink().getTable().countSuspended();
    EXPECT_EQ(passUntilNudged(), 10);
    EXPECT_EQ(passUntilNudged(), 64);
    run.sink().getTable().countResumed();
    run.pass(0);  // woken by it
    EXPECT_EQ(passUntilNudged(), 10);
    EXPECT_EQ(passUntilNudged(), 10);
    run.sink().getTable().countEnd();
    EXPECT_EQ(passUntilNudged(), 10);
    EXPECT_EQ(passUntilNudged(), 64);
}

TEST(ListenerNudges, StopWithTheConnections)
{
    ListenerRun run(0, 2, [](ListenerRun& made) {
        made.sink(0).add(126);
        made.sink(1).add(126);
    });
    run.pass(0);
    EXPECT_EQ(run.sink(0).stops, 0u);
    run.sink(0).remove();
    const size_t nudges[] = {run.sink(0).nudges, run.sink(1).nudges};
    run.pass(64);
    EXPECT_EQ(run.sink(0).nudges, nudges[0]);
    EXPECT_EQ(run.sink(0).stops, 1u);
    EXPECT_EQ(run.sink(1).nudges, nudges[1] + 1);
    EXPECT_EQ(run.sink(1).stops, 0u);
}

// Without any other event: the listener wakes for them.
TEST(ListenerNudges, ComeByThemselves)
{
    ListenerRun run(0, 1, [](ListenerRun& made) { made.sink().add(126); });
    for (size_t i = 0; i < 5; ++i) {
        const size_t known = run.sink().nudges;
        run.time().advanceMs(64);
        EXPECT_TRUE(waitUntil([&] { return run.sink().nudges > known; }));
    }
}

// Places.

TEST(ListenerPlaces, AreOnTheLeastLoadedSink)
{
    ListenerRun run(100, 3, [](ListenerRun& made) {
        made.sink(0).add(2);
        made.sink(2).add(1);
    });
    std::vector<size_t> chosen;
    for (int i = 0; i < 6; ++i)
        chosen.push_back(run.placeOne());
    EXPECT_THAT(chosen, ElementsAre(1, 1, 2, 0, 1, 2));
    run.sink(2).remove();
    EXPECT_EQ(run.placeOne(), 2u);
}

TEST(ListenerPlaces, MakeNoFullBatchWhileAnotherSinkCanTakeTheConnection)
{
    const struct
    {
        const char* name;
        std::vector<size_t> counts;
        std::vector<size_t> chosen;
    } rows[] = {
        {"one sink", {127}, {0, 0}},
        {"the other has more", {127, 130}, {1, 1}},
        {"the other has many more", {127, 5000}, {1, 1}},
        {"both would have a batch", {127, 127}, {0, 0}},
        {"the other would have two batches", {127, 255}, {0, 0}},
        {"one below", {126, 130}, {0, 1}},
        {"one batch already", {128, 130}, {0, 0}},
        {"two batches", {255, 300}, {1, 1}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ListenerRun run(100, row.counts.size(), [&](ListenerRun& made) {
            for (size_t i = 0; i < row.counts.size(); ++i)
                made.sink(i).add(row.counts[i]);
        });
        for (const size_t chosen : row.chosen)
            EXPECT_EQ(run.placeOne(), chosen);
    }
}

TEST(ListenerPlaces, AreFreeAgainWhenTheSinkFails)
{
    ListenerRun run(1, 1);
    run.sink().failing = true;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Client(run.port()).receiveToEnd(), "");  // closed, not refused
        EXPECT_TRUE(waitUntil([&] { return run.sink().getTable().getCount() == 0; }));
    }
    run.sink().failing = false;
    EXPECT_EQ(run.placeOne(), 0u);
    EXPECT_EQ(run.sink().getTable().getCount(), 1u);
    EXPECT_EQ(Client(run.port()).receiveToEnd().rfind("HTTP/1.1 503 ", 0), 0u);
}

// Refused connections.

TEST(ListenerRefusals, HoldALimitedNumberOfDescriptors)
{
    ListenerRun run(0, 1);
    const size_t before = countDescriptors();
    std::vector<std::unique_ptr<Client>> clients;
    const auto refuse = [&](size_t count) {
        for (size_t i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<Client>(run.port()));
            EXPECT_NE(clients.back()->receiveToEnd(), "");
        }
    };
    const auto held = [&] { return countDescriptors() - before - clients.size(); };
    refuse(Listener::kMaxRefused);
    EXPECT_EQ(held(), Listener::kMaxRefused);
    refuse(1);
    // Closed after the response to the surplus has been sent.
    EXPECT_TRUE(waitUntil([&] { return held() == Listener::kMaxRefused; }));
    refuse(Listener::kMaxRefused);
    EXPECT_TRUE(waitUntil([&] { return held() == Listener::kMaxRefused; }));
}

TEST(ListenerRefusals, AreOverAfterTheirTime)
{
    constexpr size_t kRefused = 10;
    ListenerRun run(0, 1);
    const size_t before = countDescriptors();
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t i = 0; i < kRefused; ++i) {
        clients.push_back(std::make_unique<Client>(run.port()));
        EXPECT_NE(clients.back()->receiveToEnd(), "");
    }
    // Both ends; the listener may hold its end of the last clients of `pass` as well.
    run.pass(1999);
    EXPECT_GE(countDescriptors(), before + 2 * kRefused);
    run.pass(1);
    EXPECT_LE(countDescriptors(), before + kRefused + 2);
}

// A peer whose bytes have not been read finds the connection reset, and may lose the response.
TEST(ListenerDrain, ReadsOnUntilTheClientsOfTheLastResponsesHaveClosed)
{
    const FakeTime time;
    std::array<int, 2> pair{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    {
        Listener listener({}, {}, {});
        ASSERT_EQ(::send(pair[1], "unread", 6, MSG_NOSIGNAL), 6);
        ASSERT_EQ(::shutdown(pair[1], SHUT_WR), 0);
        listener.keepUntilSeen(pair[0]);
        listener.stop(600000);
        listener.drain();
    }
    char byte = 0;
    EXPECT_EQ(::recv(pair[1], &byte, 1, MSG_DONTWAIT), 0);
    ::close(pair[1]);
}

}  // namespace
}  // namespace qv::tests

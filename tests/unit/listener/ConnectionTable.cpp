// The connections of a daemon: found by descriptor, reported when their deadline has passed.

#include "listener/ConnectionTable.h"

#include <qvSystem/IpAddress.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <unordered_map>
#include <vector>

namespace
{

using qv::IpAddress;
using qv::impl::Connection;
using qv::impl::ConnectionLimits;
using qv::impl::ConnectionTable;
using qv::impl::DeadlineWheel;
using qv::impl::kNoDeadline;
using qv::impl::Peer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Pointer = ConnectionTable::Pointer;

constexpr int64_t kStartMs = 1000 * DeadlineWheel::kSlotMs;
constexpr int64_t kSlotMs = DeadlineWheel::kSlotMs;
constexpr int64_t kReachMs = 1024 * kSlotMs;
constexpr int64_t kRepeatMs = 1000;

ConnectionLimits withHeadLimit(int64_t headMs)
{
    ConnectionLimits limits;
    limits.headMs = headMs;
    return limits;
}

const Peer kPeer{IpAddress::fromText("127.0.0.1", 80), IpAddress::fromText("127.0.0.1", 0)};

Pointer add(ConnectionTable& table, int descriptor, int64_t nowMs = kStartMs)
{
    Pointer abandoned;
    Pointer added = table.add(descriptor, kPeer, nowMs, abandoned);
    EXPECT_EQ(abandoned, nullptr);
    return added;
}

std::vector<Pointer> takeExpired(ConnectionTable& table, int64_t nowMs)
{
    std::vector<Pointer> expired;
    for (Pointer connection = table.takeExpired(nowMs, kRepeatMs); connection;
         connection = ConnectionTable::takeNextExpired(*expired.back()))
        expired.push_back(std::move(connection));
    return expired;
}

TEST(ConnectionTable, FindsWhatIsAddedUntilItIsRemoved)
{
    ConnectionTable table(ConnectionLimits(), kStartMs);
    EXPECT_EQ(table.find(3), nullptr);
    const Pointer first = add(table, 3);
    const Pointer second = add(table, 4);
    EXPECT_EQ(table.find(3), first);
    EXPECT_EQ(table.find(4), second);
    EXPECT_EQ(table.getCount(), 2u);
    EXPECT_THAT(table.getAll(), UnorderedElementsAre(first, second));
    EXPECT_EQ(first->getPeer().address, kPeer.address);
    EXPECT_EQ(first->getPeer().host, kPeer.host);

    EXPECT_TRUE(table.remove(3, *first));
    EXPECT_EQ(table.find(3), nullptr);
    EXPECT_EQ(table.getCount(), 1u);
    EXPECT_FALSE(table.remove(3, *first));
    EXPECT_FALSE(table.remove(4, *first));
    EXPECT_EQ(table.getCount(), 1u);
    EXPECT_TRUE(table.remove(4, *second));
    EXPECT_THAT(table.getAll(), IsEmpty());
}

// The descriptor of a connection that the daemon has closed without a word is used again.
TEST(ConnectionTable, ReplacesAnAbandonedConnection)
{
    ConnectionTable table(withHeadLimit(100), kStartMs);
    const Pointer old = add(table, 3);
    Pointer abandoned;
    const Pointer fresh = table.add(3, Peer(), kStartMs + 1000, abandoned);
    EXPECT_EQ(abandoned, old);
    EXPECT_EQ(table.getCount(), 1u);
    EXPECT_EQ(table.find(3), fresh);
    EXPECT_FALSE(table.remove(3, *old));
    EXPECT_FALSE(old->isInWheel());
    EXPECT_THAT(takeExpired(table, kStartMs + 1000 + 100 + kSlotMs), ElementsAre(fresh));
}

TEST(ConnectionTable, IsWalkedInOrderWhileItChanges)
{
    ConnectionTable table(ConnectionLimits(), kStartMs);
    int descriptor = -1;
    EXPECT_EQ(table.next(descriptor), nullptr);
    EXPECT_EQ(descriptor, -1);
    const Pointer last = add(table, 9);
    const Pointer first = add(table, 0);
    const Pointer removed = add(table, 4);
    EXPECT_EQ(table.next(descriptor), first);
    EXPECT_EQ(descriptor, 0);
    EXPECT_TRUE(table.remove(0, *first));
    EXPECT_TRUE(table.remove(4, *removed));
    EXPECT_EQ(table.next(descriptor), last);
    EXPECT_EQ(descriptor, 9);
    EXPECT_EQ(table.next(descriptor), nullptr);
}

TEST(ConnectionTable, GivesANewConnectionTheTimeOfItsHead)
{
    ConnectionTable table(withHeadLimit(1000), kStartMs);
    const Pointer connection = add(table, 3);
    EXPECT_EQ(connection->deadlineMs, kStartMs + 1000);
    EXPECT_THAT(takeExpired(table, kStartMs + 999), IsEmpty());
    EXPECT_THAT(takeExpired(table, kStartMs + 1000 + kSlotMs), ElementsAre(connection));

    ConnectionTable unlimited(withHeadLimit(0), kStartMs);
    EXPECT_EQ(add(unlimited, 3)->deadlineMs, kNoDeadline);
    EXPECT_THAT(takeExpired(unlimited, kStartMs + 10 * kReachMs), IsEmpty());
}

TEST(ConnectionTable, ReportsADeadlineNotBeforeItAndAtMostASlotLate)
{
    for (const int64_t afterMs : {0, 1, 63, 64, 65, 1000, 65535, 65536, 100000, 86400000}) {
        SCOPED_TRACE(afterMs);
        ConnectionTable table(ConnectionLimits(), kStartMs);
        const Pointer connection = add(table, 3);
        table.arm(*connection, kStartMs + afterMs);
        // The listener looks at least once in a slot.
        int64_t nowMs = kStartMs;
        std::vector<Pointer> expired;
        while (expired.empty() && nowMs < kStartMs + afterMs + 2 * kSlotMs) {
            nowMs += kSlotMs;
            expired = takeExpired(table, nowMs);
        }
        EXPECT_THAT(expired, ElementsAre(connection));
        EXPECT_GE(nowMs, kStartMs + afterMs);
        EXPECT_LE(nowMs, kStartMs + afterMs + kSlotMs);
    }
}

TEST(ConnectionTable, FollowsADeadlineThatMoves)
{
    ConnectionTable table(ConnectionLimits(), kStartMs);
    const Pointer connection = add(table, 3);
    table.arm(*connection, kStartMs + 5000);
    table.arm(*connection, kStartMs + 200);  // earlier
    EXPECT_THAT(takeExpired(table, kStartMs + 199), IsEmpty());
    table.arm(*connection, kStartMs + 1000);  // later than the visit
    EXPECT_THAT(takeExpired(table, kStartMs + 200 + kSlotMs), IsEmpty());
    EXPECT_THAT(takeExpired(table, kStartMs + 999), IsEmpty());
    EXPECT_THAT(takeExpired(table, kStartMs + 1000 + kSlotMs), ElementsAre(connection));
    table.arm(*connection, kNoDeadline);
    EXPECT_THAT(takeExpired(table, kStartMs + 10 * kReachMs), IsEmpty());
    table.arm(*connection, 0);  // long past
    EXPECT_THAT(takeExpired(table, kStartMs + 10 * kReachMs + kSlotMs), ElementsAre(connection));
}

TEST(ConnectionTable, ReportsAConnectionThatIsStillThereAgain)
{
    ConnectionTable table(withHeadLimit(100), kStartMs);
    const Pointer connection = add(table, 3);
    int64_t nowMs = kStartMs + 100 + kSlotMs;
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(takeExpired(table, nowMs), ElementsAre(connection));
        EXPECT_THAT(takeExpired(table, nowMs + kRepeatMs - 1), IsEmpty());
        nowMs += kRepeatMs + kSlotMs;
    }
    // Not before its time when it has a new one.
    table.arm(*connection, nowMs + 5000);
    EXPECT_THAT(takeExpired(table, nowMs + 4999), IsEmpty());
    EXPECT_THAT(takeExpired(table, nowMs + 5000 + kSlotMs), ElementsAre(connection));
}

TEST(ConnectionTable, ReportsNothingThatIsRemoved)
{
    ConnectionTable table(withHeadLimit(100), kStartMs);
    const Pointer removed = add(table, 3);
    const Pointer kept = add(table, 4);
    EXPECT_TRUE(table.remove(3, *removed));
    table.arm(*removed, kStartMs);  // its daemon thread was about to
    EXPECT_FALSE(removed->isInWheel());
    EXPECT_THAT(takeExpired(table, kStartMs + 1000), ElementsAre(kept));
}

// One thread arms deadlines while the other visits the same connections: every armed deadline is
// reported. Time is that of the table; it goes on with each visit.
TEST(ConnectionTable, LosesNoDeadlineThatIsArmedDuringAVisit)
{
    constexpr size_t kConnections = 512;
    constexpr int kRounds = 400;
    constexpr int64_t kStepMs = 7;
    constexpr int64_t kLateMs = 10 * kSlotMs;  // a lost one is found when the wheel has turned
    ConnectionTable table(ConnectionLimits(), kStartMs);
    std::vector<Pointer> connections;
    std::unordered_map<const Connection*, size_t> places;
    for (size_t i = 0; i < kConnections; ++i) {
        connections.push_back(add(table, static_cast<int>(i)));
        places[connections.back().get()] = i;
    }
    std::atomic<int64_t> nowMs{kStartMs};
    std::array<std::atomic<int>, kConnections> armed{};
    std::array<std::atomic<int>, kConnections> reported{};
    std::atomic<bool> ended{false};

    std::thread visitor([&] {
        while (!ended) {
            for (const Pointer& connection : takeExpired(table, nowMs)) {
                const size_t i = places.at(connection.get());
                table.arm(*connection, kNoDeadline);
                reported[i] = armed[i].load();
            }
            nowMs += kStepMs;
        }
    });

    std::mt19937 random(1);
    int lost = 0;
    for (int round = 0; round < kRounds && lost == 0; ++round) {
        // A visit that finds nothing due, unless the time is over before the second call.
        for (const Pointer& connection : connections) {
            table.arm(*connection, nowMs + kSlotMs);
            table.arm(*connection, kNoDeadline);
        }
        const int64_t visitMs = connections.back()->getVisitMs();
        while (nowMs < visitMs - kStepMs && visitMs < nowMs + 2 * kSlotMs) {
        }
        // Between the visit and its time, which needs no change of the wheel, or near to it.
        std::uniform_int_distribution<int64_t> atVisit(0, kStepMs);
        std::uniform_int_distribution<int64_t> nearby(-kSlotMs, kSlotMs);
        std::array<int64_t, kConnections> dueMs{};
        for (size_t i = 0; i < kConnections; ++i) {
            ++armed[i];
            const int64_t deadlineMs =
                visitMs + (round % 2 == 0 ? atVisit(random) : nearby(random));
            table.arm(*connections[i], deadlineMs);
            dueMs[i] = std::max<int64_t>(deadlineMs, nowMs);
        }
        for (size_t i = 0; i < kConnections; ++i) {
            for (;;) {
                const int64_t seenMs = nowMs;  // visits before it are over
                if (reported[i] == armed[i])
                    break;
                if (seenMs - dueMs[i] > kLateMs) {
                    ++lost;
                    break;
                }
                std::this_thread::yield();
            }
        }
    }
    ended = true;
    visitor.join();
    EXPECT_EQ(lost, 0);
    for (size_t i = 0; i < kConnections; ++i)
        table.remove(static_cast<int>(i), *connections[i]);
}

}  // namespace

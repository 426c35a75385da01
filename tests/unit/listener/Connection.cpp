// A connection between the listener that claims it and the daemon thread that begins a request.

#include "listener/Connection.h"
#include "listener/ConnectionTable.h"

#include <gtest/gtest.h>
#include <support/MinimalRequest.h>

#include <qvSystem/qvSystemUtils.h>

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qv::tests
{
namespace
{

using qv::impl::Connection;
using qv::impl::ConnectionTable;

TEST(Connection, AbortsARequestThatBeginsAfterTheListenerHasClaimedIt)
{
    ConnectionTable table({}, 0);
    ConnectionTable::Pointer abandoned;
    const ConnectionTable::Pointer connection = table.add(1000000, {}, 0, abandoned);
    ASSERT_TRUE(connection->claim(Connection::Phase::Head));
    MinimalRequest request;
    EXPECT_FALSE(connection->beginRequest(request, nullptr, Connection::Phase::Working));
    connection->abortRequest("TimeoutReached", false);
    EXPECT_TRUE(connection->isAborted);
    EXPECT_TRUE(request.getReceiveDevice().hasDeviceError());
    EXPECT_TRUE(request.getResponseDevice().hasDeviceError());
    EXPECT_EQ(connection->getAbortReason(), "TimeoutReached");
    EXPECT_EQ(connection->phase, Connection::Phase::Ended);
    connection->endRequest(0);
    EXPECT_TRUE(table.remove(1000000, *connection));
}

// A connection whose response is complete while a body comes.
class DiscardingConnection : public ::testing::Test
{
protected:
    DiscardingConnection()
    {
        ConnectionTable::Pointer abandoned;
        mConnection = mTable.add(1000000, {}, 0, abandoned);
        EXPECT_TRUE(mConnection->beginRequest(mRequest, nullptr, Connection::Phase::Body));
        mConnection->beginBody(qvSystemUtils::GetTimeBaseMs());
    }
    ~DiscardingConnection() override
    {
        mConnection->endRequest(0);
        EXPECT_TRUE(mTable.remove(1000000, *mConnection));
    }

    ConnectionTable mTable{{0, 0, 1000, 0, 0}, 0};
    ConnectionTable::Pointer mConnection;
    MinimalRequest mRequest;
};

TEST_F(DiscardingConnection, CountsBytesUpToTheirLimit)
{
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    EXPECT_TRUE(mConnection->countDiscarded(uint64_t{1} << 40, nowMs));  // does not discard yet
    mConnection->discardUpload();
    EXPECT_TRUE(mConnection->countDiscarded(1048575, nowMs));
    EXPECT_FALSE(mConnection->countDiscarded(2, nowMs));
    EXPECT_EQ(mConnection->deadlineMs, 0);
    EXPECT_FALSE(mConnection->countDiscarded(1, nowMs));
}

TEST_F(DiscardingConnection, MayDiscardAsManyBytesAsTheLimit)
{
    mConnection->discardUpload();
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    EXPECT_TRUE(mConnection->countDiscarded(1048576, nowMs));
    EXPECT_EQ(mConnection->getEarlyStatus(nowMs), 0u);
    EXPECT_FALSE(mConnection->countDiscarded(1, nowMs));
    EXPECT_EQ(mConnection->getEarlyStatus(nowMs), 200u);
}

TEST_F(DiscardingConnection, EndsAtItsLimitOfTimeWhateverTheOthersAre)
{
    const int64_t beforeMs = qvSystemUtils::GetTimeBaseMs();
    mConnection->discardUpload();
    const int64_t untilMs = mConnection->deadlineMs;
    EXPECT_GE(untilMs, beforeMs + 5000);
    EXPECT_LE(untilMs, qvSystemUtils::GetTimeBaseMs() + 5000);
    // The deadline of the body, 1000 ms, holds no more.
    mConnection->armBody(beforeMs);
    EXPECT_EQ(mConnection->deadlineMs, untilMs);
    mConnection->pauseBody(beforeMs);
    EXPECT_EQ(mConnection->deadlineMs, untilMs);
    EXPECT_EQ(mConnection->getEarlyStatus(untilMs - 1), 0u);
    EXPECT_EQ(mConnection->getEarlyStatus(untilMs), 200u);
    EXPECT_TRUE(mConnection->countDiscarded(1, untilMs - 1));
    EXPECT_FALSE(mConnection->countDiscarded(1, untilMs));
}

TEST_F(DiscardingConnection, HasNoLimitAfterItsBody)
{
    mConnection->setPhase(Connection::Phase::Working, qv::impl::kNoDeadline);
    mConnection->discardUpload();
    EXPECT_EQ(mConnection->deadlineMs, qv::impl::kNoDeadline);
    EXPECT_EQ(mConnection->getEarlyStatus(qvSystemUtils::GetTimeBaseMs()), 0u);
}

TEST_F(DiscardingConnection, IsAnErrorOfTheServerWithoutAStatusOrWithADeviceInError)
{
    mConnection->discardUpload();
    const int64_t lateMs = qvSystemUtils::GetTimeBaseMs() + 5000;
    const struct
    {
        uint32_t status;
        uint32_t sent;
    } rows[] = {{200, 200}, {199, 500}, {101, 500}, {999, 999}, {1000, 500}, {0, 500}};
    for (const auto& row : rows) {
        mRequest.response.statusCode = row.status;
        EXPECT_EQ(mConnection->getEarlyStatus(lateMs), row.sent) << row.status;
    }
    mRequest.response.statusCode = 200;
    mRequest.getResponseDevice().setDeviceError("broken");
    EXPECT_EQ(mConnection->getEarlyStatus(lateMs), 500u);
}

TEST_F(DiscardingConnection, ForgetsItWithTheNextRequest)
{
    mConnection->discardUpload();
    mConnection->endRequest(0);
    EXPECT_TRUE(mConnection->beginRequest(mRequest, nullptr, Connection::Phase::Body));
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    mConnection->beginBody(nowMs);
    EXPECT_EQ(mConnection->deadlineMs, nowMs + 1000);
    EXPECT_EQ(mConnection->getEarlyStatus(nowMs + 100000), 0u);
}

// A connection, its peer, and a request that it serves.
class DetachedConnection : public ::testing::Test
{
protected:
    DetachedConnection()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, mEnds.data()), 0);
        ConnectionTable::Pointer abandoned;
        mConnection = mTable.add(mEnds[1], {}, 0, abandoned);
        EXPECT_TRUE(mConnection->beginRequest(mRequest, nullptr, Connection::Phase::Working));
    }
    ~DetachedConnection() override
    {
        mConnection->endRequest(0);
        EXPECT_TRUE(mTable.remove(mConnection->close(), *mConnection));
        for (const int descriptor : {mEnds[0], mEnds[1], mReplacement})
            close(descriptor);
    }

    bool isOpen() const
    {
        char byte = 0;
        return recv(mEnds[0], &byte, 1, MSG_DONTWAIT) != 0;
    }

    std::array<int, 2> mEnds{};
    const int mReplacement = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ConnectionTable mTable{{}, 0};
    ConnectionTable::Pointer mConnection;
    MinimalRequest mRequest;
};

TEST_F(DetachedConnection, IsNotEndedByTheListenerAndHasOneDescriptor)
{
    const int descriptor = mConnection->detach(mReplacement);
    ASSERT_GE(descriptor, 0);
    EXPECT_NE(descriptor, mEnds[1]);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(mConnection->isClosed());
    mConnection->abortRequest("DaemonShutdown", false);
    EXPECT_FALSE(mConnection->isAborted);
    EXPECT_FALSE(mRequest.getResponseDevice().hasDeviceError());
    mConnection->shutDown(SHUT_RDWR);
    mConnection->refuse("x");
    EXPECT_FALSE(mConnection->isShutDown);
    EXPECT_TRUE(isOpen());
    EXPECT_EQ(send(descriptor, "y", 1, MSG_NOSIGNAL), 1);
    char byte = 0;
    EXPECT_EQ(recv(mEnds[0], &byte, 1, MSG_DONTWAIT), 1);
    EXPECT_EQ(byte, 'y');
    // Although the daemon has not closed its own.
    close(descriptor);
    EXPECT_FALSE(isOpen());
}

TEST_F(DetachedConnection, IsImpossibleForARequestThatHasBeenAborted)
{
    mConnection->abortRequest("ClientAbort", false);
    EXPECT_EQ(mConnection->detach(mReplacement), -ECANCELED);
    EXPECT_FALSE(mConnection->isClosed());
    EXPECT_TRUE(isOpen());
}

TEST_F(DetachedConnection, IsImpossibleForAConnectionThatHasBeenShutDown)
{
    mConnection->shutDown(SHUT_RDWR);
    EXPECT_EQ(mConnection->detach(mReplacement), -ECANCELED);
    EXPECT_FALSE(mConnection->isClosed());
}

}  // namespace
}  // namespace qv::tests

// A connection between the listener that claims it and the daemon thread that begins a request.

#include "listener/Connection.h"
#include "listener/ConnectionTable.h"

#include <gtest/gtest.h>
#include <support/MinimalRequest.h>

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

}  // namespace
}  // namespace qv::tests

// The owner of the descriptor of an upgraded connection.

#include <Wendrel/UpgradedConnection.h>

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace qv::tests
{
namespace
{

const IpAddress kPeer = IpAddress::fromText("10.1.2.3", 4567);

// Both ends of a connection, and a place that is alive as long as somebody holds it.
class UpgradedConnectionTest : public ::testing::Test
{
protected:
    UpgradedConnectionTest() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, mEnds.data()), 0); }
    ~UpgradedConnectionTest() override { close(mEnds[0]); }

    UpgradedConnection make(const std::string& received = "")
    {
        auto place = std::make_shared<int>(0);
        mPlace = place;
        return UpgradedConnection(mEnds[1], received, kPeer, std::move(place));
    }

    bool isOpen() const
    {
        char byte = 0;
        return recv(mEnds[0], &byte, 1, MSG_DONTWAIT) != 0;
    }

    bool hasPlace() const { return !mPlace.expired(); }

    std::array<int, 2> mEnds{};
    std::weak_ptr<int> mPlace;
};

TEST_F(UpgradedConnectionTest, ClosesItsDescriptorAndGivesUpItsPlace)
{
    {
        const UpgradedConnection connection = make();
        EXPECT_EQ(connection.getDescriptor(), mEnds[1]);
        EXPECT_EQ(connection.getPeerAddress(), kPeer);
        EXPECT_TRUE(isOpen());
        EXPECT_TRUE(hasPlace());
    }
    EXPECT_FALSE(isOpen());
    EXPECT_FALSE(hasPlace());
}

TEST_F(UpgradedConnectionTest, LeavesATakenDescriptorOpen)
{
    {
        UpgradedConnection connection = make();
        EXPECT_EQ(connection.takeDescriptor(), mEnds[1]);
        EXPECT_EQ(connection.takeDescriptor(), -1);
        EXPECT_EQ(connection.getDescriptor(), -1);
        EXPECT_TRUE(hasPlace());
    }
    EXPECT_FALSE(hasPlace());
    EXPECT_TRUE(isOpen());
    close(mEnds[1]);
}

TEST_F(UpgradedConnectionTest, LeavesATakenPlace)
{
    std::shared_ptr<void> place;
    {
        UpgradedConnection connection = make();
        place = connection.takePlace();
        EXPECT_FALSE(connection.takePlace());
    }
    EXPECT_FALSE(isOpen());
    EXPECT_TRUE(hasPlace());
    place.reset();
    EXPECT_FALSE(hasPlace());
}

TEST_F(UpgradedConnectionTest, HandsOutTheReceivedBytesOnce)
{
    const std::string bytes("a\0b", 3);
    UpgradedConnection connection = make(bytes);
    EXPECT_EQ(connection.getReceivedBytes(), bytes);
    EXPECT_EQ(connection.takeReceivedBytes(), bytes);
    EXPECT_EQ(connection.getReceivedBytes(), "");
    EXPECT_EQ(connection.takeReceivedBytes(), "");
}

TEST_F(UpgradedConnectionTest, MovesAllThatItHas)
{
    UpgradedConnection first = make("bytes");
    UpgradedConnection second = std::move(first);
    EXPECT_EQ(first.getDescriptor(), -1);
    EXPECT_EQ(first.getReceivedBytes(), "");
    EXPECT_EQ(second.getDescriptor(), mEnds[1]);
    EXPECT_EQ(second.getReceivedBytes(), "bytes");
    EXPECT_EQ(second.getPeerAddress(), kPeer);
    EXPECT_TRUE(isOpen());

    std::array<int, 2> others{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, others.data()), 0);
    second = UpgradedConnection(others[1], "others", IpAddress(), nullptr);
    EXPECT_FALSE(isOpen());
    EXPECT_FALSE(hasPlace());
    EXPECT_EQ(second.getDescriptor(), others[1]);
    EXPECT_EQ(second.getReceivedBytes(), "others");
    EXPECT_FALSE(second.getPeerAddress().isValid());
    close(others[0]);
}

TEST_F(UpgradedConnectionTest, SurvivesAMoveToItself)
{
    UpgradedConnection connection = make("bytes");
    UpgradedConnection& same = connection;
    connection = std::move(same);
    EXPECT_EQ(connection.getDescriptor(), mEnds[1]);
    EXPECT_EQ(connection.getReceivedBytes(), "bytes");
    EXPECT_TRUE(isOpen());
    EXPECT_TRUE(hasPlace());
}

}  // namespace
}  // namespace qv::tests

// Counted places, in all and of an address.

#include "listener/ConnectionPlaces.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

using qv::impl::ConnectionPlace;
using qv::impl::ConnectionPlaces;

const IpAddress kFirst = IpAddress::fromText("127.0.0.1", 0);
const IpAddress kSecond = IpAddress::fromText("::1", 0);

TEST(ConnectionPlaces, AreAsManyAsTheMaximum)
{
    const auto places = std::make_shared<ConnectionPlaces>(2, 0);
    ConnectionPlace first = places->take(kFirst);
    ConnectionPlace second = places->take(kFirst);
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
    EXPECT_FALSE(places->take(kFirst));
    second.giveUp();
    EXPECT_FALSE(second);
    second.giveUp();
    ConnectionPlace third = places->take(kFirst);
    EXPECT_TRUE(third);
    EXPECT_FALSE(places->take(kFirst));
}

TEST(ConnectionPlaces, OfAnAddressLeaveOthersAlone)
{
    const auto places = std::make_shared<ConnectionPlaces>(100, 1);
    const ConnectionPlace first = places->take(kFirst);
    EXPECT_TRUE(first);
    EXPECT_FALSE(places->take(kFirst));
    EXPECT_TRUE(places->take(kSecond));
    // A Unix socket has no address.
    std::vector<ConnectionPlace> without;
    for (int i = 0; i < 99; ++i) {
        without.push_back(places->take(IpAddress()));
        EXPECT_TRUE(without.back());
    }
    EXPECT_FALSE(places->take(IpAddress()));
}

TEST(ConnectionPlaces, MoveWithTheirConnections)
{
    auto places = std::make_shared<ConnectionPlaces>(2, 1);
    ConnectionPlace first = places->take(kFirst);
    ConnectionPlace moved = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_TRUE(moved);
    EXPECT_FALSE(places->take(kFirst));
    // The place that it had is free.
    moved = places->take(kSecond);
    EXPECT_TRUE(moved);
    EXPECT_TRUE(places->take(kFirst));
    EXPECT_FALSE(places->take(kSecond));
    ConnectionPlace& same = moved;
    moved = std::move(same);
    EXPECT_TRUE(moved);
    // The last place outlives the listener.
    places.reset();
    moved.giveUp();
    EXPECT_FALSE(moved);
}

}  // namespace
}  // namespace qv::tests

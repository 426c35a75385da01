// The keys of session tickets over hours.

#include "listener/TlsTicketKeys.h"

#include <gtest/gtest.h>

namespace qv::tests
{
namespace
{

using Keys = qv::impl::TlsTicketKeys;

bool isKnown(Keys& keys, const Keys::Key& key, int64_t nowMs, bool& isCurrent)
{
    const auto found = keys.find(key.name.data(), nowMs, isCurrent);
    return found && found->cipher == key.cipher && found->digest == key.digest;
}

TEST(TlsTicketKeys, AreReplacedEveryHour)
{
    Keys keys;
    const auto first = keys.getCurrent(0);
    ASSERT_TRUE(first);
    EXPECT_EQ(keys.getCurrent(Keys::kReplaceMs - 1)->name, first->name);
    const auto second = keys.getCurrent(Keys::kReplaceMs);
    ASSERT_TRUE(second);
    EXPECT_NE(second->name, first->name);
    EXPECT_NE(second->cipher, first->cipher);
    EXPECT_NE(second->digest, first->digest);
}

TEST(TlsTicketKeys, AreKeptAsLongAsTheirTicketsAreValid)
{
    Keys keys;
    const auto first = keys.getCurrent(0);
    bool isCurrent = false;
    EXPECT_TRUE(isKnown(keys, *first, 1, isCurrent));
    EXPECT_TRUE(isCurrent);
    // The last ticket of this key.
    const int64_t lastMs = Keys::kReplaceMs - 1;
    keys.getCurrent(Keys::kReplaceMs);
    keys.getCurrent(2 * Keys::kReplaceMs);
    EXPECT_TRUE(isKnown(keys, *first, lastMs + Keys::kTicketSeconds * 1000, isCurrent));
    EXPECT_FALSE(isCurrent);
    EXPECT_FALSE(isKnown(keys, *first, 3 * Keys::kReplaceMs, isCurrent));
    keys.getCurrent(3 * Keys::kReplaceMs);
    EXPECT_FALSE(isKnown(keys, *first, lastMs, isCurrent));
}

// Nobody has asked for a newer one: a resumed session gets a ticket of a newer key all the same.
TEST(TlsTicketKeys, AreNotCurrentAfterTheirHour)
{
    Keys keys;
    const auto first = keys.getCurrent(0);
    bool isCurrent = true;
    EXPECT_TRUE(isKnown(keys, *first, Keys::kReplaceMs, isCurrent));
    EXPECT_FALSE(isCurrent);
}

TEST(TlsTicketKeys, OfOthersAreUnknown)
{
    Keys keys;
    Keys others;
    keys.getCurrent(0);
    bool isCurrent = false;
    EXPECT_FALSE(isKnown(keys, *others.getCurrent(0), 0, isCurrent));
}

}  // namespace
}  // namespace qv::tests

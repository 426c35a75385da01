// Rollback of uncommitted steps.

#include <qvSystem/Rollback.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace qv::tests
{
namespace
{

TEST(Rollback, UndoesWhatWasNotCommitted)
{
    int undone = 0;
    {
        const Rollback begun([&] { ++undone; });
        EXPECT_EQ(undone, 0);
    }
    EXPECT_EQ(undone, 1);
}

TEST(Rollback, LeavesWhatWasCommitted)
{
    int undone = 0;
    {
        Rollback begun([&] { ++undone; });
        begun.commit();
    }
    EXPECT_EQ(undone, 0);
}

TEST(Rollback, UndoesInTurnAndLetsTheExceptionPass)
{
    std::string order;
    const auto fail = [&] {
        const Rollback first([&] { order += '1'; });
        const Rollback second([&] { order += '2'; });
        throw std::runtime_error("no more");
    };
    EXPECT_THROW(fail(), std::runtime_error);
    EXPECT_EQ(order, "21");
}

}  // namespace
}  // namespace qv::tests

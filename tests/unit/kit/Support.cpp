// The library is up during the tests of the kit: it knows the names of the methods then.

#include <Wendrel/Wendrel.h>

#include <gtest/gtest.h>

namespace
{

class LibraryUp : public ::testing::Environment
{
    void SetUp() override { qv::initializeWendrel(); }
    void TearDown() override { qv::terminateWendrel(); }
};

const ::testing::Environment* const kLibraryUp = ::testing::AddGlobalTestEnvironment(new LibraryUp);

}  // namespace

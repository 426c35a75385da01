// Entry of the integration test program: the log of the process is kept for every test, and
// shown when the test fails.

#include "support/ProcessLog.h"

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <csignal>
#include <cstdio>

namespace
{

class LogOfEachTest : public ::testing::EmptyTestEventListener
{
    void OnTestStart(const ::testing::TestInfo&) override { integration::processLog->clear(); }

    void OnTestEnd(const ::testing::TestInfo& test) override
    {
        if (!test.result()->Failed())
            return;
        for (const auto& line : integration::processLog->lines())
            std::printf("log, level %d: %s\n", line.level, line.message.c_str());
    }
};

}  // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    curl_global_init(CURL_GLOBAL_ALL);
    ::testing::InitGoogleMock(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new LogOfEachTest);
    integration::processLog = std::make_unique<qv::tests::CapturedLog>();
    const int result = RUN_ALL_TESTS();
    integration::processLog.reset();
    curl_global_cleanup();
    return result;
}

// The well-known tool for slow clients, with as many connections as our own.

#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace adversarial
{
namespace
{

constexpr size_t kClients = 500;

struct ToolRow
{
    const char* name;
    std::vector<std::string> options;
    const char* target;
};

std::ostream& operator<<(std::ostream& out, const ToolRow& row)
{
    return out << row.name;
}

// The tool's record, second by second.
struct Seconds
{
    size_t count = 0;
    size_t unavailable = 0;    // the tool's own request had no response within three seconds
    double mostConnected = 0;  // slow connections
};

// Lines of "second,closed,pending,connected,available", the last 0 for no.
Seconds readSeconds(const std::filesystem::path& path)
{
    Seconds seconds;
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
        std::istringstream values(line);
        std::array<double, 5> value{};
        char comma = 0;
        values >> value[0];
        for (size_t i = 1; i < value.size(); ++i)
            values >> comma >> value[i];
        EXPECT_FALSE(values.fail()) << line;
        ++seconds.count;
        seconds.unavailable += value[4] == 0;
        seconds.mostConnected = std::max(seconds.mostConnected, value[3]);
    }
    return seconds;
}

class SlowHttpTest : public ::testing::TestWithParam<ToolRow>
{
protected:
    static Seconds runTool(const std::string& arguments)
    {
        const qv::tests::TemporaryDirectory directory;
        const std::string command = std::string(WENDREL_SLOWHTTPTEST) + arguments + " -g -o " +
                                    directory / "tool" + " </dev/null >" + directory / "out" +
                                    " 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        return readSeconds(directory / "tool.csv");
    }
};

TEST_P(SlowHttpTest, FindsTheServiceAvailable)
{
    if (std::string(WENDREL_SLOWHTTPTEST).empty())
        GTEST_SKIP() << "slowhttptest is missing; scripts/install-deps.sh --tests installs it";
    const size_t clients = scaled(kClients);
    ServerProcess server({"threads=2", "workers=" + std::to_string(clients + 16), "timeout=2000"});
    serve(server.port(), 100);
    const Footprint before = server.quietFootprint();

    std::string arguments;
    for (const std::string& option : GetParam().options)
        arguments += " " + option;
    const std::string count = std::to_string(clients);
    arguments += " -c " + count + " -r " + count +
                 " -i 1 -l 3 -p 3 -u http://127.0.0.1:" + std::to_string(server.port()) +
                 GetParam().target;
    Meanwhile good(server.port(), Meanwhile::Requests);
    const Seconds seconds = runTool(arguments);
    const Served& served = good.stop();
    served.print("served-beside-attack");
    EXPECT_EQ(served.failures, 0u);
    metric("attackers", seconds.mostConnected, "connections");
    metric("seconds-without-service", static_cast<double>(seconds.unavailable), "seconds");
    EXPECT_GT(seconds.count, 0u);
    EXPECT_GT(seconds.mostConnected, 0);
    // A machine that stands still delays the tool as well, which waits for three seconds.
    constexpr double kPromptMs = 500;
    if (served.times.most() < kPromptMs) {
        EXPECT_EQ(seconds.unavailable, 0u);
        EXPECT_EQ(seconds.mostConnected, static_cast<double>(clients));
    }

    constexpr size_t kToleratedBytes = 8u << 20;
    server.expectAsBefore(before, kToleratedBytes);
    server.stop(kLimit);
}

INSTANTIATE_TEST_SUITE_P(
    Attacks, SlowHttpTest,
    ::testing::Values(ToolRow{"Heads", {"-H", "-t GET"}, "/small"},
                      ToolRow{"Bodies", {"-B", "-t PUT", "-s 100000"}, "/upload"},
                      ToolRow{"Readers", {"-X", "-t GET"}, "/known/67108864"}),
    [](const ::testing::TestParamInfo<ToolRow>& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace adversarial

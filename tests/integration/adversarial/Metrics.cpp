// Measurements of the tests with adversarial clients, and their output.

#include "Metrics.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace adversarial
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif

size_t scaled(size_t full)
{
    const char* text = std::getenv("WENDREL_ADVERSARIAL_DIVISOR");
    const long divisor = text ? std::atol(text) : WENDREL_ADVERSARIAL_DEFAULT_DIVISOR;
    return std::max<size_t>(1, full / static_cast<size_t>(std::max(1L, divisor)));
}

void metric(const std::string& name, double value, const std::string& unit)
{
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string where =
        test ? std::string(test->test_suite_name()) + "." + test->name() + "." : std::string();
    char number[64];
    std::snprintf(number, sizeof number, value == std::floor(value) ? "%.0f" : "%.2f", value);
    const std::string line = "metric: " + where + name + " " + number + " " + unit;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    if (const char* path = std::getenv("WENDREL_ADVERSARIAL_METRICS"))
        std::ofstream(path, std::ios::app) << line << '\n';
}

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double Distribution::quantile(double part) const
{
    if (values.empty())
        return 0;
    std::vector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    return sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
}

void Distribution::print(const std::string& name, const std::string& unit) const
{
    constexpr double kP99 = 0.99;
    metric(name + ".count", static_cast<double>(values.size()), "times");
    metric(name + ".median", median(), unit);
    metric(name + ".p99", quantile(kP99), unit);
    metric(name + ".max", most(), unit);
}

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace adversarial

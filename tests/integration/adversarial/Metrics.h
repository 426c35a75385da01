/// Measurements of the tests with adversarial clients, and their output.
#ifndef WENDREL_TESTS_INTEGRATION_ADVERSARIAL_METRICS_H
#define WENDREL_TESTS_INTEGRATION_ADVERSARIAL_METRICS_H

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace adversarial
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// The limit of a wait for all clients or for the server.
constexpr milliseconds kLimit = std::chrono::minutes(4);

/// True in a build with sanitizers, where memory and times say nothing about the library.
extern const bool kSanitized;

/// `full` divided by the environment's WENDREL_ADVERSARIAL_DIVISOR, at least 1. Without it: by 1,
/// in a build with sanitizers by 10.
size_t scaled(size_t full);

/// Prints "metric: <case>.<name> <value> <unit>", the case being the running test, and adds the
/// line to the file that WENDREL_ADVERSARIAL_METRICS names, if any.
void metric(const std::string& name, double value, const std::string& unit);

/// Milliseconds since `start`.
double millisecondsSince(Clock::time_point start);

/// Times in milliseconds, or anything else whose distribution matters.
struct Distribution
{
    std::vector<double> values;

    void add(double value) { values.push_back(value); }

    /// The value below which `part` of all lie, 0 to 1; 0 when there are none.
    double quantile(double part) const;

    double least() const { return quantile(0); }
    double median() const { return quantile(0.5); }
    double most() const { return quantile(1); }

    /// Metrics for count, median, p99 and most.
    void print(const std::string& name, const std::string& unit = "ms") const;
};

/// Allows this process and its children as many descriptors as may be.
void raiseDescriptorLimit();

}  // namespace adversarial

#endif

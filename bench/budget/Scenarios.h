// What is counted: each scenario is one request, or one message of a WebSocket, from its first
// callback to its last, the same every time.
#ifndef WENDREL_BENCH_BUDGET_SCENARIOS_H
#define WENDREL_BENCH_BUDGET_SCENARIOS_H

#include <memory>
#include <span>

namespace qv::bench
{

class Scenario
{
public:
    virtual ~Scenario() = default;

    // One time; false when the library did not do what it is there for.
    virtual bool run() = 0;
};

struct NamedScenario
{
    const char* name;
    const char* what;
    unsigned repetitions;
    std::unique_ptr<Scenario> (*make)();
};

std::span<const NamedScenario> AllScenarios();

}  // namespace qv::bench

#endif

// The counted scenarios: one request, or one message of a WebSocket, from its first callback to its
// last, reproducibly.
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

    // Runs once; false when the result is wrong.
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

// A log statement of a disabled level, and one that is written to a sink.

#include "Support.h"

#include "server/logging/LogObject.h"

#include <qvSystem/qvLog.h>

#include <memory>

namespace qv::bench
{
namespace
{

// Discards its input.
class Nowhere : public qvLogSink
{
public:
    explicit Nowhere(uint64_t& entries) : mEntries(entries) {}
    void write(const qvLog::LogEntry& entry) override
    {
        ++mEntries;
        benchmark::DoNotOptimize(entry.message.data());
    }
    void flush() override {}

private:
    uint64_t& mEntries;
};

void logStatement(benchmark::State& state, const char* category, int minimumLevel, bool expected)
{
    uint64_t entries = 0;
    qvLog log;
    log.addSink(std::make_unique<Nowhere>(entries));
    log.setMinimumLevel(minimumLevel);
    log.install();
    int port = 8080;
    for (auto _ : state) {
        benchmark::DoNotOptimize(port);
        qvLogObject(qvLogObject::kInformation, category) << "listen @" << port << ", flags";
    }
    log.uninstall();
    if ((entries != 0) != expected)
        state.SkipWithError("the switch of the level did not decide");
    SetItems(state);
}
BENCHMARK_CAPTURE(logStatement, disabled, nullptr, qvLog::Error, false)->Name("Log/disabled");
BENCHMARK_CAPTURE(logStatement, disabledWithCategory, "httpserver", qvLog::Error, false)
    ->Name("Log/disabled/withCategory");
BENCHMARK_CAPTURE(logStatement, enabled, nullptr, qvLog::Information, true)->Name("Log/enabled");
BENCHMARK_CAPTURE(logStatement, enabledWithCategory, "httpserver", qvLog::Information, true)
    ->Name("Log/enabled/withCategory");

}  // namespace
}  // namespace qv::bench

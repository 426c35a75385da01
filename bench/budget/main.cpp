// Runs a scenario often enough for its costs to be the same every time, and then counts.

#include "Boundary.h"
#include "Scenarios.h"

#include "streaming/ChunkPool.h"

#include <Wendrel/Wendrel.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <thread>

#include <gnu/libc-version.h>

extern "C" {

// Functions at which callgrind resets and writes its counts.
WENDREL_BENCH_AS_WRITTEN void wendrelBudgetBegin() {}
WENDREL_BENCH_AS_WRITTEN void wendrelBudgetEnd() {}
}

namespace
{

using namespace qv::bench;

#if defined(__clang__)
constexpr const char* kCompiler = "clang";
#else
constexpr const char* kCompiler = "gcc";
#endif

// Caches of the C library are full by then and tables have grown.
constexpr unsigned kWarmUps = 20;

constexpr const char* kHelp =
    "Usage: wendrel-bench-budget --count SCENARIO | --trace SCENARIO | --list | --help\n"
    "\n"
    "Runs what bench/budget/budget.py counts.\n"
    "\n"
    "  --count SCENARIO  what it was built with, and: name, repetitions, allocations, bytes of "
    "them\n"
    "  --trace SCENARIO  each allocation of one run: its size and where it was made\n"
    "  --list            the scenarios and what they are\n"
    "  --help            this text\n";

// Null, and a message, when there is none of this name.
const NamedScenario* find(std::string_view name)
{
    for (const NamedScenario& named : AllScenarios())
        if (name == named.name)
            return &named;
    std::fprintf(stderr, "no such scenario: %s\n", std::string(name).c_str());
    return nullptr;
}

bool repeat(Scenario& scenario, unsigned times)
{
    bool good = true;
    for (unsigned i = 0; i < times; ++i)
        good = scenario.run() && good;
    return good;
}

bool count(const NamedScenario& named)
{
    const auto scenario = named.make();
    bool good = repeat(*scenario, kWarmUps);
    const Allocations before = CountedAllocations();
    wendrelBudgetBegin();
    good = repeat(*scenario, named.repetitions) && good;
    wendrelBudgetEnd();
    const Allocations after = CountedAllocations();
    std::printf("%s %u %llu %llu\n", named.name, named.repetitions,
                static_cast<unsigned long long>(after.count - before.count),
                static_cast<unsigned long long>(after.bytes - before.bytes));
    if (!good)
        std::fprintf(stderr, "%s: the library did not do what it should\n", named.name);
    return good;
}

bool countNamed(std::string_view name)
{
    std::printf("madeWith compiler %s %s\n", kCompiler, __VERSION__);
    std::printf("madeWith libstdc++ %ld\n", static_cast<long>(__GLIBCXX__));
    std::printf("madeWith glibc %s\n", gnu_get_libc_version());
    const NamedScenario* named = find(name);
    return named && count(*named);
}

bool trace(std::string_view name)
{
    const NamedScenario* named = find(name);
    if (!named)
        return false;
    const auto scenario = named->make();
    bool good = repeat(*scenario, kWarmUps);
    TraceAllocations();
    good = scenario->run() && good;
    PrintTracedAllocations();
    return good;
}

bool list()
{
    for (const NamedScenario& named : AllScenarios())
        std::printf("%-10s %s\n", named.name, named.what);
    return true;
}

bool help(bool wanted)
{
    std::fputs(kHelp, wanted ? stdout : stderr);
    return wanted;
}

[[gnu::noinline]] bool act(std::span<char*> arguments)
{
    const qv::impl::ChunkPool::User user;  // as while a server runs
    const std::string_view what = arguments.empty() ? "" : arguments[0];
    if (what == "--count" && arguments.size() == 2)
        return countNamed(arguments[1]);
    if (what == "--trace" && arguments.size() == 2)
        return trace(arguments[1]);
    if (what == "--list" && arguments.size() == 1)
        return list();
    return help(what == "--help");
}

// The cost of some functions of the C library depends on neighbouring memory. Random values and
// addresses there are fixed.
__attribute__((noinline, no_stack_protector)) bool actAsAlways(std::span<char*> arguments)
{
#if defined(__x86_64__)
    // The value that guards stack frames: those entered before are not left any more.
    constexpr uintptr_t kGuard = 0x5a17c3e96bd2f400;
    asm volatile("movq %0, %%fs:40" : : "r"(kGuard) : "memory");
#endif
    constexpr uintptr_t kPageBytes = 4096;
    const auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    auto* const padding = static_cast<volatile char*>(__builtin_alloca(frame % kPageBytes + 16));
    const bool good = act(arguments);
    // Used once more: otherwise the padding might have ended already.
    static_cast<void>(padding[0]);
    return good;
}

}  // namespace

__attribute__((no_stack_protector)) int main(int argc, char** argv)
{
    // A server has threads, and the C library does some things in another way then.
    std::thread([] {}).join();
    qv::initializeWendrel();
    const bool good = actAsAlways({argv + 1, static_cast<size_t>(argc - 1)});
    qv::terminateWendrel();
    std::exit(good ? EXIT_SUCCESS : EXIT_FAILURE);
}

// The replaced system calls: a definition in the program comes before the one in a shared
// library. The real ones are reached through the dynamic linker and not by syscall(), so that
// the sanitizers still see which memory is read and written.

// The fortified declarations of recv and poll are definitions for clang.
#undef _FORTIFY_SOURCE

#include "support/ScriptedSockets.h"

#include "support/TestsOwn.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

#include <dlfcn.h>
#include <sys/socket.h>

namespace qv::tests
{

namespace
{

constexpr size_t kMaxRecords = 100000;
constexpr size_t kOperations = 3;

}  // namespace

struct ScriptedSockets::State
{
    struct Script
    {
        std::map<size_t, Outcome> outcomes;
        std::optional<std::pair<size_t, Outcome>> outcomeFrom;
        std::map<size_t, size_t> caps;
        size_t cap = 0;
    };

    mutable std::mutex mutex;  // guards all below
    size_t counts[kOperations] = {};
    Script scripts[kOperations];
    std::function<std::optional<Outcome>(const Attempt&)> hook;
    std::vector<Call> calls;

    // Counts the call; its outcome if the system is not to be asked. Lowers `length`.
    std::optional<Outcome> begin(Attempt& attempt, size_t& length);
    void end(const Attempt& attempt, Outcome outcome);
};

namespace
{

std::mutex& InstanceMutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

std::shared_ptr<ScriptedSockets::State>& Instance()
{
    static auto* instance = new std::shared_ptr<ScriptedSockets::State>;
    return *instance;
}

// Asked first: without an object of ours calls must not be put in order by a lock, which would
// hide races of the library.
std::atomic<bool> gInstalled{false};

std::shared_ptr<ScriptedSockets::State> Current()
{
    if (!gInstalled.load(std::memory_order_relaxed))
        return nullptr;
    std::lock_guard<std::mutex> lock(InstanceMutex());
    return Instance();
}

template <typename Function> Function Real(const char* name)
{
    void* found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::fprintf(stderr, "ScriptedSockets: %s is not in a shared library\n", name);
        std::abort();
    }
    return reinterpret_cast<Function>(found);
}

// One call, with or without a script; `real` is given how many bytes to move.
template <typename System> ssize_t Perform(ScriptedSockets::Attempt attempt, System real)
{
    const TestsOwn own;
    const auto state = Current();
    size_t length = attempt.length;
    if (!state)
        return real(length);
    std::optional<ScriptedSockets::Outcome> outcome = state->begin(attempt, length);
    if (!outcome) {
        const ssize_t result = real(length);
        outcome = {result, result < 0 ? errno : 0};
    }
    state->end(attempt, *outcome);
    if (outcome->result < 0)
        errno = outcome->error;
    return outcome->result;
}

}  // namespace

std::optional<ScriptedSockets::Outcome> ScriptedSockets::State::begin(Attempt& attempt,
                                                                      size_t& length)
{
    std::function<std::optional<Outcome>(const Attempt&)> asked;
    {
        std::lock_guard<std::mutex> lock(mutex);
        attempt.number = counts[attempt.operation]++;
        asked = hook;
    }
    if (asked)
        if (const auto outcome = asked(attempt))
            return outcome;

    std::lock_guard<std::mutex> lock(mutex);
    const Script& script = scripts[attempt.operation];
    if (const auto found = script.outcomes.find(attempt.number); found != script.outcomes.end())
        return found->second;
    if (script.outcomeFrom && attempt.number >= script.outcomeFrom->first)
        return script.outcomeFrom->second;
    size_t cap = script.cap;
    if (const auto found = script.caps.find(attempt.number); found != script.caps.end())
        cap = found->second;
    if (cap != 0 && attempt.operation != Poll)
        length = std::min(length, cap);
    return std::nullopt;
}

void ScriptedSockets::State::end(const Attempt& attempt, Outcome outcome)
{
    Call call{attempt.operation,
              attempt.fd,
              attempt.length,
              attempt.flags,
              outcome.result,
              outcome.result < 0 ? outcome.error : 0,
              std::this_thread::get_id(),
              {}};
    if (attempt.operation == Poll && attempt.data != nullptr) {
        const auto* entries = static_cast<const pollfd*>(attempt.data);
        call.polled.assign(entries, entries + attempt.length);
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (calls.size() < kMaxRecords)
        calls.push_back(std::move(call));
}

ScriptedSockets::ScriptedSockets() : mState(std::make_shared<State>())
{
    std::lock_guard<std::mutex> lock(InstanceMutex());
    if (Instance()) {
        std::fprintf(stderr, "ScriptedSockets: there is one already\n");
        std::abort();
    }
    Instance() = mState;
    gInstalled = true;
}

ScriptedSockets::~ScriptedSockets()
{
    std::lock_guard<std::mutex> lock(InstanceMutex());
    gInstalled = false;
    Instance().reset();
}

void ScriptedSockets::setOutcome(Operation operation, size_t number, Outcome outcome)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->scripts[operation].outcomes[number] = outcome;
}

void ScriptedSockets::fail(Operation operation, size_t number, int error)
{
    setOutcome(operation, number, {-1, error});
}

void ScriptedSockets::setOutcomeFrom(Operation operation, size_t number, Outcome outcome)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->scripts[operation].outcomeFrom = {number, outcome};
}

void ScriptedSockets::failFrom(Operation operation, size_t number, int error)
{
    setOutcomeFrom(operation, number, {-1, error});
}

void ScriptedSockets::cap(Operation operation, size_t bytes)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->scripts[operation].cap = bytes;
}

void ScriptedSockets::capEach(Operation operation, const std::vector<size_t>& bytes)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    for (size_t i = 0; i < bytes.size(); ++i)
        mState->scripts[operation].caps[mState->counts[operation] + i] = bytes[i];
}

void ScriptedSockets::onCall(std::function<std::optional<Outcome>(const Attempt&)> hook)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->hook = std::move(hook);
}

void ScriptedSockets::passThrough()
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    for (State::Script& script : mState->scripts)
        script = {};
    mState->hook = nullptr;
}

std::vector<ScriptedSockets::Call> ScriptedSockets::calls() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->calls;
}

std::vector<ScriptedSockets::Call> ScriptedSockets::callsOf(Operation operation) const
{
    std::vector<Call> found;
    for (Call& call : calls())
        if (call.operation == operation)
            found.push_back(std::move(call));
    return found;
}

size_t ScriptedSockets::count(Operation operation) const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->counts[operation];
}

void ScriptedSockets::clearCalls()
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->calls.clear();
    for (size_t& count : mState->counts)
        count = 0;
}

}  // namespace qv::tests

using qv::tests::ScriptedSockets;

extern "C" {

ssize_t send(int fd, const void* buffer, size_t length, int flags)
{
    static const auto real = qv::tests::Real<ssize_t (*)(int, const void*, size_t, int)>("send");
    return qv::tests::Perform(
        {ScriptedSockets::Send, 0, fd, length, flags, const_cast<void*>(buffer)},
        [&](size_t bytes) { return real(fd, buffer, bytes, flags); });
}

ssize_t recv(int fd, void* buffer, size_t length, int flags)
{
    static const auto real = qv::tests::Real<ssize_t (*)(int, void*, size_t, int)>("recv");
    return qv::tests::Perform({ScriptedSockets::Recv, 0, fd, length, flags, buffer},
                              [&](size_t bytes) { return real(fd, buffer, bytes, flags); });
}

int poll(pollfd* entries, nfds_t count, int timeoutMs)
{
    static const auto real = qv::tests::Real<int (*)(pollfd*, nfds_t, int)>("poll");
    return static_cast<int>(
        qv::tests::Perform({ScriptedSockets::Poll, 0, -1, count, timeoutMs, entries},
                           [&](size_t) -> ssize_t { return real(entries, count, timeoutMs); }));
}
}

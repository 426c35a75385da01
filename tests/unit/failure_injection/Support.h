// Support of the failure injection tests.
#ifndef WENDREL_TESTS_FAILURE_INJECTION_SUPPORT_H
#define WENDREL_TESTS_FAILURE_INJECTION_SUPPORT_H

#include "support/FailingCalls.h"
#include "support/RecordingDaemon.h"
#include "support/ScriptedSockets.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <initializer_list>
#include <string>

namespace qv::tests
{

// Texts of this length do not fit into a string object itself.
inline const std::string kLongText = "a text that is too long to do without memory of its own";

// One operation: its name as it is printed, and the body of a run.
struct Operation
{
    const char* name;
    std::function<void(Attempt&)> body;
    Points points = Points::Some;
};

inline void FailEachCallOf(std::initializer_list<Operation> operations)
{
    for (const Operation& each : operations)
        FailEachCall(each.name, each.body, each.points);
}

// For an operation with a strong promise: it is done, or an exception comes out of it and the
// object is as it was before; then it can be done again.
template <typename Make, typename Operate, typename Look>
Operation AllOrNothing(const char* name, Make make, Operate operate, Look look,
                       Points points = Points::Some)
{
    return {name,
            [make, operate, look](Attempt& attempt) {
                const auto object = make();
                const auto before = look(*object);
                const auto other = make();
                operate(*other);
                const auto after = look(*other);
                const bool done = attempt([&] { operate(*object); });
                EXPECT_EQ(look(*object), done ? after : before);
                if (!done)
                    operate(*object);
                EXPECT_EQ(look(*object), after);
            },
            points};
}

// The daemon's calls that can fail for want of memory or resources do so in their turn.
class FailingDaemon : public RecordingDaemon
{
public:
    FailingDaemon()
    {
        refuseWhen([](const std::string& function) {
            return CanFail(function) && ShouldFail(Failing::Daemon);
        });
    }

private:
    static bool CanFail(const std::string& function)
    {
        return function.rfind("MHD_create_response_", 0) == 0 ||
               function == "MHD_add_response_header" || function == "MHD_queue_response" ||
               function == "MHD_start_daemon" || function == "MHD_get_connection_info" ||
               function == "MHD_get_daemon_info";
    }
};

// send, recv and poll fail in their turn.
class FailingSockets : public ScriptedSockets
{
public:
    explicit FailingSockets(int error = ECONNRESET)
    {
        onCall([error](const Attempt& call) -> std::optional<Outcome> {
            constexpr Failing kKinds[] = {Failing::Send, Failing::Receive, Failing::Poll};
            if (!ShouldFail(kKinds[call.operation]))
                return std::nullopt;
            return Outcome{-1, error};
        });
    }
};

}  // namespace qv::tests

#endif

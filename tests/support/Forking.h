// Children of a test program that share its memory as it was at the fork.
#ifndef WENDREL_TESTS_SUPPORT_FORKING_H
#define WENDREL_TESTS_SUPPORT_FORKING_H

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qv::tests
{

// False where a child may not allocate while other threads of its parent do: the runtime of
// AddressSanitizer does not hold the locks of its allocator across a fork.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kChildrenAllocate = false;
#else
constexpr bool kChildrenAllocate = true;
#endif

// Runs `function` in a child. False when the child does not end by itself within the limit, or ends
// by a signal. No destructor and no exit handler runs in the child.
template <typename Function> bool endsInAChild(Function function)
{
    constexpr unsigned kLimitSeconds = 60;
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(kLimitSeconds);  // ends the child by a signal
        function();
        ::_exit(0);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace qv::tests

#endif

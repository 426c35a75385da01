// How a fuzz target says that a promise has been broken.
#ifndef WENDREL_TESTS_FUZZ_CHECK_H
#define WENDREL_TESTS_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

// Ends the process, so that libFuzzer keeps the input. Unlike assert it is there in every build.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, #condition);   \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

#endif

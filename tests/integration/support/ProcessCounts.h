// The numbers of open descriptors and of threads of this process.
#ifndef WENDREL_TESTS_INTEGRATION_PROCESSCOUNTS_H
#define WENDREL_TESTS_INTEGRATION_PROCESSCOUNTS_H

#include <cstddef>

namespace integration
{

// Each counts one or two too many, always the same: only differences mean something.
size_t countDescriptors();
size_t countThreads();

}  // namespace integration

#endif

/// The waits and latches of tests/support under the names of the integration tests.
#ifndef WENDREL_TESTS_INTEGRATION_WAITING_H
#define WENDREL_TESTS_INTEGRATION_WAITING_H

#include <support/Waiting.h>

namespace integration
{

using qv::tests::Channel;
using qv::tests::kLimit;
using qv::tests::Latch;
using qv::tests::waitUntil;

}  // namespace integration

#endif

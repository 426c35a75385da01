/// The log of the process, installed by main and cleared before each test.
#ifndef WENDREL_TESTS_INTEGRATION_PROCESSLOG_H
#define WENDREL_TESTS_INTEGRATION_PROCESSLOG_H

#include <support/CapturedLog.h>

#include <memory>

namespace integration
{

inline std::unique_ptr<qv::tests::CapturedLog> processLog;

}  // namespace integration

#endif

// Why a request ended without its response: the texts of the body devices and of onAborted.
#ifndef WENDREL_STREAMING_ABORTREASON_H
#define WENDREL_STREAMING_ABORTREASON_H

namespace qv::impl
{

inline constexpr const char* kWriteError = "WriteError";
inline constexpr const char* kTimeoutReached = "TimeoutReached";
inline constexpr const char* kDaemonShutdown = "DaemonShutdown";
inline constexpr const char* kReadError = "ReadError";
inline constexpr const char* kClientAbort = "ClientAbort";
inline constexpr const char* kBodyDiscarded = "BodyDiscarded";
inline constexpr const char* kMemoryExhausted = "MemoryExhausted";
inline constexpr const char* kUpgradeRefused = "UpgradeRefused";

// Of a response device whose connection is the application's; no reason of onAborted.
inline constexpr const char* kUpgraded = "Upgraded";

// Of an MHD_RequestTerminationCode; null when the response was sent, and for an unknown code.
const char* AbortReason(int terminationCode);

}  // namespace qv::impl

#endif

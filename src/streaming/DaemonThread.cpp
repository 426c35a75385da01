// The mark of a daemon thread, and the log line of an operation that it refuses.

#include "streaming/DaemonThread.h"

#include "server/logging/LogObject.h"

#include <qvSystem/qvSystemUtils.h>

#include <atomic>
#include <cstdint>

namespace qv::impl
{
namespace
{

constexpr int64_t kRefusalIntervalMs = 1000;

[[gnu::tls_model("initial-exec")]] thread_local bool tIsDaemonThread = false;

}  // namespace

void DaemonThread::mark()
{
    tIsDaemonThread = true;
}

bool DaemonThread::isCurrent()
{
    return tIsDaemonThread;
}

void DaemonThread::logRefusal(const char* operation)
{
    static std::atomic<int64_t> nextMs{0};
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    int64_t due = nextMs;
    if (nowMs < due || !nextMs.compare_exchange_strong(due, nowMs + kRefusalIntervalMs))
        return;
    qvLogObject(qvLogObject::kWarning) << operation << " refused: it would wait on a daemon thread";
}

}  // namespace qv::impl

#ifndef QVSYSTEM_QVSYSTEMUTILS_H
#define QVSYSTEM_QVSYSTEMUTILS_H

#include <qvSystem/Export.h>

#include <cstdint>

namespace qv
{

/// Clocks and facts of the machine. All operations may be called from any thread.
class QV_EXPORT qvSystemUtils
{
public:
    /// Milliseconds of the monotonic clock; only differences mean anything.
    static int64_t GetTimeBaseMs();

    /// Milliseconds of wall-clock time since 1970-01-01 00:00 UTC.
    static int64_t GetMSecElapsedSinceEpoch();

    /// Number of threads the machine runs at once; at least 1.
    static uint32_t GetIdealThreadCount();
};

}  // namespace qv

#endif

#ifndef OSTRAND_OSTRAND_H
#define OSTRAND_OSTRAND_H

#include <qvSystem/Export.h>

#include <string>

namespace qv
{

/// Counts one use of the HTTP helper library. `options` is reserved: pass an empty string.
/// Any thread.
QV_EXPORT void initializeOstrand(const std::string& options);

/// Undoes one `initializeOstrand`. Any thread.
QV_EXPORT void terminateOstrand();

/// True between the first initialisation and the last termination. Any thread.
QV_EXPORT bool IsOstrandInitialized();

}  // namespace qv

#endif

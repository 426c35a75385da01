#ifndef QVSYSTEM_LIBINITCOUNTER_H
#define QVSYSTEM_LIBINITCOUNTER_H

#include <qvSystem/Export.h>

#include <atomic>
#include <map>
#include <string>

namespace qv
{

/// Third-party libraries in use by this process: name to version text. Sorted by name; a copy.
/// Any thread.
QV_EXPORT std::map<std::string, std::string> GetThirdPartyLibVersionInfos();

namespace impl
{

/// Counts how often a library has been initialised. All operations may be called from any
/// thread; the count never goes below zero.
class QV_EXPORT LibInitCounter
{
public:
    /// `name` must outlive the counter (a string literal). With `strict` a termination
    /// without a matching initialisation is reported on standard error, as it is a
    /// mistake in the application. A static counter counts also before its own library's static
    /// objects are made.
    constexpr LibInitCounter(const char* name, bool strict)
        : mName(name), mStrict(strict), mCount(0)
    {}

    LibInitCounter(const LibInitCounter&) = delete;
    LibInitCounter& operator=(const LibInitCounter&) = delete;

    /// Adds one; true exactly when the count went from zero to one.
    bool incrementInitCounter();

    /// Subtracts one; true exactly when the count went from one to zero. At zero it stays
    /// there and returns false.
    bool decrementInitCounter();

    /// True while the count is above zero.
    bool isInitialized() const;

private:
    const char* mName;
    bool mStrict;
    std::atomic<int> mCount;
};

/// Records that the third-party library `name` is in use; a second call replaces the version.
/// Both texts are copied. Any thread.
QV_EXPORT void RegisterThirdPartyLibVersionInfo(const char* name, const char* version);

/// Removes the record of `name`; without one it does nothing. Any thread.
QV_EXPORT void UnRegisterThirdPartyLibVersionInfo(const char* name);

}  // namespace impl
}  // namespace qv

#endif

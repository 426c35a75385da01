// The counter of initialisations, and the registry of third-party libraries in use.

#include <qvSystem/LibInitCounter.h>

#include <qvSystem/ForkSafety.h>
#include <qvSystem/qvMutex.h>

#include <spdlog/version.h>

#include <cstdio>
#include <utility>

namespace qv
{
namespace
{

std::string spdlogVersion()
{
    return std::to_string(SPDLOG_VER_MAJOR) + '.' + std::to_string(SPDLOG_VER_MINOR) + '.' +
           std::to_string(SPDLOG_VER_PATCH);
}

struct Registry
{
    // The log of this library uses spdlog.
    Registry() { versions["spdlog"] = spdlogVersion(); }

    qvMutex mutex;
    std::map<std::string, std::string> versions QV_GUARDED_BY(mutex);
};

Registry& registry();

void lockRegistry() QV_NO_THREAD_SAFETY_ANALYSIS
{
    registry().mutex.lock();
}

void unlockRegistry() QV_NO_THREAD_SAFETY_ANALYSIS
{
    registry().mutex.unlock();
}

// Made on first use and never destroyed: libraries and applications register while static
// objects are still being made, and unregister while they are being destroyed.
Registry& registry()
{
    static Registry& theRegistry = *new Registry;
    static const bool isHeld = (holdAcrossForks<&lockRegistry, &unlockRegistry>(), true);
    static_cast<void>(isHeld);
    return theRegistry;
}

}  // namespace

std::map<std::string, std::string> GetThirdPartyLibVersionInfos()
{
    qvMutexLocker locker(&registry().mutex);
    return registry().versions;
}

namespace impl
{

bool LibInitCounter::incrementInitCounter()
{
    return mCount.fetch_add(1) == 0;
}

bool LibInitCounter::decrementInitCounter()
{
    int count = mCount;
    do {
        if (count == 0) {
            if (mStrict)
                std::fprintf(stderr, "%s: terminated more often than initialised\n", mName);
            return false;
        }
    } while (!mCount.compare_exchange_weak(count, count - 1));
    return count == 1;
}

bool LibInitCounter::isInitialized() const
{
    return mCount > 0;
}

void RegisterThirdPartyLibVersionInfo(const char* name, const char* version)
{
    std::string text = version;
    qvMutexLocker locker(&registry().mutex);
    registry().versions[name] = std::move(text);
}

void UnRegisterThirdPartyLibVersionInfo(const char* name)
{
    qvMutexLocker locker(&registry().mutex);
    registry().versions.erase(name);
}

}  // namespace impl
}  // namespace qv

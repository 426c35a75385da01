// Counting initialisations, and what outside libraries are in use.

#include <qvSystem/LibInitCounter.h>

#include <qvSystem/qvMutex.h>

#include <cstdio>

namespace qv
{
namespace
{

struct Registry
{
    qvMutex mutex;
    std::map<std::string, std::string> versions QV_GUARDED_BY(mutex);
};

// Made on first use: libraries register while static objects are still being made.
Registry& registry()
{
    static Registry theRegistry;
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

LibInitCounter::LibInitCounter(const char* name, bool strict)
    : mName(name), mStrict(strict), mCount(0)
{}

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
    qvMutexLocker locker(&registry().mutex);
    registry().versions[name] = version;
}

void UnRegisterThirdPartyLibVersionInfo(const char* name)
{
    qvMutexLocker locker(&registry().mutex);
    registry().versions.erase(name);
}

}  // namespace impl
}  // namespace qv

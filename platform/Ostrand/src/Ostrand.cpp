// The HTTP helper library's coming up and going down.

#include <Ostrand/Ostrand.h>

#include <qvSystem/ForkSafety.h>
#include <qvSystem/LibInitCounter.h>
#include <qvSystem/qvMutex.h>

#include <boost/version.hpp>

namespace qv
{
namespace
{

constexpr const char* kUrlLibrary = "Boost.URL";

struct State
{
    qvMutex mutex;  // keeps count and registration together
    impl::LibInitCounter counter{"ostrand", true};
};

// Made on first use and never destroyed: static objects of an application may come here
// before ours are made and after they are gone.
State& state();

void lockState() QV_NO_THREAD_SAFETY_ANALYSIS
{
    state().mutex.lock();
}

void unlockState() QV_NO_THREAD_SAFETY_ANALYSIS
{
    state().mutex.unlock();
}

State& state()
{
    static State& theState = *new State;
    static const bool isHeld = (holdAcrossForks<&lockState, &unlockState>(), true);
    static_cast<void>(isHeld);
    return theState;
}

// "1_81" as "1.81".
std::string boostVersion()
{
    std::string text = BOOST_LIB_VERSION;
    for (char& c : text) {
        if (c == '_')
            c = '.';
    }
    return text;
}

}  // namespace

void initializeOstrand(const std::string&)
{
    qvMutexLocker locker(&state().mutex);
    if (state().counter.incrementInitCounter())
        impl::RegisterThirdPartyLibVersionInfo(kUrlLibrary, boostVersion().c_str());
}

void terminateOstrand()
{
    qvMutexLocker locker(&state().mutex);
    if (state().counter.decrementInitCounter())
        impl::UnRegisterThirdPartyLibVersionInfo(kUrlLibrary);
}

bool IsOstrandInitialized()
{
    return state().counter.isInitialized();
}

}  // namespace qv

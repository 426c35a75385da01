// Resumes the response of a body source, for as long as there is one.

#include "streaming/BodySignal.h"

#include <Wendrel/BodySource.h>

#include "request/DispatchAccess.h"

namespace qv
{

BodyResumer::BodyResumer() : mSignal(std::make_shared<impl::BodySignal>()) {}

void BodyResumer::resume() const
{
    if (mSignal)
        mSignal->resume();
}

bool impl::BodySignal::attach(HttpResponseDevice& device)
{
    const qvMutexLocker locker(&mMutex);
    if (mDevice)
        return false;
    mDevice = &device;
    return true;
}

void impl::BodySignal::detach()
{
    const qvMutexLocker locker(&mMutex);
    mDevice = nullptr;
}

void impl::BodySignal::resume()
{
    const qvMutexLocker locker(&mMutex);
    if (mDevice)
        DispatchAccess::resumeSource(*mDevice);
}

}  // namespace qv

// The state that the handles of one body source share: the device that is resumed.
#ifndef WENDREL_STREAMING_BODYSIGNAL_H
#define WENDREL_STREAMING_BODYSIGNAL_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

namespace qv
{
class HttpResponseDevice;
}

namespace qv::impl
{

// The device is in use while the mutex is held: it detaches itself before it is destroyed, and
// before its request is completed.
class BodySignal
{
public:
    // False when the signal has a device already.
    bool attach(HttpResponseDevice& device);

    // Waits for a `resume` that is under way. The device's mutex is not held.
    void detach();

    // Any thread.
    void resume();

private:
    // While it is held, the device's mutex is taken, never the other way round.
    qvMutex mMutex;
    HttpResponseDevice* mDevice QV_GUARDED_BY(mMutex) = nullptr;
};

}  // namespace qv::impl

#endif

// The error state that every device has.

#include <qvSystem/qvIoDevice.h>

namespace qv
{

qvIoDevice::qvIoDevice(int dataWay) : mDataWay(dataWay), mHasError(false) {}

qvIoDevice::~qvIoDevice() = default;

bool qvIoDevice::hasDeviceError() const
{
    return mHasError;
}

std::string qvIoDevice::getDeviceErrorMsg() const
{
    qvMutexLocker locker(&mErrorMutex);
    return mErrorMsg;
}

bool qvIoDevice::writeBackToDevice()
{
    return true;
}

void qvIoDevice::setDeviceError(const std::string& message)
{
    qvMutexLocker locker(&mErrorMutex);
    if (mHasError)
        return;
    mErrorMsg = message;
    mHasError = true;
}

void qvIoDevice::clearDeviceError()
{
    qvMutexLocker locker(&mErrorMutex);
    mErrorMsg.clear();
    mHasError = false;
}

int qvIoDevice::getDataWay() const
{
    return mDataWay;
}

}  // namespace qv

#ifndef QVSYSTEM_QVIODEVICE_H
#define QVSYSTEM_QVIODEVICE_H

#include <qvSystem/Export.h>
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qv
{

/// Base of everything that bytes are read from or written to.
///
/// A device that has met an error keeps its text until `clearDeviceError`. Whether a
/// device is in error can be asked from any thread without a lock.
class QV_EXPORT qvIoDevice
{
public:
    /// Which way data may go; the values are bits.
    enum DataWay : int { ReadWay = 1, WriteWay = 2, BothWays = 3 };

    /// `dataWay`: bits of `DataWay`.
    explicit qvIoDevice(int dataWay);

    virtual ~qvIoDevice();
    qvIoDevice(const qvIoDevice&) = delete;
    qvIoDevice& operator=(const qvIoDevice&) = delete;

    /// Reads up to `len` bytes into `buf`; returns how many were read.
    virtual uint64_t readBytes(char* buf, size_t len) = 0;

    /// Writes `len` bytes from `data`; returns how many were taken.
    virtual uint64_t writeBytes(const char* data, size_t len) = 0;

    /// True when nothing more can be read.
    virtual bool atEnd() const = 0;

    /// True while the device is in error. Any thread, no lock.
    virtual bool hasDeviceError() const;

    /// Text of the error; empty when there is none. Any thread.
    virtual std::string getDeviceErrorMsg() const;

    /// Pushes bytes held back by the device on to where they go. Returns true when nothing
    /// is held back any more; the base has nothing to push and returns true.
    virtual bool writeBackToDevice();

    /// Puts the device in error. The text of the first error is kept until
    /// `clearDeviceError`; later ones are dropped. Any thread.
    void setDeviceError(const std::string& message);

    /// Takes the device out of error. Any thread.
    void clearDeviceError();

    /// The data way given to the constructor.
    int getDataWay() const;

private:
    const int mDataWay;
    std::atomic<bool> mHasError;
    mutable qvMutex mErrorMutex;
    std::string mErrorMsg QV_GUARDED_BY(mErrorMutex);
};

}  // namespace qv

#endif

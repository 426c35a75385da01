// Hooks into the wait for the body.

#include "DropRequest.h"

#include "ClientSocket.h"

#include <Wendrel/HttpDevices.h>
#include <qvSystem/qvSystemUtils.h>

namespace filedrop
{

namespace
{

constexpr int64_t kQuietMs = 900;  // a wait that ends by itself takes a second

}  // namespace

qv::kit::BodyResult DropRequest::readBody(char* buf, size_t len, size_t& got,
                                          const std::function<bool(size_t)>& stored)
{
    mStored = &stored;
    mReceivedBefore = getReceiveDevice().getReceivedBytes();
    mWaits = false;
    const qv::kit::BodyResult result = Request::readBody(buf, len, got);
    mStored = nullptr;
    return result;
}

void DropRequest::onWaitingForData()
{
    if (isCompleted()) {
        getReceiveDevice().setDeviceError("the request ended before its body was complete");
        return;
    }
    // The first call of a read comes before anything was looked at, without the lock.
    if (mStored == nullptr || !mWaits) {
        mWaits = true;
        return;
    }
    const uint64_t received = getReceiveDevice().getReceivedBytes();
    watchClient(received);
    if (!(*mStored)(static_cast<size_t>(received - mReceivedBefore)))
        getReceiveDevice().setDeviceError("the upload was given up");
}

// The connection of a silent client may be closed without the daemon's knowledge.
void DropRequest::watchClient(uint64_t received)
{
    const int64_t now = qv::qvSystemUtils::GetTimeBaseMs();
    if (received != mLastReceived || mQuietSinceMs == 0) {
        mLastReceived = received;
        mQuietSinceMs = now;
    } else if (now - mQuietSinceMs > kQuietMs) {
        mQuietSinceMs = now;
        wakeDaemonIfClosed(getClientAddress());
    }
}

uint64_t DropRequest::takeNewlyWritten()
{
    const uint64_t written = getResponseDevice().getSentBytes();
    const uint64_t added = written - mWrittenBefore;
    mWrittenBefore = written;
    return added;
}

}  // namespace filedrop

/// The request class of filedrop.
#ifndef FILEDROP_DROPREQUEST_H
#define FILEDROP_DROPREQUEST_H

#include <Wendrel/kit/Request.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace filedrop
{

/// A request that can do something useful while it waits for its body.
class DropRequest : public qv::kit::Request
{
public:
    /// Reads like `readBody` of the kit and calls `stored` with the number of bytes that are in
    /// `buf` by then, each time before it waits for more. During that call the daemon cannot add to
    /// the body: the receive device's lock is held. `stored` returns false to end the read; it must
    /// not touch the receive device.
    qv::kit::BodyResult readBody(char* buf, size_t len, size_t& got,
                                 const std::function<bool(size_t)>& stored);

    /// Bytes of the response written since the last call. Thread: the request's worker.
    uint64_t takeNewlyWritten();

private:
    void onWaitingForData() override;
    void watchClient(uint64_t received);

    const std::function<bool(size_t)>* mStored = nullptr;
    uint64_t mReceivedBefore = 0;
    uint64_t mWrittenBefore = 0;
    uint64_t mLastReceived = 0;
    int64_t mQuietSinceMs = 0;
    bool mWaits = false;
};

}  // namespace filedrop

#endif

/// The content of a file on its way to a client.
#ifndef FILEDROP_DOWNLOAD_H
#define FILEDROP_DOWNLOAD_H

#include "AccessLine.h"

#include <Wendrel/BodySource.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace filedrop
{

/// Passes a source on, counts its bytes, and writes the line of the request when the server is done
/// with it: the handler has returned long before.
class Download : public qv::BodySource
{
public:
    /// Of a response with `status`. `counter` grows by each byte that the server fetches, and
    /// outlives the server.
    Download(std::unique_ptr<qv::BodySource> content, int status, AccessLine line,
             std::atomic<uint64_t>& counter);
    ~Download() override;

    int64_t getLength() const override { return mContent->getLength(); }
    qv::BodyRead read(uint64_t offset, char* buffer, size_t size) override;
    size_t getBlockBytes() const override { return mContent->getBlockBytes(); }

private:
    const std::unique_ptr<qv::BodySource> mContent;
    const int mStatus;
    const AccessLine mLine;
    std::atomic<uint64_t>& mCounter;
    uint64_t mSentBytes = 0;
};

}  // namespace filedrop

#endif

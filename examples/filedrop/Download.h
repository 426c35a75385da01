/// The content of a file on its way to a client.
#ifndef FILEDROP_DOWNLOAD_H
#define FILEDROP_DOWNLOAD_H

#include <Wendrel/BodySource.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace filedrop
{

/// Passes a source on and counts its bytes while the server sends them: the handler has returned
/// long before.
class Download : public qv::BodySource
{
public:
    /// `counter` grows by each byte that the server fetches, and outlives the server.
    Download(std::unique_ptr<qv::BodySource> content, std::atomic<uint64_t>& counter);

    int64_t getLength() const override { return mContent->getLength(); }
    qv::BodyRead read(uint64_t offset, char* buffer, size_t size) override;
    size_t getBlockBytes() const override { return mContent->getBlockBytes(); }

private:
    const std::unique_ptr<qv::BodySource> mContent;
    std::atomic<uint64_t>& mCounter;
};

}  // namespace filedrop

#endif

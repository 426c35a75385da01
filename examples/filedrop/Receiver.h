/// From the network to the disk.
#ifndef FILEDROP_RECEIVER_H
#define FILEDROP_RECEIVER_H

#include "DropRequest.h"
#include "FileStore.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace filedrop
{

/// Brings the body of one request to the disk, in constant memory.
///
/// The library keeps everything that a client sends until it is read, so a client that is
/// faster than the disk would fill the memory. Therefore all writing to the disk is done
/// where a read waits for more of the body: the receive device is locked there, the daemon's
/// thread that has more bytes stands still, and TCP slows the client down. The price: other
/// connections of that thread wait for the disk too.
///
/// Used by the request's worker.
class Receiver
{
public:
    enum class Result {
        Stored,    ///< `commit` may give it its name
        TooLarge,  ///< more than the limit
        Lost,      ///< the connection is closed or the server stops
        NoSpace,
        Failed  ///< with errno
    };

    /// `limitBytes` 0: no limit. `counter` grows by each byte received.
    Receiver(DropRequest& request, const FileStore& store, uint64_t limitBytes,
             std::atomic<uint64_t>& counter);

    /// Reads the whole body into an upload. When it returns anything but Stored, nothing is
    /// left of it.
    Result receive();

    /// Renames the received file; after `receive` returned Stored, once.
    StoreResult commit(const std::string& name);

    uint64_t size() const { return mTaken; }

private:
    // The memory is not cleared: the unused part of a large block costs nothing.
    struct Block
    {
        explicit Block(size_t bytes) : data(new char[bytes]), capacity(bytes) {}

        std::unique_ptr<char[]> data;
        size_t capacity;
        size_t filled = 0;
        size_t stored = 0;
    };

    bool take(Block& block, size_t filled);
    bool storeBlocks();
    bool storeBlock(Block& block);
    void addBlock(bool waited);
    void discard();
    bool fail(Result result);

    DropRequest& mRequest;
    const FileStore& mStore;
    const uint64_t mLimitBytes;
    std::atomic<uint64_t>& mCounter;
    std::unique_ptr<Upload> mUpload;
    std::list<Block> mBlocks;  // the last one is being filled
    uint64_t mTaken = 0;
    Result mResult = Result::Stored;
};

}  // namespace filedrop

#endif

// The way of an upload. See the class for why the disk is written to while a read waits.

#include "Receiver.h"

#include <cerrno>

namespace filedrop
{

namespace
{

using qv::kit::BodyResult;

constexpr size_t kBlockBytes = 1u << 20;

}  // namespace

Receiver::Receiver(DropRequest& request, const FileStore& store, uint64_t limitBytes,
                   std::atomic<uint64_t>& counter)
    : mRequest(request), mStore(store), mLimitBytes(limitBytes), mCounter(counter)
{
    mBlocks.emplace_back(kBlockBytes);
}

Receiver::Result Receiver::receive()
{
    BodyResult body = BodyResult::More;
    while (body == BodyResult::More) {
        Block& block = mBlocks.back();
        const size_t before = block.filled;
        bool waited = false;
        size_t got = 0;
        body = mRequest.readBody(block.data.get() + before, block.capacity - before, got,
                                 [&](size_t bytes) {
                                     waited = true;
                                     return take(block, before + bytes) && storeBlocks();
                                 });
        if (mResult != Result::Stored || !take(block, before + got))
            return mResult;
        if (body == BodyResult::More)
            addBlock(waited);
    }
    if (body == BodyResult::Complete)
        storeBlocks();
    else
        fail(Result::Lost);
    return mResult;
}

// Counts the bytes received since the last call.
bool Receiver::take(Block& block, size_t filled)
{
    const uint64_t added = filled - block.filled;
    block.filled = filled;
    mTaken += added;
    mCounter += added;
    if (mLimitBytes != 0 && mTaken > mLimitBytes)
        return fail(Result::TooLarge);
    return true;
}

bool Receiver::storeBlocks()
{
    // Making the file may have to wait for the disk as well.
    if (!mUpload)
        mUpload = mStore.beginUpload();
    if (!mUpload)
        return fail(errno == ENOSPC || errno == EDQUOT ? Result::NoSpace : Result::Failed);
    while (mBlocks.size() > 1) {
        if (!storeBlock(mBlocks.front()))
            return false;
        mBlocks.pop_front();
    }
    return storeBlock(mBlocks.back());
}

bool Receiver::storeBlock(Block& block)
{
    const StoreResult result =
        mUpload->write(block.data.get() + block.stored, block.filled - block.stored);
    if (result != StoreResult::Done)
        return fail(result == StoreResult::NoSpace ? Result::NoSpace : Result::Failed);
    block.stored = block.filled;
    return true;
}

// A read that was filled without waiting says that more has come than a block takes. A larger
// block reaches the point where the read has to wait, and only there the daemon stands still.
void Receiver::addBlock(bool waited)
{
    Block& last = mBlocks.back();
    if (waited && last.stored == last.filled && last.capacity == kBlockBytes) {
        last.filled = last.stored = 0;
        return;
    }
    mBlocks.emplace_back(waited ? kBlockBytes : 2 * last.capacity);
}

StoreResult Receiver::commit(const std::string& name)
{
    const StoreResult result = mUpload->commit(name);
    discard();
    return result;
}

// Called before the response, so that the client never finds a refused upload.
void Receiver::discard()
{
    const int error = errno;
    mUpload.reset();
    errno = error;
}

bool Receiver::fail(Result result)
{
    discard();
    mResult = result;
    return false;
}

}  // namespace filedrop

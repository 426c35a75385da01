// An upload on its way from the daemon to the worker that reads it.

#include "bare/UploadQueue.h"

#include <cstring>
#include <utility>

namespace bench
{

void UploadQueue::add(const char* data, size_t count)
{
    Piece piece{std::make_unique_for_overwrite<char[]>(count), count};
    std::memcpy(piece.bytes.get(), data, count);
    {
        const std::lock_guard locker(mMutex);
        mPieces.push_back(std::move(piece));
    }
    mArrived.notify_one();
}

void UploadQueue::end()
{
    const std::lock_guard locker(mMutex);
    mEnded = true;
    mArrived.notify_one();
}

bool UploadQueue::take(std::vector<Piece>& pieces)
{
    pieces.clear();
    std::unique_lock locker(mMutex);
    mArrived.wait(locker, [this] { return mEnded || !mPieces.empty(); });
    pieces.swap(mPieces);
    return !pieces.empty();
}

}  // namespace bench

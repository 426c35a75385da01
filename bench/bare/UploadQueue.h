// An upload on its way from the daemon to the worker that reads it.
#ifndef BENCH_BARE_UPLOADQUEUE_H
#define BENCH_BARE_UPLOADQUEUE_H

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace bench
{

// Without a limit: received data is stored until it is read.
class UploadQueue
{
public:
    struct Piece
    {
        std::unique_ptr<char[]> bytes;
        size_t count;
    };

    // Copies the next piece. Thread: the daemon's.
    void add(const char* data, size_t count);

    // No more will come. Thread: the daemon's.
    void end();

    // Waits for data and replaces the content of `pieces` by it; false at the end.
    bool take(std::vector<Piece>& pieces);

private:
    std::mutex mMutex;
    std::condition_variable mArrived;
    std::vector<Piece> mPieces;
    bool mEnded = false;
};

}  // namespace bench

#endif

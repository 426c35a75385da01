// A body on its way from the worker that writes it to the daemon.
#ifndef BENCH_BARE_STREAMBUFFER_H
#define BENCH_BARE_STREAMBUFFER_H

#include "bare/Suspension.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace bench
{

// A ring of 256 KiB with one writer and one reader; bytes are copied without the lock.
class StreamBuffer
{
public:
    StreamBuffer();

    // Waits for space for a whole piece, at most 64 KiB; false when the reader has closed.
    bool write(const char* data, size_t count);

    // No more will be written.
    void end();

    // Takes up to `size` bytes, or 0 with `ended` saying whether more may come. Never waits, but
    // suspends `connection`, unless null, until more has come.
    size_t read(char* buffer, size_t size, bool& ended, MHD_Connection* connection);

    // Nothing more will be read.
    void close();

private:
    std::mutex mMutex;
    std::condition_variable mSpaceFreed;
    uint64_t mWritten = 0;  // changed by the writer, under mMutex
    uint64_t mRead = 0;     // changed by the reader, under mMutex
    bool mWriterWaits = false;
    bool mEnded = false;
    bool mClosed = false;
    Suspension mSuspension;  // under mMutex
    std::unique_ptr<char[]> mRing;
};

}  // namespace bench

#endif

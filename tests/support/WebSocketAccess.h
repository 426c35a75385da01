// Accessor to the private parts of the connection and its threads, for tests and benchmarks.
#ifndef WENDREL_TESTS_WEBSOCKETACCESS_H
#define WENDREL_TESTS_WEBSOCKETACCESS_H

#include <Wendrel/WebSocket.h>

namespace qv::impl
{

struct WebSocketAccess
{
    using Socket = http::WebSocket;
    using Thread = http::WebSocketThread;

    static int tryToReadFrame(Socket& s) { return s.tryToReadFrame(); }
    static void readRawData(Socket& s, std::vector<uint8_t>& dest, const uint8_t* maskKey,
                            size_t offset)
    {
        s.readRawData(dest, maskKey, offset);
    }
    static void skipBytes(Socket& s, size_t count) { s.skipBytes(count); }
    static void readNoSeek(const Socket& s, uint8_t* out, size_t count)
    {
        s.readNoSeek(out, count);
    }

    // The caller is the only one who uses the object: these take no lock.
    static void writeRawData(Socket& s, const void* data, size_t size) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        s.writeRawData(data, size);
    }
    static void removeWrittenBytes(Socket& s, size_t count) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        s.removeWrittenBytes(count);
    }
    static size_t& writeOffset(Socket& s) QV_NO_THREAD_SAFETY_ANALYSIS { return s.writeOffset; }
    static size_t& lastWriteFill(Socket& s) QV_NO_THREAD_SAFETY_ANALYSIS { return s.lastWriteFill; }
    static std::list<std::vector<uint8_t>>& writeQueue(Socket& s) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return s.writeQueue;
    }
    static std::string& currentThread(Socket& s) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return s.currentThread;
    }

    static const size_t& blockSize(const Socket& s) { return s.blockSize; }
    static size_t& readOffset(Socket& s) { return s.readOffset; }
    static size_t& lastReadFill(Socket& s) { return s.lastReadFill; }
    static std::list<std::vector<uint8_t>>& readQueue(Socket& s) { return s.readQueue; }
    static std::vector<uint8_t>& message(Socket& s) { return s.message; }
    static std::atomic<int>& socket(Socket& s) { return s.socket; }
    static bool& messageIsBinary(Socket& s) { return s.messageIsBinary; }
    static std::atomic<bool>& readPending(Socket& s) { return s.readPending; }
    static void* const& upgradeHandle(const Socket& s) { return s.upgradeHandle; }
    static qvMutex& lock(Socket& s) QV_NO_THREAD_SAFETY_ANALYSIS { return s.lock; }

    static qvMutex& lock(Thread& t) QV_NO_THREAD_SAFETY_ANALYSIS { return t.lock; }

    // These take the thread's lock.
    static size_t newCount(Thread& t)
    {
        qvMutexLocker locker(&t.lock);
        return t.newSockets.size();
    }
    static size_t readyCount(Thread& t)
    {
        qvMutexLocker locker(&t.lock);
        return t.readySockets.size();
    }
    static size_t workerCount(Thread& t)
    {
        qvMutexLocker locker(&t.lock);
        return t.workers.size();
    }
    static bool isPollThreadIdle(Thread& t)
    {
        qvMutexLocker locker(&t.lock);
        return t.pollThreadIdle;
    }
    static bool hasWorkerEnded(Thread& t, size_t index)
    {
        qvMutexLocker locker(&t.lock);
        return t.workers.at(index)->waitThread(0);
    }
};

}  // namespace qv::impl

#endif

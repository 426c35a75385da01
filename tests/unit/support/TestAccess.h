// Accessors to the private state of classes of the library that have no operation to ask for it.
#ifndef WENDREL_TESTS_TESTACCESS_H
#define WENDREL_TESTS_TESTACCESS_H

#include "server/logging/LogObject.h"
#include "streaming/ChunkPool.h"
#include "streaming/Throttle.h"
#include "websocket/BlockPool.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace qv::impl
{

struct TestAccess
{
    static int level(const qvLogObject& o) { return o.mLevel; }
    static const qvLog* sink(const qvLogObject& o) { return o.mSink; }
    static const std::string& threadId(const qvLogObject& o) { return o.mThreadId; }
    static bool isUrgent(const qvLogObject& o) { return o.mUrgent; }
    static bool hasStream(const qvLogObject& o) { return o.mMessage != nullptr; }

    static size_t chunkCount(const ChunkPool& p)
    {
        size_t count = 0;
        for (const auto& group : p.mGroups) {
            for (const auto& slot : group.slots)
                count += slot.state > ChunkPool::kBusy;
        }
        return count;
    }
    static size_t bytes(const ChunkPool& p) { return p.mBytes; }

    static int64_t waitSinceMs(const Throttle& t) { return t.mWaitSinceMs; }
    static int64_t lastSleepMs(const Throttle& t) { return t.mLastSleepMs; }

    static size_t blockCount(const BlockPool& b) { return b.mBlocks.size(); }
};

}  // namespace qv::impl

#endif

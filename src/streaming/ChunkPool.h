// Freed chunks that are used again: allocators are slow at blocks of 64 KiB and more.
#ifndef WENDREL_STREAMING_CHUNKPOOL_H
#define WENDREL_STREAMING_CHUNKPOOL_H

#include <array>
#include <atomic>
#include <cstddef>
#include <vector>

namespace qv::impl
{

struct TestAccess;  // of the tests

// Minimum capacity of a chunk in bytes.
inline constexpr size_t kMinChunkBytes = 65536;

// A process-wide pool of at most 64 chunks and 4 MiB. Any thread: there is no lock, each chunk is
// moved in and out under an atomic state of its slot. A thread that is suspended, or lost by a
// fork, in the middle of a move takes only that slot away from the others.
class ChunkPool
{
public:
    using Chunk = std::vector<char>;

    static constexpr size_t kMaxChunks = 64;
    static constexpr size_t kMaxBytes = 4 << 20;

    // The pool keeps chunks while a user is alive; the last user frees them.
    class User
    {
    public:
        User();
        ~User();
        User(const User&) = delete;
        User& operator=(const User&) = delete;
    };

    // Lives as long as the process: a device may outlive the static objects.
    static ChunkPool& Instance();

    // An empty chunk with exactly `capacity` bytes, from the pool if it has one.
    Chunk take(size_t capacity);

    // Keeps or frees `chunk`. A full pool frees another chunk first.
    void give(Chunk&& chunk);

private:
    friend struct TestAccess;

    // A thread looks into one group first, so that threads seldom meet.
    static constexpr size_t kGroupSlots = 8;
    static constexpr size_t kCacheLineBytes = 64;

    // Values of a slot's state; any other is the capacity of the chunk in the slot.
    static constexpr size_t kEmpty = 0;
    static constexpr size_t kBusy = 1;

    struct Slot
    {
        std::atomic<size_t> state{kEmpty};
        Chunk chunk;  // of the thread that has set the state to kBusy
    };

    struct alignas(kCacheLineBytes) Group
    {
        std::array<Slot, kGroupSlots> slots;
    };

    Slot& slotAt(size_t index);
    bool takeFrom(Slot& slot, size_t capacity, Chunk& chunk);
    bool putInto(Slot& slot, Chunk& chunk);
    bool reserveBytes(size_t bytes);
    void freeOne();
    void freeAll();

    std::array<Group, kMaxChunks / kGroupSlots> mGroups;
    std::atomic<size_t> mBytes{0};  // reserved by chunks kept or on their way in
    std::atomic<size_t> mUsers{0};
    std::atomic<size_t> mNextVictim{0};
};

}  // namespace qv::impl

#endif

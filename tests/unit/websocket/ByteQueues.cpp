// The queues of a connection: blocks of 1024 bytes, filled at one end and consumed at the other.

#include "websocket/Support.h"

namespace qv::tests
{
namespace
{

using Access = WebSocketAccess;
using Queue = std::list<std::vector<uint8_t>>;

constexpr size_t kBlock = 1024;
constexpr MaskKey kKey{0x3d, 0x81, 0x00, 0xf6};

// The bytes of a queue. Fails the test when the sizes of its blocks are wrong.
Bytes Content(const Queue& queue, size_t offset, size_t lastFill)
{
    Bytes bytes;
    for (const auto& block : queue) {
        EXPECT_EQ(block.size(), kBlock);
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    if (queue.empty()) {
        EXPECT_EQ(offset, 0u);
        EXPECT_EQ(lastFill, kBlock);
        return bytes;
    }
    EXPECT_LT(offset, kBlock);
    EXPECT_LE(lastFill, kBlock);
    bytes.resize(bytes.size() - kBlock + lastFill);
    EXPECT_LE(offset, bytes.size());
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(offset));
    return bytes;
}

Bytes WriteContent(WebSocket& socket)
{
    EXPECT_EQ(socket.hasWritePending(), !Access::writeQueue(socket).empty());
    return Content(Access::writeQueue(socket), Access::writeOffset(socket),
                   Access::lastWriteFill(socket));
}

Bytes ReadContent(WebSocket& socket)
{
    return Content(Access::readQueue(socket), Access::readOffset(socket),
                   Access::lastReadFill(socket));
}

// Puts `bytes` into the empty read queue, the first one at `start` of the first block.
void FillRead(WebSocket& socket, const Bytes& bytes, size_t start = 0)
{
    ASSERT_TRUE(Access::readQueue(socket).empty());
    ASSERT_LT(start, kBlock);
    size_t at = start;
    for (const uint8_t byte : bytes) {
        if (Access::readQueue(socket).empty() || at == kBlock) {
            at = Access::readQueue(socket).empty() ? start : 0;
            Access::readQueue(socket).emplace_back(kBlock, 0xee);
        }
        Access::readQueue(socket).back()[at++] = byte;
    }
    if (bytes.empty())
        return;
    Access::readOffset(socket) = start;
    Access::lastReadFill(socket) = at;
}

Bytes Part(const Bytes& bytes, size_t from, size_t count = SIZE_MAX)
{
    const auto begin = bytes.begin() + static_cast<ptrdiff_t>(std::min(from, bytes.size()));
    const size_t left = static_cast<size_t>(bytes.end() - begin);
    return Bytes(begin, begin + static_cast<ptrdiff_t>(std::min(left, count)));
}

Bytes Plain(const Bytes& masked)
{
    Bytes plain;
    for (size_t i = 0; i < masked.size(); ++i)
        plain.push_back(masked[i] ^ kKey[i % 4]);
    return plain;
}

TEST(WebSocketWriteQueue, OpensABlockWithTheFirstByte)
{
    WebSocket socket(-1, nullptr);
    EXPECT_EQ(Access::blockSize(socket), kBlock);
    EXPECT_THAT(WriteContent(socket), testing::IsEmpty());

    Access::writeRawData(socket, "x", 1);
    ASSERT_EQ(Access::writeQueue(socket).size(), 1u);
    EXPECT_EQ(Access::lastWriteFill(socket), 1u);
    Bytes block(kBlock);  // the rest of the block is zero
    block[0] = 'x';
    EXPECT_EQ(Access::writeQueue(socket).front(), block);
}

TEST(WebSocketWriteQueue, TakesNothingOfNoBytes)
{
    WebSocket socket(-1, nullptr);
    Access::writeRawData(socket, nullptr, 0);
    Access::writeRawData(socket, "x", 0);
    EXPECT_TRUE(Access::writeQueue(socket).empty());
    EXPECT_FALSE(socket.hasWritePending());
    EXPECT_EQ(Access::lastWriteFill(socket), kBlock);

    Access::writeRawData(socket, Pattern(kBlock).data(), kBlock);
    Access::writeRawData(socket, "x", 0);
    EXPECT_EQ(Access::writeQueue(socket).size(), 1u);
}

TEST(WebSocketWriteQueue, FillsWholeBlocks)
{
    const struct
    {
        size_t size, blocks, lastFill;
    } rows[] = {
        {1023, 1, 1023}, {1024, 1, 1024}, {1025, 2, 1},      {2047, 2, 1023},
        {2048, 2, 1024}, {2049, 3, 1},    {10240, 10, 1024},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        WebSocket socket(-1, nullptr);
        const Bytes bytes = Pattern(row.size);
        Access::writeRawData(socket, bytes.data(), bytes.size());
        EXPECT_EQ(Access::writeQueue(socket).size(), row.blocks);
        EXPECT_EQ(Access::lastWriteFill(socket), row.lastFill);
        EXPECT_EQ(Access::writeOffset(socket), 0u);
        EXPECT_EQ(WriteContent(socket), bytes);

        Access::writeRawData(socket, "+", 1);  // goes on where the last one ended
        EXPECT_EQ(Access::writeQueue(socket).size(), row.size / kBlock + 1);
        EXPECT_EQ(WriteContent(socket), bytes + ToBytes("+"));
    }
}

TEST(WebSocketWriteQueue, HoldsTheSameForAnyPieces)
{
    const Bytes bytes = Pattern(5000);
    for (const size_t piece : {1, 2, 3, 10, 1000, 1023, 1024, 1025, 2048, 4999}) {
        SCOPED_TRACE(piece);
        WebSocket socket(-1, nullptr);
        for (size_t at = 0; at < bytes.size(); at += piece)
            Access::writeRawData(socket, bytes.data() + at, std::min(piece, bytes.size() - at));
        EXPECT_EQ(Access::writeQueue(socket).size(), 5u);
        EXPECT_EQ(WriteContent(socket), bytes);
    }
}

TEST(WebSocketWriteQueue, ForgetsWrittenBytesWhereverTheyEnd)
{
    const Bytes bytes = Pattern(2500);
    for (size_t first = 0; first <= kBlock; ++first) {
        WebSocket socket(-1, nullptr);
        Access::writeRawData(socket, bytes.data(), bytes.size());
        Access::removeWrittenBytes(socket, first);
        ASSERT_EQ(Access::writeOffset(socket), first % kBlock);
        ASSERT_EQ(Access::writeQueue(socket).size(), first == kBlock ? 2u : 3u) << first;
        ASSERT_EQ(WriteContent(socket), Part(bytes, first));
    }
}

TEST(WebSocketWriteQueue, IsAsNewWhenAllIsWritten)
{
    for (const size_t size : {1, 1023, 1024, 1025, 2047, 2048, 2049}) {
        SCOPED_TRACE(size);
        WebSocket socket(-1, nullptr);
        const Bytes bytes = Pattern(size);
        Access::writeRawData(socket, bytes.data(), bytes.size());
        for (size_t left = size; left > 0;) {
            EXPECT_TRUE(socket.hasWritePending());
            const size_t part = std::min({left, kBlock - Access::writeOffset(socket), size_t{700}});
            Access::removeWrittenBytes(socket, part);
            left -= part;
            EXPECT_EQ(WriteContent(socket), Part(bytes, size - left));
        }
        EXPECT_FALSE(socket.hasWritePending());
        EXPECT_TRUE(Access::writeQueue(socket).empty());
        EXPECT_EQ(Access::writeOffset(socket), 0u);
        EXPECT_EQ(Access::lastWriteFill(socket), kBlock);
        Access::writeRawData(socket, "x", 1);
        EXPECT_EQ(WriteContent(socket), ToBytes("x"));
    }
}

TEST(WebSocketWriteQueue, GrowsBehindAPartlyWrittenBlock)
{
    WebSocket socket(-1, nullptr);
    const Bytes bytes = Pattern(3000);
    Access::writeRawData(socket, bytes.data(), 600);
    Access::removeWrittenBytes(socket, 599);
    Access::writeRawData(socket, bytes.data() + 600, 2400);
    EXPECT_EQ(Access::writeQueue(socket).size(), 3u);
    EXPECT_EQ(WriteContent(socket), Part(bytes, 599));
    Access::removeWrittenBytes(socket, 425);
    EXPECT_EQ(Access::writeQueue(socket).size(), 2u);
    EXPECT_EQ(WriteContent(socket), Part(bytes, kBlock));
}

// The first block is the only one and its end has been reached: no capacity of it is left for
// reuse.
TEST(WebSocketWriteQueue, ReleasesThePartlyFilledBlockThatIsWritten)
{
    WebSocket socket(-1, nullptr);
    Access::writeRawData(socket, "abc", 3);
    Access::removeWrittenBytes(socket, 3);
    EXPECT_THAT(WriteContent(socket), testing::IsEmpty());
}

TEST(WebSocketReadQueue, SkipsAnyNumberOfBytes)
{
    for (const size_t start : {0, 1, 500, 1010, 1023}) {
        for (const size_t size : {14, 1023, 1024, 1025, 2048, 2500}) {
            const Bytes bytes = Pattern(size);
            for (size_t count = 0; count <= size; ++count) {
                WebSocket socket(-1, nullptr);
                FillRead(socket, bytes, start);
                Access::skipBytes(socket, count);
                const size_t end = start + count;
                const bool all = count == size && end % kBlock == 0;
                ASSERT_EQ(Access::readOffset(socket), all ? 0 : end % kBlock);
                ASSERT_EQ(Access::readQueue(socket).size(),
                          (start + size + kBlock - 1) / kBlock - end / kBlock)
                    << "start " << start << ", " << count << " of " << size;
                ASSERT_EQ(ReadContent(socket), Part(bytes, count))
                    << "start " << start << ", " << count << " of " << size;
            }
        }
    }
}

TEST(WebSocketReadQueue, KeepsTheRestOfAPartlyFilledBlockForTheNextBytes)
{
    WebSocket socket(-1, nullptr);
    FillRead(socket, Pattern(100));
    Access::skipBytes(socket, 100);
    ASSERT_EQ(Access::readQueue(socket).size(), 1u);
    EXPECT_EQ(Access::readOffset(socket), 100u);
    EXPECT_EQ(Access::lastReadFill(socket), 100u);
}

TEST(WebSocketReadQueue, StopsSkippingWhereTheBufferedBytesEnd)
{
    WebSocket empty(-1, nullptr);
    Access::skipBytes(empty, 14);
    EXPECT_THAT(ReadContent(empty), testing::IsEmpty());

    for (const size_t size : {10, 1024, 1030}) {
        SCOPED_TRACE(size);
        WebSocket socket(-1, nullptr);
        FillRead(socket, Pattern(size));
        Access::skipBytes(socket, size + 4);
        EXPECT_THAT(ReadContent(socket), testing::IsEmpty());
    }
}

TEST(WebSocketReadQueue, LooksAheadWithoutConsuming)
{
    for (size_t start = kBlock - 20; start < kBlock; ++start) {
        for (size_t size = 0; size <= 40; ++size) {
            const Bytes bytes = Pattern(size);
            WebSocket socket(-1, nullptr);
            FillRead(socket, bytes, start);
            for (const size_t count : {0, 1, 6, 14}) {
                Bytes out(16, 0xdd);
                Access::readNoSeek(socket, out.data(), count);
                const size_t copied = std::min<size_t>(count, size);
                ASSERT_EQ(out, Part(bytes, 0, copied) + Bytes(16 - copied, 0xdd))
                    << "start " << start << ", " << count << " of " << size;
            }
            ASSERT_EQ(ReadContent(socket), bytes);
        }
    }
}

TEST(WebSocketReadQueue, LooksAheadOverManyBlocks)
{
    const Bytes bytes = Pattern(5000);
    WebSocket socket(-1, nullptr);
    FillRead(socket, bytes, 77);
    Bytes out(5000);
    Access::readNoSeek(socket, out.data(), out.size());
    EXPECT_EQ(out, bytes);
}

TEST(WebSocketReadQueue, StopsLookingAheadBehindAnExactlyFullLastBlock)
{
    for (size_t blocks = 1; blocks <= 3; ++blocks) {
        for (size_t left = 1; left <= 14; ++left) {
            SCOPED_TRACE(testing::Message() << blocks << " blocks, " << left << " bytes left");
            const Bytes bytes = Pattern((blocks - 1) * kBlock + left);
            WebSocket socket(-1, nullptr);
            FillRead(socket, bytes, kBlock - left);
            ASSERT_EQ(Access::lastReadFill(socket), kBlock);
            Bytes out(bytes.size() + 20, 0xdd);
            Access::readNoSeek(socket, out.data(), bytes.size() + 14);
            EXPECT_EQ(out, bytes + Bytes(20, 0xdd));
        }
    }
    WebSocket empty(-1, nullptr);
    Bytes out(14, 0xdd);
    Access::readNoSeek(empty, out.data(), out.size());
    EXPECT_EQ(out, Bytes(14, 0xdd));
}

// A block that has been opened and got no byte yet, as a failed recv leaves it.
TEST(WebSocketReadQueue, MayEndWithABlockWithoutBytes)
{
    const Bytes bytes = Pattern(10);
    WebSocket socket(-1, nullptr);
    FillRead(socket, bytes, kBlock - 10);
    Access::readQueue(socket).emplace_back(kBlock);
    Access::lastReadFill(socket) = 0;
    Bytes out(14, 0xdd);
    Access::readNoSeek(socket, out.data(), out.size());
    EXPECT_EQ(out, bytes + Bytes(4, 0xdd));
    Access::skipBytes(socket, 10);
    EXPECT_EQ(Access::readQueue(socket).size(), 1u);
    EXPECT_EQ(Access::readOffset(socket), 0u);
    EXPECT_EQ(Access::lastReadFill(socket), 0u);
}

// Where in the block the payload starts must not matter, nor how long the message is already.
TEST(WebSocketReadQueue, CarriesTheMaskPhaseOverBlockEnds)
{
    std::vector<size_t> starts;
    for (size_t i = 0; i < 16; ++i)
        starts.insert(starts.end(), {i, 496 + i, kBlock - 16 + i});
    for (const size_t size : {0, 1, 3, 4, 5, 15, 16, 17, 18, 19, 31, 33, 1023, 1024, 1025, 3001}) {
        const Bytes masked = Pattern(size, static_cast<uint32_t>(size) + 7);
        const Bytes plain = Plain(masked);
        for (const size_t start : starts) {
            for (size_t offset = 0; offset < 5; ++offset) {
                WebSocket socket(-1, nullptr);
                FillRead(socket, masked + Bytes{1, 2, 3}, start);
                Bytes dest(offset + size, 0x77);
                Access::readRawData(socket, dest, kKey.data(), offset);
                ASSERT_EQ(dest, Bytes(offset, 0x77) + plain)
                    << size << " bytes at " << start << " behind " << offset;
                ASSERT_EQ(ReadContent(socket), (Bytes{1, 2, 3}));
            }
        }
    }
}

TEST(WebSocketReadQueue, IsAsNewWhenItsLastBlockIsFullAndConsumed)
{
    for (const size_t start : {0, 1000}) {
        for (const size_t blocks : {1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << blocks << " blocks from " << start);
            const Bytes masked = Pattern(blocks * kBlock - start);
            WebSocket socket(-1, nullptr);
            FillRead(socket, masked, start);
            Bytes dest(masked.size());
            Access::readRawData(socket, dest, kKey.data(), 0);
            EXPECT_EQ(dest, Plain(masked));
            EXPECT_TRUE(Access::readQueue(socket).empty());
            EXPECT_EQ(Access::readOffset(socket), 0u);
            EXPECT_EQ(Access::lastReadFill(socket), kBlock);
        }
    }
}

TEST(WebSocketReadQueue, GivesNothingToAFullDestination)
{
    WebSocket socket(-1, nullptr);
    const Bytes bytes = Pattern(20);
    FillRead(socket, bytes, 1010);
    Bytes dest{1, 2, 3};
    Access::readRawData(socket, dest, kKey.data(), 3);
    EXPECT_EQ(dest, (Bytes{1, 2, 3}));
    EXPECT_EQ(ReadContent(socket), bytes);
    EXPECT_EQ(Access::readOffset(socket), 1010u);

    WebSocket empty(-1, nullptr);
    Access::readRawData(empty, dest, kKey.data(), 3);
    EXPECT_THAT(ReadContent(empty), testing::IsEmpty());
}

TEST(WebSocketReadQueue, LeavesZerosWhereTheBufferedBytesEnd)
{
    for (const size_t size : {size_t{1}, kBlock - 1, kBlock, kBlock + 1, 2 * kBlock - 1}) {
        SCOPED_TRACE(size);
        WebSocket socket(-1, nullptr);
        const Bytes masked = Pattern(size);
        FillRead(socket, masked);
        Bytes dest(size + 10);
        Access::readRawData(socket, dest, kKey.data(), 0);
        EXPECT_EQ(dest, Plain(masked) + Bytes(10));
        EXPECT_THAT(ReadContent(socket), testing::IsEmpty());
    }
}

}  // namespace
}  // namespace qv::tests

// The two queues of a connection: linked blocks of fixed size, filled at the end and consumed at
// the front, so that no buffered byte is ever moved.

#include <Wendrel/WebSocket.h>

#include "websocket/BlockPool.h"
#include "websocket/Unmask.h"

#include <algorithm>

namespace qv::http
{

void WebSocket::writeRawData(const void* data, size_t size)
{
    const auto* next = static_cast<const uint8_t*>(data);
    while (size > 0) {
        if (lastWriteFill == blockSize) {
            impl::BlockPool::Append(writeQueue, blockSize);
            lastWriteFill = 0;
        }
        const size_t part = std::min(blockSize - lastWriteFill, size);
        std::copy_n(next, part, writeQueue.back().begin() + static_cast<ptrdiff_t>(lastWriteFill));
        lastWriteFill += part;
        next += part;
        size -= part;
        writePending = true;
    }
}

size_t WebSocket::firstWriteEnd() const
{
    return writeQueue.size() == 1 ? lastWriteFill : blockSize;
}

void WebSocket::removeWrittenBytes(size_t count)
{
    writeOffset += count;
    if (writeOffset != firstWriteEnd())
        return;
    impl::BlockPool::FreeFirst(writeQueue);
    writeOffset = 0;
    if (writeQueue.empty()) {
        lastWriteFill = blockSize;
        writePending = false;
    }
}

size_t WebSocket::bufferedBytes() const
{
    return readQueue.empty() ? 0 : (readQueue.size() - 1) * blockSize + lastReadFill - readOffset;
}

size_t WebSocket::firstReadEnd() const
{
    return readQueue.size() == 1 ? lastReadFill : blockSize;
}

// Consumes bytes of the first block only.
void WebSocket::consumeRead(size_t count)
{
    readOffset += count;
    if (readOffset != blockSize)
        return;
    impl::BlockPool::FreeFirst(readQueue);
    readOffset = 0;
    if (readQueue.empty())
        lastReadFill = blockSize;
}

void WebSocket::skipBytes(size_t count)
{
    // A header whose announced length wraps around may be asked for before all of it is here.
    count = std::min(count, bufferedBytes());
    while (count > 0) {
        const size_t part = std::min(firstReadEnd() - readOffset, count);
        consumeRead(part);
        count -= part;
    }
}

void WebSocket::readNoSeek(uint8_t* out, size_t count) const
{
    size_t offset = readOffset;
    for (auto block = readQueue.begin(); block != readQueue.end() && count > 0; ++block) {
        const size_t end = std::next(block) == readQueue.end() ? lastReadFill : blockSize;
        const size_t part = std::min(end - offset, count);
        out = std::copy_n(block->begin() + static_cast<ptrdiff_t>(offset), part, out);
        count -= part;
        offset = 0;
    }
}

void WebSocket::readRawData(std::vector<uint8_t>& dest, const uint8_t* maskKey, size_t offset)
{
    size_t keyIndex = 0;
    while (offset < dest.size() && bufferedBytes() > 0) {
        const size_t part = std::min(firstReadEnd() - readOffset, dest.size() - offset);
        keyIndex = impl::Unmask(dest.data() + offset, readQueue.front().data() + readOffset, part,
                                maskKey, keyIndex);
        offset += part;
        consumeRead(part);
    }
}

}  // namespace qv::http

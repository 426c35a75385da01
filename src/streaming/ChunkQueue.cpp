// The appending rule shared by the receive and the response device.

#include "streaming/ChunkQueue.h"

#include <algorithm>

namespace qv::impl
{

void AppendToChunks(std::list<std::vector<char>>& queue, const char* data, size_t len)
{
    if (len == 0)
        return;
    if (!queue.empty()) {
        std::vector<char>& last = queue.back();
        const size_t taken = std::min(last.capacity() - last.size(), len);
        last.insert(last.end(), data, data + taken);
        data += taken;
        len -= taken;
    }
    if (len == 0)
        return;
    std::vector<char> chunk;
    chunk.reserve(std::max(len, kChunkCapacityBytes));
    chunk.assign(data, data + len);
    queue.push_back(std::move(chunk));
}

}  // namespace qv::impl

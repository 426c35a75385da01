// The content of a file on its way to a client.

#include "Download.h"

#include <utility>

namespace filedrop
{

Download::Download(std::unique_ptr<qv::BodySource> content, std::atomic<uint64_t>& counter)
    : mContent(std::move(content)), mCounter(counter)
{}

qv::BodyRead Download::read(uint64_t offset, char* buffer, size_t size)
{
    const qv::BodyRead part = mContent->read(offset, buffer, size);
    if (part.state == qv::BodyRead::Data)
        mCounter += part.bytes;
    return part;
}

}  // namespace filedrop

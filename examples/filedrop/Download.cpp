// The content of a file on its way to a client.

#include "Download.h"

#include <utility>

namespace filedrop
{

Download::Download(std::unique_ptr<qv::BodySource> content, int status, AccessLine line,
                   std::atomic<uint64_t>& counter)
    : mContent(std::move(content)), mStatus(status), mLine(std::move(line)), mCounter(counter)
{}

Download::~Download()
{
    mLine.write(mStatus, mSentBytes == static_cast<uint64_t>(mContent->getLength()), mSentBytes);
}

qv::BodyRead Download::read(uint64_t offset, char* buffer, size_t size)
{
    const qv::BodyRead part = mContent->read(offset, buffer, size);
    if (part.state == qv::BodyRead::Data) {
        mSentBytes += part.bytes;
        mCounter += part.bytes;
    }
    return part;
}

}  // namespace filedrop

// The pages of the benchmark, served on the daemon threads. Only uploads allocate memory.

#include "bare/InlineHandler.h"

#include "bare/Reply.h"
#include "bare/Upgrade.h"
#include "support/Content.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace bench
{
namespace
{

// The context of all requests but uploads, whose context is the number of their bytes.
uint64_t sSeen = 0;

// The closure is the length of the stream.
ssize_t readStream(void* closure, uint64_t position, char* buffer, size_t size)
{
    const auto bytes = reinterpret_cast<uintptr_t>(closure);
    const size_t count = std::min<uint64_t>(size, bytes - position);
    if (count == 0)
        return MHD_CONTENT_READER_END_OF_STREAM;
    fillStream(position, buffer, count);
    return static_cast<ssize_t>(count);
}

// A response queued in the first call would close the connection.
MHD_Result begin(EchoLoop* echo, MHD_Connection* connection, const char* path, const char* method,
                 void** slot)
{
    if (echo && asksForUpgrade(connection))
        return acceptUpgrade(connection, *echo);
    *slot = findPage(method, path) == Page::Upload ? new uint64_t(0) : &sSeen;
    return MHD_YES;
}

MHD_Result respond(MHD_Connection* connection, const char* path, const char* method,
                   uint64_t uploadedBytes)
{
    const Question question = questionOf(connection, method, path);
    switch (question.page) {
    case Page::Slow:
        std::this_thread::sleep_for(std::chrono::milliseconds(question.number));
        [[fallthrough]];
    case Page::Hello:
        return queueAndDestroy(connection, MHD_HTTP_OK, makeLasting(kHello));
    case Page::Big:
        return queueAndDestroy(connection, MHD_HTTP_OK, makeLasting(bigBody()));
    case Page::Stream:
        // A number in place of an object saves an allocation.
        // NOLINTBEGIN(performance-no-int-to-ptr)
        return queueAndDestroy(connection, MHD_HTTP_OK,
                               makeStream(&readStream, reinterpret_cast<void*>(question.number)));
        // NOLINTEND(performance-no-int-to-ptr)
    case Page::Upload:
        return queueAndDestroy(connection, MHD_HTTP_OK, makeCopied(std::to_string(uploadedBytes)));
    default:
        break;
    }
    return queueAndDestroy(connection, MHD_HTTP_NOT_FOUND, makeLasting(kNotFound));
}

MHD_Result handle(void* closure, MHD_Connection* connection, const char* path, const char* method,
                  const char*, const char*, size_t* size, void** slot)
{
    if (!*slot)
        return begin(static_cast<EchoLoop*>(closure), connection, path, method, slot);
    auto& bytes = *static_cast<uint64_t*>(*slot);
    if (*size == 0)
        return respond(connection, path, method, bytes);
    if (&bytes != &sSeen)
        bytes += *size;
    *size = 0;
    return MHD_YES;
}

void completed(void*, MHD_Connection*, void** slot, MHD_RequestTerminationCode)
{
    auto* bytes = static_cast<uint64_t*>(*slot);
    if (bytes != &sSeen)
        delete bytes;
    *slot = nullptr;
}

}  // namespace

Handlers inlineHandlers(EchoLoop* echo)
{
    return {&handle, &completed, echo};
}

}  // namespace bench

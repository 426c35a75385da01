// The content readers of event-driven mode, and the responses whose body comes from a source.

#include "server/EventStream.h"

#include <Wendrel/BodySource.h>
#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include "listener/Connection.h"
#include "request/DispatchAccess.h"
#include "server/logging/DaemonLog.h"
#include "server/logging/LogObject.h"

#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

namespace qv::impl
{
namespace
{

// The daemon does not close the connection of a reader that ends a body otherwise than by its
// chunks or its length: it forgets the connection until another event of its thread. A send that
// fails, on a connection that has been shut down, is handled at once.
ssize_t sendUnsuccessfully(char* buffer)
{
    *buffer = 0;
    return 1;
}

// The body ends before its end, because the client has left or by an error of the application.
ssize_t cutOff(Connection& record, char* buffer)
{
    ReportUnsent(!record.isAborted);
    record.cut();
    return sendUnsuccessfully(buffer);
}

// The end of a body of unknown length.
ssize_t endBody(Connection& record, char* buffer)
{
    if (record.progress.isChunked)
        return MHD_CONTENT_READER_END_OF_STREAM;
    if (!record.progress.isHttp10 || record.progress.isLengthKnown)
        return cutOff(record, buffer);
    record.progress.isEndedByClosing = true;
    record.shutDown(SHUT_RDWR);
    return sendUnsuccessfully(buffer);
}

bool isOver(const Connection& record, const HttpResponseDevice& device)
{
    return record.isAborted || device.hasDeviceError();
}

// The device resumes the connection when it has something to send.
void suspendStream(HttpBaseRequest& request, Connection& record)
{
    HttpResponseDevice& device = request.getResponseDevice();
    const qvMutexLocker locker(&DispatchAccess::mutex(device));
    // Otherwise something has come since the reader looked: the daemon calls it again at once.
    if (device.hasDataToSend() || DispatchAccess::isCompleted(device) || isOver(record, device))
        return;
    DispatchAccess::isSuspended(device) = true;
    record.suspend();
}

// The resumer of the source resumes the connection. A resume since the read, or before it, is used
// up by another read.
void suspendSource(HttpBaseRequest& request, Connection& record)
{
    HttpResponseDevice& device = request.getResponseDevice();
    const qvMutexLocker locker(&DispatchAccess::mutex(device));
    if (std::exchange(DispatchAccess::isSourceResumed(device), false) || isOver(record, device))
        return;
    DispatchAccess::isSuspended(device) = true;
    record.suspend();
}

ssize_t failSource(Connection& record, char* buffer, const char* why, uint64_t position)
{
    qvLogObject(qvLogObject::kWarning)
        << "body source failed: " << why << " after " << position << " bytes";
    return cutOff(record, buffer);
}

ssize_t readFromSource(HttpBaseRequest& request, Connection& record, uint64_t position,
                       char* buffer, size_t size)
{
    HttpResponseDevice& device = request.getResponseDevice();
    if (isOver(record, device))
        return cutOff(record, buffer);
    BodySource& source = *DispatchAccess::source(device);
    const BodyRead part = source.read(position, buffer, size);
    switch (part.state) {
    case BodyRead::Data:
        if (part.bytes == 0 || part.bytes > size)
            return failSource(record, buffer, "a read of an impossible size", position);
        DispatchAccess::sentBytes(device) += part.bytes;
        return static_cast<ssize_t>(part.bytes);
    case BodyRead::NotYet:
        if (!source.getResumer())
            return failSource(record, buffer, "it waits without a resumer", position);
        suspendSource(request, record);
        return 0;
    case BodyRead::End:
        if (record.progress.isLengthKnown)
            return failSource(record, buffer, "it ended too early,", position);
        return endBody(record, buffer);
    default:
        return cutOff(record, buffer);
    }
}

// Content reader of a body from a source; `closure` is the HttpBaseRequest.
ssize_t readSource(void* closure, uint64_t position, char* buffer, size_t size)
{
    auto& request = *static_cast<HttpBaseRequest*>(closure);
    auto& record = static_cast<Connection&>(*DispatchAccess::record(request));
    // The daemon's frames are those of C: an exception would end the process.
    try {
        return readFromSource(request, record, position, buffer, size);
    } catch (const std::bad_alloc&) {
        return cutOff(record, buffer);
    }
}

// The body has been counted, or its length is declared.
uint64_t lengthOfUnread(HttpResponseDevice& device, HttpResponseInterface& head)
{
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device));
        const uint64_t counted = DispatchAccess::countedBytes(device);
        if (counted != 0 && DispatchAccess::isCompleted(device))
            return counted;
    }
    const int64_t declared = head.getContentLength();
    return declared < 0 ? MHD_SIZE_UNKNOWN : static_cast<uint64_t>(declared);
}

ssize_t readNothing(void*, uint64_t, char*, size_t)
{
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

// Its head only. With an unknown length the daemon would send the last chunk of a body: the client
// would take it for the next response, so that the connection is closed instead.
MHD_Response* makeHeadOnly(uint64_t length)
{
    MHD_Response* const response =
        MHD_create_response_from_callback(length, 1, &readNothing, nullptr, nullptr);
    if (response && length == MHD_SIZE_UNKNOWN)
        MHD_set_response_options(response, MHD_RF_HTTP_1_0_COMPATIBLE_STRICT, MHD_RO_END);
    return response;
}

using Memory = std::shared_ptr<const char>;

void releaseMemory(void* held)
{
    delete static_cast<Memory*>(held);
}

// The daemon holds the memory until it has destroyed the response.
MHD_Response* makeLent(Memory memory, size_t bytes)
{
    auto held = std::make_unique<Memory>(std::move(memory));
    // The daemon does not write to it.
    MHD_Response* const response = MHD_create_response_from_buffer_with_free_callback_cls(
        bytes, const_cast<char*>(held->get()), &releaseMemory, held.get());
    if (response)
        static_cast<void>(held.release());
    return response;
}

// Bytes of the body; MHD_SIZE_UNKNOWN when neither the source nor the head knows.
uint64_t lengthOf(const BodySource& source, HttpResponseInterface& head)
{
    const int64_t length = source.getLength();
    const int64_t declared = head.getContentLength();
    if (length < 0)
        return declared < 0 ? MHD_SIZE_UNKNOWN : static_cast<uint64_t>(declared);
    if (declared >= 0 && declared != length)
        qvLogObject(qvLogObject::kWarning)
            << "the body source has " << length << " bytes, the response declares " << declared;
    return static_cast<uint64_t>(length);
}

}  // namespace

ssize_t ReadEventContent(void* closure, uint64_t, char* buffer, size_t size)
{
    auto& request = *static_cast<HttpBaseRequest*>(closure);
    auto& record = static_cast<Connection&>(*DispatchAccess::record(request));
    HttpResponseDevice& device = request.getResponseDevice();
    if (isOver(record, device))
        return cutOff(record, buffer);
    bool ended = false;
    bool endedToo = false;
    const size_t copied = device.sendChunksThreadSafe(buffer, size, ended, endedToo);
    if (copied != 0)
        return static_cast<ssize_t>(copied);
    if (ended)
        return endBody(record, buffer);
    suspendStream(request, record);
    return 0;
}

// A stream that fails after its announcement is cut off, whether or not the daemon has seen it
// before.
Decision DecideEvent(HttpResponseDevice& device, HttpBaseRequest& request, std::vector<char>& body)
{
    auto& state = DispatchAccess::responseState(device);
    if (state == DispatchAccess::kReadyInError) {
        state = DispatchAccess::kReady;
        return Decide(device, request, body);
    }
    if (state == DispatchAccess::kReady && device.hasDeviceError() &&
        !DispatchAccess::isCompleted(device)) {
        DispatchAccess::bodyPending(request) = false;
        state = DispatchAccess::kStreamed;
        return Decision::Stream;
    }
    const bool hasSource = DispatchAccess::source(device) != nullptr;
    const bool isCounted = DispatchAccess::countedBytes(device) != 0;
    if (state != DispatchAccess::kReady || !(hasSource || isCounted) || device.hasDeviceError())
        return Decide(device, request, body);
    DispatchAccess::bodyPending(request) = false;
    state = DispatchAccess::kStreamed;
    return hasSource ? Decision::Source : Decision::Stream;
}

bool IsWithoutBody(const HttpBaseRequest& request, uint32_t status)
{
    return request.getRequestType() == HttpBaseRequest::HEAD || status == MHD_HTTP_NO_CONTENT ||
           status == MHD_HTTP_NOT_MODIFIED;
}

MHD_Result QueueHeadOnly(HttpBaseRequest& request, MHD_Connection* connection,
                         const ExtraHeaders& extra)
{
    HttpResponseInterface& head = request.getResponse();
    HttpResponseDevice& device = request.getResponseDevice();
    DispatchAccess::leaveBodyUnread(device);
    return QueueResponse(request, head, connection, makeHeadOnly(lengthOfUnread(device, head)),
                         {nullptr, &extra});
}

MHD_Result QueueSource(HttpBaseRequest& request, Connection& record, MHD_Connection* connection,
                       const ExtraHeaders& extra)
{
    HttpResponseDevice& device = request.getResponseDevice();
    HttpResponseInterface& head = request.getResponse();
    BodySource& source = *DispatchAccess::source(device);
    const uint64_t length = lengthOf(source, head);
    const bool isKnown = length != MHD_SIZE_UNKNOWN;
    record.progress.isLengthKnown = isKnown;
    record.progress.isChunked = !isKnown && !record.progress.isHttp10;
    MHD_Response* response = nullptr;
    if (IsWithoutBody(request, head.getStatusCode())) {
        response = makeHeadOnly(head.getStatusCode() == MHD_HTTP_NO_CONTENT ? 0 : length);
        DispatchAccess::endSource(device);
    } else if (Memory memory = source.getLength() < 0 ? nullptr : source.getMemory()) {
        response = makeLent(std::move(memory), length);
        DispatchAccess::sentBytes(device) = length;
        DispatchAccess::endSource(device);
    } else {
        // Chunks are made in the memory of the connection.
        const size_t block =
            record.progress.isChunked ? 1 : std::max<size_t>(source.getBlockBytes(), 1);
        response = MHD_create_response_from_callback(length, std::clamp<uint64_t>(length, 1, block),
                                                     &readSource, &request, nullptr);
    }
    return QueueResponse(request, head, connection, response, {nullptr, &extra});
}

}  // namespace qv::impl

// The daemon's turns, and the functions of libmicrohttpd that the dispatch calls on the path from a
// request to a queued response.

#include "SmallDaemon.h"

#include "Shaking.h"

#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>

#include "server/Dispatch.h"
#include "streaming/StreamCallbacks.h"

#include <sched.h>

#include <algorithm>
#include <string>
#include <utility>

namespace stress
{

namespace
{

constexpr size_t kConnections = 6;
constexpr size_t kLargestBuffer = 262000;
constexpr size_t kBlock = 65536;

thread_local MHD_Connection* tConnection = nullptr;
thread_local std::list<std::function<bool()>>* tDeletions = nullptr;

}  // namespace

SmallDaemon::SmallDaemon(const Shared& shared, uint64_t number)
    : mShared(shared), mDice(shared.seed + number), mBuffer(kLargestBuffer),
      mConnections(kConnections)
{}

const Plan& SmallDaemon::CurrentPlan()
{
    return tConnection->plan;
}

void SmallDaemon::LeaveToCurrent(std::function<bool()> deleteIfDone)
{
    tDeletions->push_back(std::move(deleteIfDone));
}

void SmallDaemon::run()
{
    tDeletions = &mDeletions;
    for (;;) {
        bool moved = deleteDone();
        bool isBusy = !mDeletions.empty();
        for (MHD_Connection& connection : mConnections) {
            tConnection = &connection;
            moved |= turn(connection);
            isBusy |= connection.isBusy;
        }
        // Between two requests a connection is idle, too.
        if (!isBusy && !mShared.record.mayBegin())
            return;
        if (!moved)
            ::sched_yield();
    }
}

// Whether anything has happened.
bool SmallDaemon::turn(MHD_Connection& connection)
{
    if (!connection.isBusy)
        return begin(connection);
    shake();
    if (connection.turns++ == connection.plan.lossTurn) {
        complete(connection, connection.plan.lossCode,
                 connection.isQueued ? LostWhileStreaming : LostWhileWaiting);
        return true;
    }
    return connection.isQueued ? fetch(connection) : ask(connection);
}

bool SmallDaemon::begin(MHD_Connection& connection)
{
    RunRecord& record = mShared.record;
    uint64_t id = 0;
    if (!record.begin(id))
        return false;
    connection = MHD_Connection();
    connection.plan = drawPlan(mShared.seed, id);
    connection.isBusy = true;
    connection.slot = qv::impl::OpenContext(nullptr, "/", &connection);
    size_t size = 0;
    if (qv::impl::HandleAccess(&mShared.server, &connection, "/", "GET", "HTTP/1.1", nullptr, &size,
                               &connection.slot) != MHD_YES)
        record.addError("a request was refused");
    return true;
}

bool SmallDaemon::ask(MHD_Connection& connection)
{
    size_t size = 0;
    const MHD_Result result = qv::impl::HandleAccess(&mShared.server, &connection, "/", "GET",
                                                     "HTTP/1.1", nullptr, &size, &connection.slot);
    if (result != MHD_YES) {
        if (!connection.plan.isRefused)
            mShared.record.addError("the library refused a response");
        complete(connection, MHD_REQUEST_TERMINATED_WITH_ERROR, QueueingRefused);
        return true;
    }
    if (!connection.isQueued)
        return false;
    if (!connection.response.reader)
        finishWhole(connection);
    else if (connection.plan.isUnfetched)
        complete(connection, MHD_REQUEST_TERMINATED_COMPLETED_OK, HeadOnly);
    return true;
}

// A response from a buffer is sent at once.
void SmallDaemon::finishWhole(MHD_Connection& connection)
{
    const Plan& plan = connection.plan;
    if (connection.status != MHD_HTTP_OK) {
        if (plan.ending != Plan::Ending::Abandoned)
            mShared.record.addError("an error body for a request without error");
        complete(connection, MHD_REQUEST_TERMINATED_COMPLETED_OK, ErrorBody);
        return;
    }
    take(connection, connection.response.body.data(), connection.response.body.size());
    if (connection.got != plan.bodyBytes)
        mShared.record.addError("a whole body of another length");
    complete(connection, MHD_REQUEST_TERMINATED_COMPLETED_OK, SentWhole);
}

bool SmallDaemon::fetch(MHD_Connection& connection)
{
    const size_t requested = requestedBytes(connection);
    if (requested == 0) {
        if (connection.got != connection.plan.bodyBytes)
            mShared.record.addError("a declared length other than the body's");
        complete(connection, MHD_REQUEST_TERMINATED_COMPLETED_OK, StreamedToLength);
        return true;
    }
    const ssize_t got = connection.response.reader(connection.response.closure, connection.got,
                                                   mBuffer.data(), requested);
    if (got > 0) {
        take(connection, mBuffer.data(), static_cast<size_t>(got));
    } else if (got == MHD_CONTENT_READER_END_OF_STREAM) {
        if (connection.got != connection.plan.bodyBytes)
            mShared.record.addError("a stream of another length");
        complete(connection, MHD_REQUEST_TERMINATED_COMPLETED_OK, StreamedToEnd);
    } else if (got == MHD_CONTENT_READER_END_WITH_ERROR) {
        if (connection.plan.ending != Plan::Ending::Abandoned)
            mShared.record.addError("a stream broken off without error");
        complete(connection, MHD_REQUEST_TERMINATED_WITH_ERROR, ReaderError);
    }
    return got != 0;
}

// The size of the daemon's buffer: at most the rest of a known length, otherwise any size.
size_t SmallDaemon::requestedBytes(const MHD_Connection& connection)
{
    if (connection.response.size != MHD_SIZE_UNKNOWN)
        return std::min<uint64_t>(connection.response.size - connection.got, kBlock);
    const uint64_t kind = mDice.below(10);
    return 1 + mDice.below(kind == 0 ? 10 : kind < 4 ? 5000 : kind < 7 ? kBlock : kLargestBuffer);
}

void SmallDaemon::take(MHD_Connection& connection, const char* data, size_t size)
{
    const Plan& plan = connection.plan;
    if (connection.got + size > plan.bodyBytes)
        mShared.record.addError("more bytes than were written");
    else if (!std::equal(data, data + size, mShared.source.at(plan.id, connection.got)))
        mShared.record.addError("another byte than was written");
    connection.got += size;
    mShared.record.bytesFetched += size;
}

void SmallDaemon::complete(MHD_Connection& connection, uint32_t code, Outcome outcome)
{
    ++mShared.record.outcomes[outcome];
    qv::impl::RequestCompleted(&mShared.server, &connection, &connection.slot,
                               static_cast<MHD_RequestTerminationCode>(code));
    // From here on the request may be deleted.
    if (connection.slot)
        mShared.record.addError("a context was left behind");
    connection.isBusy = false;
}

bool SmallDaemon::deleteDone()
{
    const size_t before = mDeletions.size();
    mDeletions.remove_if([](const std::function<bool()>& deleteIfDone) { return deleteIfDone(); });
    return mDeletions.size() != before;
}

}  // namespace stress

// The dispatch asks for these while a connection is in its turn; the other functions are the
// real daemon's and are not reached.

extern "C" {

const MHD_ConnectionInfo* MHD_get_connection_info(MHD_Connection*, MHD_ConnectionInfoType, ...)
{
    return nullptr;
}

const char* MHD_lookup_connection_value(MHD_Connection*, MHD_ValueKind, const char*)
{
    return nullptr;
}

int MHD_get_connection_values(MHD_Connection*, MHD_ValueKind, MHD_KeyValueIterator, void*)
{
    return 0;
}

MHD_Response* MHD_create_response_from_callback(uint64_t size, size_t,
                                                MHD_ContentReaderCallback reader, void* closure,
                                                MHD_ContentReaderFreeCallback)
{
    return new MHD_Response{size, reader, closure, {}};
}

MHD_Response* MHD_create_response_from_buffer(size_t size, void* data, MHD_ResponseMemoryMode)
{
    const char* bytes = static_cast<const char*>(data);
    return new MHD_Response{size, nullptr, nullptr, {bytes, bytes + size}};
}

MHD_Result MHD_add_response_header(MHD_Response*, const char*, const char*)
{
    return MHD_YES;
}

MHD_Result MHD_queue_response(MHD_Connection* connection, unsigned int status,
                              MHD_Response* response)
{
    if (connection->plan.isRefused)
        return MHD_NO;
    connection->isQueued = true;
    connection->status = status;
    connection->response = std::move(*response);
    return MHD_YES;
}

void MHD_destroy_response(MHD_Response* response)
{
    delete response;
}

}  // extern "C"

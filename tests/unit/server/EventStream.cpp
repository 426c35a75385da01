// Responses from body sources, as the daemon gets them: memory without a copy, blocks, suspensions.

#include "server/EventStream.h"

#include "support/RecordingDaemon.h"
#include "support/TestRequest.h"

#include <Wendrel/BodySource.h>

#include "listener/Connection.h"
#include "listener/ConnectionTable.h"
#include "request/DispatchAccess.h"

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace qv::tests
{
namespace
{

using Access = impl::DispatchAccess;

// A request of event-driven mode whose response is queued by the test.
class EventStream : public testing::Test
{
protected:
    EventStream()
    {
        Access::connection(request) = &connection;
        Access::record(request) = record.get();
    }

    // Sets the source, announces the response and queues it.
    const MHD_Response& queue(std::unique_ptr<BodySource> source)
    {
        EXPECT_TRUE(device.setBodySource(std::move(source)));
        EXPECT_TRUE(device.setResponseReady());
        std::vector<char> body;
        {
            const qvMutexLocker locker(&Access::mutex(device));
            EXPECT_EQ(impl::DecideEvent(device, request, body), impl::Decision::Source);
        }
        EXPECT_EQ(impl::QueueSource(request, *record, &connection, {}), MHD_YES);
        return daemon.response(daemon.responseCount() - 1);
    }

    static ssize_t read(const MHD_Response& response, uint64_t position = 0, size_t size = 100)
    {
        std::vector<char> buffer(size);
        return response.reader(response.closure, position, buffer.data(), buffer.size());
    }

    size_t suspensions() const { return daemon.callsOf("MHD_suspend_connection").size(); }
    size_t resumptions() const { return daemon.callsOf("MHD_resume_connection").size(); }

    RecordingDaemon daemon;
    MHD_Connection& connection = daemon.connection();
    impl::ConnectionTable table{{}, 0};
    const std::shared_ptr<impl::Connection> record =
        std::make_shared<impl::Connection>(table, -1, impl::Peer{});
    TestRequest request;
    HttpResponseDevice& device = request.getResponseDevice();
};

// Says "not yet" until `ready` is set.
std::unique_ptr<BodySource> makeWaiting(const BodyResumer& resumer, const bool& ready)
{
    return BodySource::fromCallback(
        [&ready](uint64_t, char*, size_t) -> BodyRead {
            return {ready ? BodyRead::End : BodyRead::NotYet};
        },
        resumer);
}

TEST_F(EventStream, LendsMemoryToTheDaemonUntilTheResponseIsDestroyed)
{
    const auto text = std::make_shared<const std::string>(PatternBytes(1000));
    const MHD_Response& response = queue(BodySource::fromString(text));
    EXPECT_EQ(response.kind, MHD_Response::Buffer);
    EXPECT_EQ(response.bodyAddress, text->data());
    EXPECT_EQ(response.size, text->size());
    EXPECT_EQ(device.getSentBytes(), text->size());
    // The source has been destroyed: this is the daemon's.
    EXPECT_EQ(text.use_count(), 2);
    response.free(response.closure);
    EXPECT_EQ(text.use_count(), 1);
    const_cast<MHD_Response&>(response).free = nullptr;
}

TEST_F(EventStream, GetsBlocksThatFitTheSource)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "file";
    std::ofstream(path) << std::string(100000, 'x');
    const auto known = [](int64_t length) {
        return [length] {
            return BodySource::fromCallback(
                [](uint64_t, char*, size_t) -> BodyRead { return {BodyRead::NotYet}; },
                BodyResumer(), length);
        };
    };
    const struct
    {
        const char* name;
        std::function<std::unique_ptr<BodySource>()> make;
        bool isHttp10;
        uint64_t size;
        size_t block;
    } rows[] = {
        {"file", [&] { return BodySource::fromFile(path); }, false, 100000, 65536},
        {"small file", [&] { return BodySource::fromFile(path, 0, 100); }, false, 100, 100},
        {"empty file", [&] { return BodySource::fromFile(path, 0, 0); }, false, 0, 1},
        {"known length", known(100000), false, 100000, 16384},
        {"block", known(16384), false, 16384, 16384},
        {"less than a block", known(16383), false, 16383, 16383},
        {"chunks", known(-1), false, MHD_SIZE_UNKNOWN, 1},
        {"HTTP/1.0", known(-1), true, MHD_SIZE_UNKNOWN, 16384},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest each;
        Access::record(each) = record.get();
        record->progress.isHttp10 = row.isHttp10;
        ASSERT_TRUE(each.getResponseDevice().setBodySource(row.make()));
        EXPECT_EQ(impl::QueueSource(each, *record, &connection, {}), MHD_YES);
        const MHD_Response& response = daemon.response(daemon.responseCount() - 1);
        EXPECT_EQ(response.kind, MHD_Response::Callback);
        EXPECT_EQ(response.size, row.size);
        EXPECT_EQ(response.blockSize, row.block);
        Access::endSource(each.getResponseDevice());
    }
}

TEST_F(EventStream, SuspendsASourceThatSaysNotYetAndResumesItOnce)
{
    const BodyResumer resumer;
    bool ready = false;
    const MHD_Response& response = queue(makeWaiting(resumer, ready));
    EXPECT_EQ(read(response), 0);
    EXPECT_EQ(suspensions(), 1u);
    EXPECT_EQ(resumptions(), 0u);
    resumer.resume();
    EXPECT_EQ(resumptions(), 1u);
    // One more: the daemon reads again, and once again instead of suspending.
    resumer.resume();
    EXPECT_EQ(resumptions(), 1u);
    EXPECT_EQ(read(response), 0);
    EXPECT_EQ(suspensions(), 1u);
    EXPECT_EQ(read(response), 0);
    EXPECT_EQ(suspensions(), 2u);
    ready = true;
    resumer.resume();
    EXPECT_EQ(resumptions(), 2u);
    EXPECT_EQ(read(response), MHD_CONTENT_READER_END_OF_STREAM);
}

TEST_F(EventStream, DoesNotSuspendASourceThatWasResumedBefore)
{
    const BodyResumer resumer;
    const bool ready = false;
    const MHD_Response& response = queue(makeWaiting(resumer, ready));
    resumer.resume();
    EXPECT_EQ(read(response), 0);
    EXPECT_EQ(suspensions(), 0u);
    EXPECT_EQ(resumptions(), 0u);
}

// The connection of a request that waits for its response is not the source's to resume.
TEST_F(EventStream, LeavesARequestSuspendedWhoseResponseIsNotAnnounced)
{
    const BodyResumer resumer;
    const bool ready = false;
    ASSERT_TRUE(device.setBodySource(makeWaiting(resumer, ready)));
    {
        const qvMutexLocker locker(&Access::mutex(device));
        Access::isSuspended(device) = true;
    }
    resumer.resume();
    EXPECT_EQ(resumptions(), 0u);
    EXPECT_TRUE(device.setResponseReady());
    Access::endSource(device);
}

TEST_F(EventStream, IsNotResumedAfterTheEnd)
{
    const BodyResumer resumer;
    const bool ready = false;
    const MHD_Response& response = queue(makeWaiting(resumer, ready));
    EXPECT_EQ(read(response), 0);
    Access::endSource(device);
    resumer.resume();
    EXPECT_EQ(resumptions(), 0u);
}

TEST_F(EventStream, ResumesASuspendedSourceThatIsAborted)
{
    const BodyResumer resumer;
    const bool ready = false;
    const MHD_Response& response = queue(makeWaiting(resumer, ready));
    EXPECT_EQ(read(response), 0);
    Access::abort(device, "WriteError", false, record->isAborted);
    EXPECT_EQ(resumptions(), 1u);
    // The byte goes to a socket that has been shut down.
    EXPECT_EQ(read(response), 1);
    EXPECT_EQ(suspensions(), 1u);
}

TEST_F(EventStream, DetachesItsResumerWithTheRequest)
{
    const BodyResumer resumer;
    const bool ready = false;
    {
        TestRequest deleted;
        Access::record(deleted) = record.get();
        ASSERT_TRUE(deleted.getResponseDevice().setBodySource(makeWaiting(resumer, ready)));
    }
    resumer.resume();
    EXPECT_TRUE(device.setBodySource(makeWaiting(resumer, ready)));
}

}  // namespace
}  // namespace qv::tests

// Event-driven mode: bodies that are written and never sent (HEAD, 204, 304) hold no writer.

#include "support/EventRun.h"
#include "support/RawClient.h"

#include <qvSystem/qvThread.h>

#include <gmock/gmock.h>

#include <atomic>
#include <optional>
#include <string>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::Latch;
using integration::onOneThread;
using integration::RawClient;
using integration::RawResponse;
using testing::Field;
using testing::Optional;

constexpr size_t kPieceBytes = 65536;
constexpr size_t kPieces = 64;  // 4 MiB, 16 times as much as may be ready

bool writePieces(EventRequest& request)
{
    const std::string piece(kPieceBytes, 'x');
    for (size_t i = 0; i < kPieces; ++i) {
        if (request.getResponseDevice().writeBytes(piece.data(), piece.size()) != piece.size())
            return false;
    }
    return true;
}

std::string requestOf(const char* method)
{
    std::string request = getRequest("/");
    return request.replace(0, 3, method);
}

TEST(BodyThatIsNotSent, HoldsNoWriterOfAnAnnouncedResponse)
{
    const struct
    {
        const char* name;
        const char* method;
        uint32_t status;
    } rows[] = {{"HEAD", "HEAD", 200}, {"204", "GET", 204}, {"304", "GET", 304}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Latch written;
        std::atomic<bool> isTaken{false};
        EventRun run(
            [&](EventRequest& request) {
                run.work(request, [&](EventRequest& r) {
                    r.response.statusCode = row.status;
                    r.beginStream();
                    isTaken = writePieces(r);
                    r.getResponseDevice().endSending();
                    written.open();
                });
            },
            onOneThread());
        RawClient client(run.port());
        ASSERT_TRUE(client.send(requestOf(row.method)));
        EXPECT_TRUE(written.wait());
        EXPECT_TRUE(isTaken);
        EXPECT_THAT(client.receive(true),
                    Optional(Field(&RawResponse::status, static_cast<int>(row.status))));
    }
}

// The length is that of the response to GET.
TEST(BodyThatIsNotSent, IsCountedWhenItEndsBeforeTheAnnouncement)
{
    Latch written;
    std::atomic<bool> isTaken{false};
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [&](EventRequest& r) {
                isTaken = writePieces(r);
                r.getResponseDevice().writeBytes("tail", 4);
                r.getResponseDevice().endSending();
                r.getResponseDevice().setResponseReady();
                written.open();
            });
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(requestOf("HEAD") + requestOf("HEAD")));
    for (int i = 0; i < 2; ++i) {
        const std::optional<RawResponse> response = client.receive(true);
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 200);
        EXPECT_EQ(response->value("Content-Length"), std::to_string(kPieces * kPieceBytes + 4));
    }
    EXPECT_TRUE(written.wait());
    EXPECT_TRUE(isTaken);
}

// Also on the daemon thread, where a write that would wait is refused.
TEST(BodyThatIsNotSent, IsTakenOnTheDaemonThread)
{
    std::atomic<bool> isTaken{false};
    EventRun run(
        [&](EventRequest& request) {
            request.workerThreadStartHandling(qv::qvThread::CurrentThreadId());
            isTaken = writePieces(request);
            request.getResponseDevice().endSending();
            request.getResponseDevice().setResponseReady();
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(requestOf("HEAD")));
    const std::optional<RawResponse> response = client.receive(true);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->value("Content-Length"), std::to_string(kPieces * kPieceBytes));
    EXPECT_TRUE(isTaken);
}

}  // namespace

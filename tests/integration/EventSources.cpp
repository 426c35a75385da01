// Response bodies from sources: lent memory, files and callbacks, their ends and their failures.

#include "support/CurlClient.h"
#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <Wendrel/BodySource.h>
#include <Wendrel/Wendrel.h>

#include <support/BackgroundCall.h>
#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::CurlClient;
using integration::EventRequest;
using integration::EventRun;
using integration::fillPattern;
using integration::getRequest;
using integration::kLimit;
using integration::Latch;
using integration::onOneThread;
using integration::pattern;
using integration::PatternChecker;
using integration::processLog;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::BodyRead;
using qv::BodyResumer;
using qv::BodySource;
using qv::tests::BackgroundCall;
using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::Field;
using ::testing::Not;
using ::testing::Optional;
using ::testing::SizeIs;

constexpr size_t kMiB = 1048576;
constexpr size_t kLargeBytes = WENDREL_TEST_LARGE_SOURCE_MIB * kMiB;

std::string targetOf(const EventRequest& request)
{
    return request.getOriginalFullUrl();
}

// Announces the response with its body from `source`.
void respondFrom(EventRequest& request, std::unique_ptr<BodySource> source, uint32_t status = 200)
{
    request.response.statusCode = status;
    EXPECT_TRUE(request.getResponseDevice().setBodySource(std::move(source)));
    EXPECT_TRUE(request.getResponseDevice().setResponseReady());
}

bool isServing(EventRun& run)
{
    RawClient client(run.port());
    client.send(getRequest("/ping"));
    const auto response = client.receive();
    return response && response->body == "pong";
}

// How a source was used.
struct Use
{
    std::atomic<int> reads{0};
    std::atomic<int> destructions{0};
    std::atomic<std::thread::id> lastReader{};
    std::atomic<std::thread::id> destroyer{};
};

// The pattern, in pieces of `pieceBytes`; says "not yet" while fewer bytes are available.
class TestSource : public BodySource
{
public:
    struct Control
    {
        std::atomic<uint64_t> available{0};
        std::atomic<int> notYets{0};
        std::atomic<bool> mustFail{false};
        BodyResumer resumer;
        Use use;

        void provide(uint64_t bytes)
        {
            available += bytes;
            resumer.resume();
        }
    };

    // A negative length: unknown, and the body ends after `bytes`.
    TestSource(std::shared_ptr<Control> control, uint64_t bytes, int64_t length,
               size_t pieceBytes = 1 << 20)
        : mControl(std::move(control)), mBytes(bytes), mLength(length), mPieceBytes(pieceBytes)
    {}

    ~TestSource() override
    {
        mControl->use.destroyer = std::this_thread::get_id();
        ++mControl->use.destructions;
    }

    int64_t getLength() const override { return mLength; }

    BodyRead read(uint64_t offset, char* buffer, size_t size) override
    {
        ++mControl->use.reads;
        mControl->use.lastReader = std::this_thread::get_id();
        EXPECT_EQ(offset, mGiven);
        if (mControl->mustFail)
            return {BodyRead::Failed};
        if (mGiven == mBytes)
            return {BodyRead::End};
        const uint64_t ready = mControl->available - mGiven;
        if (ready == 0) {
            ++mControl->notYets;
            return {BodyRead::NotYet};
        }
        const size_t part = std::min<uint64_t>({size, ready, mPieceBytes});
        fillPattern(buffer, part, mGiven);
        mGiven += part;
        return {BodyRead::Data, part};
    }

    const BodyResumer* getResumer() const override { return &mControl->resumer; }

private:
    const std::shared_ptr<Control> mControl;
    const uint64_t mBytes;
    const int64_t mLength;
    const size_t mPieceBytes;
    uint64_t mGiven = 0;
};

using Control = TestSource::Control;

std::shared_ptr<Control> controlWith(uint64_t available)
{
    auto control = std::make_shared<Control>();
    control->available = available;
    return control;
}

size_t residentBytes()
{
    std::ifstream statistics("/proc/self/statm");
    size_t pages = 0;
    statistics >> pages >> pages;
    return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Memory.

TEST(LentBody, ArrivesWholeWithItsLength)
{
    for (const size_t bytes : {size_t{0}, size_t{1}, kMiB, kLargeBytes}) {
        SCOPED_TRACE(bytes);
        const auto body = std::make_shared<const std::string>(pattern(bytes));
        EventRun run([&](EventRequest& r) { respondFrom(r, BodySource::fromString(body)); });
        CurlClient client;
        PatternChecker checker;
        const auto result =
            client.getPattern("http://127.0.0.1:" + std::to_string(run.port()) + "/", checker);
        EXPECT_EQ(result.code, CURLE_OK);
        EXPECT_TRUE(result.hasHeaderLine("Content-Length: " + std::to_string(bytes)));
        EXPECT_EQ(checker.bytes(), bytes);
        EXPECT_TRUE(checker.matches());
        // The connection may still be open: the memory is released with the response.
        EXPECT_TRUE(waitUntil([&] { return body.use_count() == 1; }));
        EXPECT_EQ(run.request(0)->getResponseDevice().getSentBytes(), bytes);
    }
}

TEST(LentBody, IsNotCopiedForItsClients)
{
    constexpr size_t kClients = 8;
    const auto body = std::make_shared<const std::string>(pattern(kLargeBytes));
    EventRun run([&](EventRequest& r) { respondFrom(r, BodySource::fromString(body)); });
    const size_t before = residentBytes();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/")));
        ASSERT_TRUE(clients.back()->receiveHead());
    }
    // Each response is being sent.
    EXPECT_LT(residentBytes(), before + kLargeBytes / 2);
    EXPECT_EQ(body.use_count(), 1 + static_cast<long>(kClients));
}

TEST(LentBody, OfAnyOwnerIsSharedByTwoRequestsAndOutlivesTheLender)
{
    EventRun run(
        [lent = std::make_shared<const std::vector<char>>(kMiB, 'x')](EventRequest& r) mutable {
            const char* const data = lent->data();
            respondFrom(r, BodySource::fromMemory(lent, data, lent->size()));
            if (targetOf(r) == "/last")
                lent.reset();
        },
        onOneThread());
    RawClient one(run.port());
    RawClient other(run.port());
    ASSERT_TRUE(one.send(getRequest("/first")));
    ASSERT_TRUE(run.request(0));
    ASSERT_TRUE(other.send(getRequest("/last")));
    ASSERT_TRUE(run.request(1));
    const std::string body(kMiB, 'x');
    EXPECT_THAT(other.receive(), Optional(Field(&RawResponse::body, body)));
    EXPECT_THAT(one.receive(), Optional(Field(&RawResponse::body, body)));
}

TEST(LentBody, ReachesASlowReaderWhileOthersAreServed)
{
    const auto body = std::make_shared<const std::string>(pattern(kLargeBytes));
    EventRun run(
        [&](EventRequest& r) {
            if (targetOf(r) == "/ping")
                return r.respondHere(200, "pong");
            respondFrom(r, BodySource::fromString(body));
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receiveHead());
    PatternChecker checker;
    for (int i = 0; i < 10; ++i) {
        const std::string piece = client.receiveExactly(1000);
        checker.take(piece.data(), piece.size());
        ASSERT_TRUE(isServing(run));
    }
    while (checker.bytes() < kLargeBytes) {
        const std::string piece = client.receiveSome(kMiB);
        ASSERT_FALSE(piece.empty());
        checker.take(piece.data(), piece.size());
    }
    EXPECT_TRUE(checker.matches());
    EXPECT_EQ(checker.bytes(), kLargeBytes);
}

TEST(LentBody, SendsARange)
{
    const auto body = std::make_shared<const std::string>(pattern(100000));
    EventRun run([&](EventRequest& r) {
        auto source = BodySource::fromString(body);
        EXPECT_TRUE(source->setRange(777, 50000));
        respondFrom(r, std::move(source), 206);
    });
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receive(),
                Optional(AllOf(Field(&RawResponse::status, 206),
                               Field(&RawResponse::body, body->substr(777, 50000)))));
}

// Bodies of every kind, in order, on one connection.
TEST(BodySources, ServePipelinedRequests)
{
    const auto body = std::make_shared<const std::string>(pattern(200000));
    const qv::tests::TemporaryDirectory directory;
    const std::string path = directory / "file";
    std::ofstream(path, std::ios::binary) << *body;
    EventRun run(
        [&](EventRequest& r) {
            const std::string target = targetOf(r);
            if (target == "/memory")
                respondFrom(r, BodySource::fromString(body));
            else if (target == "/file")
                respondFrom(r, BodySource::fromFile(path));
            else if (target == "/known")
                respondFrom(r, std::make_unique<TestSource>(controlWith(200000), 200000, 200000));
            else if (target == "/unknown")
                respondFrom(r, std::make_unique<TestSource>(controlWith(200000), 200000, -1));
            else
                r.respondHere(200, *body);
        },
        onOneThread());
    RawClient client(run.port());
    std::string requests;
    for (int i = 0; i < 4; ++i) {
        for (const char* target : {"/memory", "/queue", "/file", "/known", "/unknown"})
            requests += getRequest(target);
    }
    ASSERT_TRUE(client.send(requests));
    for (int i = 0; i < 20; ++i)
        ASSERT_THAT(client.receive(), Optional(Field(&RawResponse::body, *body))) << i;
}

// Files.

class FileBody : public testing::Test
{
protected:
    std::string write(const std::string& content)
    {
        std::ofstream(mPath, std::ios::binary | std::ios::trunc) << content;
        return mPath;
    }

    const qv::tests::TemporaryDirectory mDirectory;
    const std::string mPath = mDirectory / "file";
};

TEST_F(FileBody, ArrivesWholeOrInPart)
{
    const std::string content = pattern(300001);
    write(content);
    const struct
    {
        uint64_t offset;
        uint64_t length;
    } rows[] = {{0, BodySource::kToEnd},
                {0, 300001},
                {1, 65536},
                {65536, 65537},
                {300000, 1},
                {300001, 0},
                {0, 0},
                {1, BodySource::kToEnd},
                {299000, 1001},
                {12345, 200000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.offset << " " << row.length);
        EventRun run([&](EventRequest& r) {
            respondFrom(r, BodySource::fromFile(mPath, row.offset, row.length));
        });
        RawClient client(run.port());
        ASSERT_TRUE(client.send(getRequest("/")));
        const std::string wanted = content.substr(row.offset, row.length);
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->value("Content-Length"), std::to_string(wanted.size()));
        EXPECT_TRUE(response->body == wanted) << response->body.size();
    }
}

TEST_F(FileBody, ThatBecomesShorterEndsTheConnectionAndIsLogged)
{
    write(std::string(kLargeBytes, 'x'));
    EventRun run([&](EventRequest& r) { respondFrom(r, BodySource::fromFile(mPath)); });
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->value("Content-Length"), std::to_string(kLargeBytes));
    // More than the buffers of the kernel hold has not been read from it.
    ASSERT_EQ(truncate(mPath.c_str(), 0), 0);
    EXPECT_LT(client.receiveToEnd().size(), kLargeBytes);
    EventRequest* const request = run.request(0);
    EXPECT_TRUE(waitUntil([&] { return request->completions == 1; }));
    EXPECT_EQ(request->aborts, 1);
    EXPECT_NE(request->code, 0);
    size_t lines = 0;
    for (const auto& line : processLog->lines())
        lines += line.message.rfind("the file of a response has become shorter: ", 0) == 0;
    EXPECT_EQ(lines, 1u);
}

TEST_F(FileBody, ThatCannotBeReadEndsTheConnectionAndIsLogged)
{
    write("0123456789");
    EventRun run([&](EventRequest& r) {
        respondFrom(r, BodySource::fromDescriptor(open(mPath.c_str(), O_WRONLY | O_CLOEXEC)));
    });
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receiveHead(), Optional(Field(&RawResponse::status, 200)));
    EXPECT_EQ(client.receiveToEnd(), "");
    EXPECT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    EXPECT_EQ(run.request(0)->aborts, 1);
    EXPECT_THAT(processLog->lines("cannot read the file of a response: Bad file descriptor"),
                SizeIs(1));
}

// Callbacks.

// The second thread provides each piece either after the reader has asked for it or before.
TEST(DeferredBody, IsResumedTenThousandTimes)
{
    constexpr int kPieces = 10000;
    constexpr size_t kPieceBytes = 11;
    for (const bool isKnown : {false, true}) {
        SCOPED_TRACE(isKnown);
        const auto control = controlWith(0);
        const int64_t bytes = kPieces * kPieceBytes;
        EventRun run(
            [&](EventRequest& r) {
                respondFrom(r, std::make_unique<TestSource>(control, bytes, isKnown ? bytes : -1));
            },
            onOneThread());
        RawClient client(run.port());
        ASSERT_TRUE(client.send(getRequest("/")));
        BackgroundCall provider([&] {
            for (int i = 0; i < kPieces; ++i) {
                const int before = control->notYets;
                if (i % 4 == 0)
                    waitUntil([&] { return control->notYets > before; }, milliseconds(1));
                control->provide(kPieceBytes);
            }
        });
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_TRUE(response->body == pattern(bytes)) << response->body.size();
    }
}

// The reader has said "not yet" for each piece, or is about to.
TEST(DeferredBody, IsResumedRightAfterEachRefusal)
{
    constexpr int kPieces = 10000;
    const auto control = controlWith(0);
    Latch asked;
    EventRun run(
        [&](EventRequest& r) {
            respondFrom(r, std::make_unique<TestSource>(control, kPieces, -1));
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    BackgroundCall provider([&] {
        for (int i = 0; i < kPieces; ++i) {
            const auto end = std::chrono::steady_clock::now() + kLimit;
            while (control->notYets <= i && std::chrono::steady_clock::now() < end)
                std::this_thread::yield();
            control->provide(1);
        }
    });
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_TRUE(response->body == pattern(kPieces));
    // Suspended once for each piece, and not polled meanwhile.
    EXPECT_GE(control->notYets, kPieces);
    EXPECT_LE(control->notYets, kPieces + kPieces / 100);
}

TEST(DeferredBody, IsNotLostWhenItIsResumedWithinTheRead)
{
    BodyResumer resumer;
    std::atomic<int> reads{0};
    EventRun run(
        [&](EventRequest& r) {
            respondFrom(r, BodySource::fromCallback(
                               [&](uint64_t offset, char* buffer, size_t) -> BodyRead {
                                   const int read = reads++;
                                   if (read < 100) {
                                       resumer.resume();
                                       return {BodyRead::NotYet};
                                   }
                                   if (offset != 0)
                                       return {BodyRead::End};
                                   *buffer = 'x';
                                   return {BodyRead::Data, 1};
                               },
                               resumer));
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "x")));
    EXPECT_EQ(reads, 102);
}

TEST(DeferredBody, CostsNoProcessorTimeWhileItWaits)
{
    const auto control = controlWith(0);
    EventRun run(
        [&](EventRequest& r) {
            if (targetOf(r) == "/ping")
                return r.respondHere(200, "pong");
            respondFrom(r, std::make_unique<TestSource>(control, 10, -1));
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(waitUntil([&] { return control->notYets == 1; }));
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(isServing(run));
    EXPECT_EQ(control->notYets, 1);
    control->provide(10);
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, pattern(10))));
}

TEST(DeferredBody, OfHttp10EndsWithItsConnection)
{
    const auto control = controlWith(100000);
    EventRun run(
        [&](EventRequest& r) {
            respondFrom(r, std::make_unique<TestSource>(control, 100000,
                                                        targetOf(r) == "/known" ? 100000 : -1));
        },
        onOneThread());
    for (const char* target : {"/known", "/unknown"}) {
        SCOPED_TRACE(target);
        RawClient client(run.port());
        ASSERT_TRUE(client.send("GET " + std::string(target) + " HTTP/1.0\r\n\r\n"));
        const auto head = client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->value("Transfer-Encoding"), "");
        EXPECT_EQ(head->value("Content-Length"), std::string(target) == "/known" ? "100000" : "");
        EXPECT_TRUE(client.receiveToEnd() == pattern(100000));
    }
    EXPECT_TRUE(waitUntil([&] { return run.request(1)->completions == 1; }));
    EXPECT_EQ(run.request(1)->code, 0);
}

TEST(DeferredBody, IsSuspendedUnderHttp10)
{
    const auto control = controlWith(0);
    EventRun run(
        [&](EventRequest& r) { respondFrom(r, std::make_unique<TestSource>(control, 30, -1)); },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send("GET / HTTP/1.0\r\n\r\n"));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(waitUntil([&] { return control->notYets == i + 1; }));
        control->provide(10);
    }
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(client.receiveToEnd(), pattern(30));
}

// Failures of a source: the client does not take the part for the whole.

class FailingBody : public testing::Test
{
protected:
    // The body that arrives, of a response that must not end properly.
    static void expectCut(const std::function<std::unique_ptr<BodySource>()>& make,
                          int64_t declared = -1)
    {
        for (const bool isHttp10 : {false, true}) {
            SCOPED_TRACE(isHttp10);
            EventRun run(
                [&](EventRequest& r) {
                    r.response.contentLength = declared;
                    respondFrom(r, make());
                },
                onOneThread());
            RawClient client(run.port());
            ASSERT_TRUE(client.send(isHttp10 ? "GET / HTTP/1.0\r\n\r\n" : getRequest("/")));
            EXPECT_EQ(client.receive().has_value(), false);
            EventRequest* const request = run.request(0);
            EXPECT_TRUE(waitUntil([&] { return request->completions == 1; }));
            EXPECT_EQ(request->aborts, 1);
            EXPECT_NE(request->code, 0);
        }
    }
};

TEST_F(FailingBody, OfKnownLengthIsCut)
{
    expectCut([] {
        return BodySource::fromCallback(
            [](uint64_t offset, char* buffer, size_t) -> BodyRead {
                if (offset == 10)
                    return {BodyRead::Failed};
                *buffer = 'x';
                return {BodyRead::Data, 1};
            },
            BodyResumer(), 20);
    });
}

TEST_F(FailingBody, ThatEndsTooEarlyIsCutAndLogged)
{
    expectCut([] { return std::make_unique<TestSource>(controlWith(10), 10, 20); });
    EXPECT_THAT(processLog->lines("body source failed: it ended too early, after 10 bytes"),
                SizeIs(2));
}

TEST_F(FailingBody, OfUnknownLengthMustHaveTheDeclaredOne)
{
    expectCut([] { return std::make_unique<TestSource>(controlWith(10), 10, -1); }, 20);
    EXPECT_THAT(processLog->lines("body source failed: it ended too early, after 10 bytes"),
                SizeIs(2));
}

TEST_F(FailingBody, ThatWaitsWithoutAResumerIsCutAndLogged)
{
    class Waiting : public BodySource
    {
        int64_t getLength() const override { return 10; }
        BodyRead read(uint64_t, char*, size_t) override { return {BodyRead::NotYet}; }
    };
    expectCut([] { return std::make_unique<Waiting>(); });
    EXPECT_THAT(processLog->lines("body source failed: it waits without a resumer after 0 bytes"),
                SizeIs(2));
}

TEST_F(FailingBody, ThatReadsAnImpossibleSizeIsCutAndLogged)
{
    for (const bool isTooMuch : {false, true}) {
        expectCut([isTooMuch] {
            return BodySource::fromCallback(
                [isTooMuch](uint64_t, char*, size_t size) -> BodyRead {
                    return {BodyRead::Data, isTooMuch ? size + 1 : 0};
                },
                BodyResumer(), 10);
        });
    }
    EXPECT_THAT(processLog->lines("body source failed: a read of an impossible size after 0 bytes"),
                SizeIs(4));
}

TEST_F(FailingBody, OfUnknownLengthHasNoLastChunk)
{
    const auto control = controlWith(10);
    EventRun run(
        [&](EventRequest& r) { respondFrom(r, std::make_unique<TestSource>(control, 20, -1)); },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(waitUntil([&] { return control->notYets == 1; }));
    control->mustFail = true;
    control->resumer.resume();
    ASSERT_TRUE(client.receiveHead());
    EXPECT_THAT(client.receiveToEnd(), Not(testing::EndsWith("0\r\n\r\n")));
    EXPECT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    EXPECT_NE(run.request(0)->code, 0);
}

// Lengths.

TEST(SourceLength, HasPrecedenceOverTheHeadsAndTheDifferenceIsLogged)
{
    EventRun run([&](EventRequest& r) {
        r.response.contentLength = 5;
        respondFrom(r, BodySource::fromString(std::make_shared<const std::string>("0123456789")));
    });
    RawClient client(run.port());
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(client.send(getRequest("/")));
        EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "0123456789")));
    }
    EXPECT_THAT(processLog->lines("the body source has 10 bytes, the response declares 5"),
                SizeIs(2));
}

TEST(SourceLength, OfTheHeadIsThatOfASourceThatDoesNotKnowItsOwn)
{
    const auto control = controlWith(1000);
    EventRun run([&](EventRequest& r) {
        r.response.contentLength = 300;
        respondFrom(r, std::make_unique<TestSource>(control, 1000, -1));
    });
    RawClient client(run.port());
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(client.send(getRequest("/")));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->value("Content-Length"), "300");
        EXPECT_EQ(response->body, pattern(300));
    }
}

// Responses without a body.

TEST(BodySource, IsNotReadForAResponseWithoutABody)
{
    const struct
    {
        const char* method;
        uint32_t status;
        int64_t length;
        const char* contentLength;
    } rows[] = {
        {"HEAD", 200, 1000, "1000"}, {"HEAD", 200, -1, ""},      {"GET", 204, 1000, ""},
        {"GET", 204, -1, ""},        {"GET", 304, 1000, "1000"}, {"GET", 304, -1, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.method << " " << row.status << " " << row.length);
        const auto control = controlWith(1000);
        EventRun run(
            [&](EventRequest& r) {
                if (targetOf(r) == "/ping")
                    return r.respondHere(200, "pong");
                respondFrom(r, std::make_unique<TestSource>(control, 1000, row.length), row.status);
            },
            onOneThread());
        RawClient client(run.port());
        ASSERT_TRUE(client.send(row.method + std::string(" / HTTP/1.1\r\nHost: x\r\n\r\n")));
        const auto head = client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->status, static_cast<int>(row.status));
        EXPECT_EQ(head->value("Content-Length"), row.contentLength);
        EXPECT_EQ(control->use.reads, 0);
        EXPECT_EQ(control->use.destructions, 1);
        EXPECT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
        EXPECT_EQ(run.request(0)->code, 0);
        if (row.length < 0 && row.status != 204) {
            EXPECT_EQ(client.receiveToEnd(), "");
            continue;
        }
        ASSERT_TRUE(client.send(getRequest("/ping")));
        EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "pong")));
    }
}

// Ends.

TEST(BodySource, IsDestroyedOnItsDaemonThreadBeforeTheCompletion)
{
    const auto control = controlWith(1000);
    EventRun run(
        [&](EventRequest& r) { respondFrom(r, std::make_unique<TestSource>(control, 1000, 1000)); },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receive());
    ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    EXPECT_EQ(control->use.destructions, 1);
    EXPECT_NE(control->use.destroyer.load(), std::this_thread::get_id());
    EXPECT_EQ(control->use.destroyer.load(), control->use.lastReader.load());
    control->resumer.resume();
}

TEST(BodySource, ThatWaitsIsAbortedWhenItsClientResetsTheConnection)
{
    const auto control = controlWith(0);
    EventRun run(
        [&](EventRequest& r) {
            if (targetOf(r) == "/ping")
                return r.respondHere(200, "pong");
            respondFrom(r, std::make_unique<TestSource>(control, 1000, -1));
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(waitUntil([&] { return control->notYets == 1; }));
    EventRequest* const request = run.request(0);
    client.reset();
    EXPECT_TRUE(waitUntil([&] { return request->completions == 1; }));
    EXPECT_EQ(request->aborts, 1);
    EXPECT_EQ(request->abortReason(), "WriteError");
    EXPECT_EQ(request->connectionError(), "Http response device : WriteError");
    EXPECT_EQ(control->use.destructions, 1);
    EXPECT_EQ(control->notYets, 1);
    control->provide(1000);
    EXPECT_TRUE(isServing(run));
}

// A full close looks like the end of sending: the first send finds out.
TEST(BodySource, ThatWaitsIsAbortedByTheSendAfterItsClientHasClosed)
{
    const auto control = controlWith(0);
    EventRun run(
        [&](EventRequest& r) { respondFrom(r, std::make_unique<TestSource>(control, 1000, -1)); },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receiveHead());
    ASSERT_TRUE(waitUntil([&] { return control->notYets == 1; }));
    client.close();
    EventRequest* const request = run.request(0);
    EXPECT_TRUE(waitUntil([&] {
        control->provide(1);
        return request->completions == 1;
    }));
    EXPECT_EQ(control->use.destructions, 1);
}

TEST(BodySource, ThatWaitsIsServedDuringADrain)
{
    const auto control = controlWith(0);
    EventRun run(
        [&](EventRequest& r) { respondFrom(r, std::make_unique<TestSource>(control, 1000, -1)); },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(waitUntil([&] { return control->notYets == 1; }));
    std::atomic<bool> result{false};
    BackgroundCall shutDown([&] { result = run.server().shutDown(std::chrono::minutes(1)); });
    ASSERT_TRUE(waitUntil([&] { return !RawClient::accepts("127.0.0.1", run.port()); }));
    EXPECT_FALSE(shutDown.hasEnded());
    control->provide(1000);
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, pattern(1000))));
    EXPECT_TRUE(shutDown.waitForEnd());
    EXPECT_TRUE(result);
}

TEST(BodySource, ThatWaitsIsAbortedAtTheDeadlineOfAShutdown)
{
    constexpr size_t kClients = 20;
    std::vector<std::shared_ptr<Control>> controls;
    for (size_t i = 0; i < kClients; ++i)
        controls.push_back(controlWith(i % 2));
    std::atomic<size_t> next{0};
    EventRun run([&](EventRequest& r) {
        respondFrom(r, std::make_unique<TestSource>(controls[next++], 1000, -1));
    });
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/")));
    }
    ASSERT_TRUE(waitUntil([&] {
        return std::all_of(controls.begin(), controls.end(),
                           [](const auto& control) { return control->notYets != 0; });
    }));
    EXPECT_FALSE(run.server().shutDown(milliseconds(100)));
    for (size_t i = 0; i < kClients; ++i) {
        EXPECT_EQ(run.request(i)->abortReason(), "DaemonShutdown");
        EXPECT_EQ(controls[i]->use.destructions, 1);
        controls[i]->provide(1);
    }
}

TEST(BodySource, IsDestroyedWithoutAReadWhenItsResponseIsTooLate)
{
    qv::http::ServerOptions options = onOneThread();
    options.responseTimeout = milliseconds(100);
    const auto control = controlWith(1000);
    EventRun run(
        [&](EventRequest& r) {
            EXPECT_TRUE(r.getResponseDevice().setBodySource(
                std::make_unique<TestSource>(control, 1000, -1)));
        },
        options);
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::status, 503)));
    ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    EXPECT_EQ(control->use.reads, 0);
    EXPECT_EQ(control->use.destructions, 1);
    EXPECT_FALSE(run.request(0)->getResponseDevice().setResponseReady());
    EXPECT_FALSE(
        run.request(0)->getResponseDevice().setBodySource(BodySource::fromString(nullptr)));
}

// Deletes each request as soon as it is completed, with the source's handle in use.
TEST(BodySource, IsResumedAfterItsRequestHasBeenDeleted)
{
    class Application : public qv::http::HttpServerImpl
    {
    public:
        class Request : public qv::tests::MinimalRequest
        {
        public:
            explicit Request(std::atomic<bool>& completed) : mCompleted(completed) {}
            void onCompleted(int) override { mCompleted = true; }

        private:
            std::atomic<bool>& mCompleted;
        };

        qv::HttpBaseRequest* createRequest() override
        {
            completed = false;
            request = std::make_unique<Request>(completed);
            return request.get();
        }

        void handleRequest(qv::HttpBaseRequest* r) override
        {
            control = controlWith(1);
            r->getResponseDevice().setBodySource(
                std::make_unique<TestSource>(control, 1000000, -1));
            r->getResponseDevice().setResponseReady();
            handled.push(control);
        }

        void onNewWebSocket(qv::http::WebSocket*) override {}
        void onServerStopped() override {}
        void onRequestCompleted() override {}

        std::atomic<bool> completed{false};
        std::unique_ptr<Request> request;
        std::shared_ptr<Control> control;
        integration::Channel<std::shared_ptr<Control>> handled;
    };

    qv::initializeWendrel();
    {
        auto* const application = new Application;
        qv::http::HttpServer server(application);
        ASSERT_TRUE(server.serve(onOneThread()));
        const std::string name = server.getEndpoints().front();
        const auto port = static_cast<uint16_t>(std::stoi(name.substr(name.rfind(':') + 1)));
        for (int i = 0; i < 50; ++i) {
            RawClient client(port);
            ASSERT_TRUE(client.send(getRequest("/")));
            const auto control = application->handled.pop();
            ASSERT_TRUE(control);
            std::atomic<bool> stop{false};
            BackgroundCall resuming([&] {
                while (!stop) {
                    (*control)->resumer.resume();
                    std::this_thread::yield();
                }
            });
            ASSERT_TRUE(client.receiveHead());
            client.reset();
            ASSERT_TRUE(waitUntil([&] { return application->completed.load(); }));
            static_cast<void>(application->request->isCompleted());
            application->request.reset();
            (*control)->resumer.resume();
            stop = true;
        }
    }
    qv::terminateWendrel();
}

// Order of use.

TEST(SetBodySource, IsRefusedAfterAnythingElseHasDecidedTheBody)
{
    const auto text = std::make_shared<const std::string>("x");
    const struct
    {
        const char* name;
        std::function<void(EventRequest&)> before;
        const char* line;
        const char* body;
    } rows[] = {
        {"announced", [](EventRequest& r) { r.getResponseDevice().setResponseReady(); },
         "body source refused: the response has been announced", ""},
        {"written", [](EventRequest& r) { r.getResponseDevice().writeBytes("y", 1); },
         "body source refused: the response has a body", "y"},
        {"ended", [](EventRequest& r) { r.getResponseDevice().endSending(); },
         "body source refused: the response has a body", ""},
        {"has a source",
         [](EventRequest& r) {
             r.getResponseDevice().setBodySource(
                 BodySource::fromString(std::make_shared<const std::string>("z")));
         },
         "body source refused: the response has a body", "z"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        processLog->clear();
        EventRun run([&](EventRequest& request) {
            run.work(request, [&](EventRequest& r) {
                row.before(r);
                EXPECT_FALSE(r.getResponseDevice().setBodySource(BodySource::fromString(text)));
                r.getResponseDevice().endSending();
                r.getResponseDevice().setResponseReady();
            });
        });
        RawClient client(run.port());
        ASSERT_TRUE(client.send(getRequest("/")));
        EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, row.body)));
        EXPECT_THAT(processLog->lines(row.line), SizeIs(1));
        EXPECT_EQ(text.use_count(), 1);
    }
}

TEST(SetBodySource, IsRefusedForNullAndForAResumerInUse)
{
    const auto control = controlWith(0);
    EventRun run(
        [&](EventRequest& r) {
            qv::HttpResponseDevice& device = r.getResponseDevice();
            if (targetOf(r) == "/first")
                return respondFrom(r, std::make_unique<TestSource>(control, 10, -1));
            EXPECT_FALSE(device.setBodySource(nullptr));
            EXPECT_FALSE(device.setBodySource(std::make_unique<TestSource>(control, 10, -1)));
            respondFrom(r, BodySource::fromString(std::make_shared<const std::string>("other")));
        },
        onOneThread());
    RawClient first(run.port());
    ASSERT_TRUE(first.send(getRequest("/first")));
    ASSERT_TRUE(waitUntil([&] { return control->notYets == 1; }));
    RawClient other(run.port());
    ASSERT_TRUE(other.send(getRequest("/other")));
    EXPECT_THAT(other.receive(), Optional(Field(&RawResponse::body, "other")));
    EXPECT_THAT(processLog->lines("body source refused: null"), SizeIs(1));
    EXPECT_THAT(processLog->lines("body source refused: its resumer serves another response"),
                SizeIs(1));
    // The handle still resumes the first one.
    control->provide(10);
    EXPECT_THAT(first.receive(), Optional(Field(&RawResponse::body, pattern(10))));
    // And a later one when the first has ended.
    ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    ASSERT_TRUE(first.send(getRequest("/first")));
    EXPECT_THAT(first.receive(), Optional(Field(&RawResponse::body, pattern(10))));
}

TEST(SetBodySource, IsRefusedInPollingMode)
{
    std::atomic<bool> refused{false};
    integration::TestServer server([&](integration::TestRequest& r) {
        refused = !r.getResponseDevice().setBodySource(BodySource::fromString(nullptr));
        r.respond(200, "written");
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "written")));
    EXPECT_TRUE(refused);
    EXPECT_THAT(processLog->lines("body source refused: not in event-driven mode"), SizeIs(1));
}

TEST(SetBodySource, OnAnyThreadRefusesFurtherWrites)
{
    EventRun run([&](EventRequest& request) {
        run.work(request, [](EventRequest& r) {
            EXPECT_TRUE(r.getResponseDevice().setBodySource(
                BodySource::fromString(std::make_shared<const std::string>("source"))));
            EXPECT_EQ(r.getResponseDevice().writeBytes("x", 1), 0u);
            r.getResponseDevice().endSending();
            r.getResponseDevice().setResponseReady();
        });
    });
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "source")));
}

// Uploads.

TEST(SetBodySource, InHandleRequestRespondsInPlaceOfContinue)
{
    EventRun run([&](EventRequest& r) {
        respondFrom(r, BodySource::fromString(std::make_shared<const std::string>("no")), 403);
    });
    RawClient client(run.port());
    ASSERT_TRUE(client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n"
                            "Expect: 100-continue\r\n\r\n"));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 403);
    EXPECT_EQ(response->body, "no");
    EXPECT_EQ(response->value("Connection"), "close");
    EXPECT_TRUE(client.isClosedByServer());
}

TEST(SetBodySource, DiscardsTheRestOfAnUpload)
{
    constexpr size_t kBytes = 900000;
    qv::http::ServerOptions options = onOneThread();
    options.uploadQueueBytes = 65536;
    EventRun run([](EventRequest&) {}, options);
    RawClient client(run.port());
    ASSERT_TRUE(client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                            std::to_string(kBytes) + "\r\n\r\n" + pattern(100000)));
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    BackgroundCall sender([&] { client.send(pattern(kBytes - 100000)); });
    respondFrom(*request, BodySource::fromString(std::make_shared<const std::string>("enough")));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "enough")));
    EXPECT_TRUE(sender.waitForEnd());
}

// Calls that would wait on a daemon thread.

TEST(DaemonThread, RefusesAWriteThatWouldWait)
{
    std::vector<uint64_t> written;
    EventRun run(
        [&](EventRequest& r) {
            r.workerThreadStartHandling(qv::qvThread::CurrentThreadId());
            const std::string piece(200000, 'x');
            for (int i = 0; i < 4; ++i)
                written.push_back(r.getResponseDevice().writeBytes(piece.data(), piece.size()));
            // Does not hand over.
            written.push_back(r.getResponseDevice().writeBytes("y", 1));
            r.getResponseDevice().endSending();
            r.workerThreadStopHandling("");
            r.getResponseDevice().setResponseReady();
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receive(),
                Optional(Field(&RawResponse::body, std::string(400000, 'x') + "y")));
    EXPECT_THAT(written, testing::ElementsAre(200000, 200000, 0, 0, 1));
    EXPECT_THAT(processLog->lines("HttpResponseDevice::writeBytes refused: it would wait on a "
                                  "daemon thread"),
                SizeIs(testing::Le(1u)));
}

TEST(DaemonThread, RefusesAReadThatWouldWait)
{
    std::atomic<uint64_t> got{99};
    EventRun run(
        [&](EventRequest& r) {
            std::vector<char> buffer(1000);
            got = r.getReceiveDevice().readBytes(buffer.data(), buffer.size());
            EXPECT_TRUE(r.getReceiveDevice().atEnd());
            EXPECT_EQ(r.getReceiveDevice().getDeviceErrorMsg(), "read on a daemon thread");
            r.respondHere(500, "read");
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\n12345"));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "read")));
    EXPECT_EQ(got, 0u);
}

}  // namespace

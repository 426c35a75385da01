// The request object: its defaults, its first parse error, its look-ups and its worker.

#include "support/TestRequest.h"

#include "request/ConnectionContext.h"
#include "request/DispatchAccess.h"

#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace qv::tests
{
namespace
{

using impl::DispatchAccess;
using ::testing::ElementsAre;
using ::testing::Pointee;

// Index of a virtual operation in the table of its class, as the C++ ABI of this machine puts
// it into a pointer to member: one more than its offset in bytes. The destructor has 0 and 1.
template <typename Operation> size_t SlotOf(Operation operation)
{
    ptrdiff_t coded = 0;
    std::memcpy(&coded, &operation, sizeof coded);
    EXPECT_EQ(coded % 8, 1);
    return static_cast<size_t>(coded) / sizeof(void*);
}

TEST(HttpBaseRequest, StartsWithItsDefaults)
{
    TestRequest request;
    EXPECT_EQ(DispatchAccess::connection(request), nullptr);
    EXPECT_EQ(request.getClientAddress(), IpAddress());
    EXPECT_EQ(request.getReceiveDurationMs(), 0);
    EXPECT_EQ(request.getResponseStartMs(), -1);
    EXPECT_EQ(request.getRequestHeadBytes(), 0u);
    EXPECT_EQ(request.getResponseHeadBytes(), 0u);
    EXPECT_EQ(request.getCurrentWorkerThreadId(), "");
    EXPECT_EQ(DispatchAccess::lastKeepAliveMs(request), impl::kTimeNotSet);
    EXPECT_FALSE(DispatchAccess::keepAliveCallback(request));
    EXPECT_EQ(request.getOriginalFullUrl(), "");
    EXPECT_FALSE(request.getUrl().isValid());
    EXPECT_TRUE(request.getHeaders().empty());
    EXPECT_TRUE(request.getCookies().empty());
    EXPECT_TRUE(request.getQueryParameters().empty());
    EXPECT_EQ(request.getParseError(), "");
    EXPECT_EQ(DispatchAccess::keepAliveIntervalMs(request), 0u);
    EXPECT_FALSE(DispatchAccess::bodyPending(request));
    EXPECT_EQ(request.getRequestType(), HttpBaseRequest::UNKNOWN_HTTP_METHOD);
    EXPECT_FALSE(request.hasParseError());
    EXPECT_FALSE(request.isCompleted());
}

TEST(HttpBaseRequest, NeverMeansTheLeastTime)
{
    EXPECT_EQ(impl::kTimeNotSet, std::numeric_limits<int64_t>::min());
}

TEST(HttpBaseRequest, HasItsOwnTwoDevicesFromTheBeginning)
{
    TestRequest request;
    EXPECT_EQ(request.getReceiveDevice().getDataWay(), 3);
    EXPECT_EQ(request.getResponseDevice().getDataWay(), 2);
    EXPECT_FALSE(request.getReceiveDevice().hasDeviceError());
    EXPECT_FALSE(request.getResponseDevice().hasDeviceError());

    TestRequest other;
    EXPECT_NE(&request.getReceiveDevice(), &other.getReceiveDevice());
    EXPECT_NE(&request.getResponseDevice(), &other.getResponseDevice());
}

TEST(HttpBaseRequest, CanBeDeletedThroughItsBase)
{
    static_assert(std::has_virtual_destructor_v<HttpBaseRequest>);
    static_assert(std::is_abstract_v<HttpBaseRequest>);
    static_assert(!std::is_copy_constructible_v<HttpBaseRequest>);
    struct Deleted : TestRequest
    {
        explicit Deleted(bool& flag) : mFlag(flag) {}
        ~Deleted() override { mFlag = true; }
        bool& mFlag;
    };
    bool deleted = false;
    const std::unique_ptr<HttpBaseRequest> request = std::make_unique<Deleted>(deleted);
    const_cast<std::unique_ptr<HttpBaseRequest>&>(request).reset();
    EXPECT_TRUE(deleted);
}

TEST(HttpBaseRequest, KeepsTheOrderOfItsVirtualOperations)
{
    EXPECT_EQ(SlotOf(&HttpBaseRequest::getResponse), 2u);
    EXPECT_EQ(SlotOf(&HttpBaseRequest::getWaitListener), 3u);
}

TEST(HttpBaseRequest, KeepsTheOrderOfItsMembers)
{
    TestRequest request;
    HttpBaseRequest& base = request;
    const void* const inOrder[] = {
        &base,  // the table of virtual operations
        &DispatchAccess::connection(base),
        &DispatchAccess::clientAddress(base),
        &DispatchAccess::receiveDurationMs(base),
        &DispatchAccess::responseStartMs(base),
        &DispatchAccess::responseHeadBytes(base),
        &base.getCurrentWorkerThreadId(),
        &DispatchAccess::lastKeepAliveMs(base),
        &DispatchAccess::keepAliveCallback(base),
        &base.getOriginalFullUrl(),
        &base.getUrl(),
        &base.getHeaders(),
        &base.getCookies(),
        &base.getQueryParameters(),
        &base.getParseError(),
        &DispatchAccess::keepAliveIntervalMs(base),
        &DispatchAccess::bodyPending(base),
        &DispatchAccess::completed(base),
    };
    for (size_t i = 1; i < std::size(inOrder); ++i)
        EXPECT_LT(inOrder[i - 1], inOrder[i]) << "member " << i;
}

TEST(HttpBaseRequest, KeepsTheFirstParseErrorThatIsNotEmpty)
{
    const struct
    {
        const char* name;
        std::vector<const char*> messages;
        const char* kept;
    } rows[] = {
        {"one", {"a"}, "a"},
        {"the first of two", {"a", "b"}, "a"},
        {"an empty one lets the next in", {"", "b"}, "b"},
        {"an empty one does not clear", {"a", ""}, "a"},
        {"only an empty one", {""}, ""},
        {"the first after empty ones", {"", "", "c", "d"}, "c"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        for (const char* message : row.messages) {
            request.setParseError(message);
            EXPECT_TRUE(request.hasParseError());
        }
        EXPECT_EQ(request.getParseError(), row.kept);
    }
}

TEST(HttpBaseRequest, FindsHeadersByTheirLowerCaseNameOnly)
{
    TestRequest request;
    request.addHeader("Accept", "text/html, text/plain");
    EXPECT_THAT(request.getHeader("accept"), Pointee(ElementsAre("text/html", "text/plain")));
    EXPECT_EQ(request.getHeader("Accept"), nullptr);
    EXPECT_EQ(request.getHeader("accep"), nullptr);
    EXPECT_EQ(request.getHeader(""), nullptr);
}

TEST(HttpBaseRequest, FindsCookiesAndQueryParametersByTheirExactName)
{
    TestRequest request;
    request.addCookie("Id", "1");
    request.addCookie("Id", "2");
    request.addQueryParameter("Page", "7");
    request.addQueryParameter("Page", "8");
    EXPECT_THAT(request.getCookie("Id"), Pointee(ElementsAre("1", "2")));
    EXPECT_EQ(request.getCookie("id"), nullptr);
    EXPECT_EQ(request.getCookie("missing"), nullptr);
    EXPECT_EQ(request.getCookie("Page"), nullptr);
    EXPECT_THAT(request.getQueryParameter("Page"), Pointee(ElementsAre("7", "8")));
    EXPECT_EQ(request.getQueryParameter("page"), nullptr);
    EXPECT_EQ(request.getQueryParameter("Id"), nullptr);
}

TEST(HttpBaseRequest, LookUpsDoNotAddWhatTheyDoNotFind)
{
    TestRequest request;
    EXPECT_EQ(request.getCookie("a"), nullptr);
    EXPECT_EQ(request.getQueryParameter("a"), nullptr);
    EXPECT_EQ(request.getHeader("a"), nullptr);
    EXPECT_TRUE(request.getCookies().empty());
    EXPECT_TRUE(request.getQueryParameters().empty());
    EXPECT_TRUE(request.getHeaders().empty());
}

TEST(HttpBaseRequest, LookUpsThrowOnANullName)
{
    TestRequest request;
    const auto message = [](auto&& lookUp) -> std::string {
        try {
            lookUp();
        } catch (const std::logic_error& error) {
            return error.what();
        }
        return "nothing thrown";
    };
    const char* const expected = "basic_string: construction from null is not valid";
    EXPECT_EQ(message([&] { request.getHeader(nullptr); }), expected);
    EXPECT_EQ(message([&] { request.getCookie(nullptr); }), expected);
    EXPECT_EQ(message([&] { request.getQueryParameter(nullptr); }), expected);
}

TEST(HttpBaseRequest, RemembersTheWorkerThreadItIsTold)
{
    TestRequest request;
    request.workerThreadStartHandling("thread 7");
    EXPECT_EQ(request.getCurrentWorkerThreadId(), "thread 7");
    request.workerThreadStartHandling("thread 8");
    EXPECT_EQ(request.getCurrentWorkerThreadId(), "thread 8");
    request.workerThreadStopHandling("thread 8");
    EXPECT_EQ(request.getCurrentWorkerThreadId(), "");
}

TEST(HttpBaseRequest, SetsTheKeepAliveCallbackAndItsInterval)
{
    TestRequest request;
    size_t calls = 0;
    request.setKeepAliveCallback([&] { ++calls; }, 4000000000u);
    ASSERT_TRUE(DispatchAccess::keepAliveCallback(request));
    DispatchAccess::keepAliveCallback(request)();
    EXPECT_EQ(calls, 1u);
    EXPECT_EQ(DispatchAccess::keepAliveIntervalMs(request), 4000000000u);
}

TEST(HttpBaseRequest, StopHandlingForgetsTheWorkerWhateverThreadIsNamed)
{
    for (const char* named : {"thread 7", "another thread", ""}) {
        SCOPED_TRACE(named);
        TestRequest request;
        request.workerThreadStartHandling("thread 7");
        request.setKeepAliveCallback([] {}, 500);
        DispatchAccess::lastKeepAliveMs(request) = 12345;
        request.workerThreadStopHandling(named);
        EXPECT_EQ(request.getCurrentWorkerThreadId(), "");
        EXPECT_FALSE(DispatchAccess::keepAliveCallback(request));
        EXPECT_EQ(DispatchAccess::keepAliveIntervalMs(request), 0u);
        EXPECT_EQ(DispatchAccess::lastKeepAliveMs(request), impl::kTimeNotSet);
    }
}

TEST(HttpBaseRequest, StopHandlingReleasesTheCallbackBeforeItResetsItsTimes)
{
    TestRequest request;
    request.serveOnThisThread();
    std::string workerThreadId = "not released";
    uint32_t intervalMs = 0;
    int64_t lastMs = 0;
    {
        const std::shared_ptr<void> target(nullptr, [&](void*) {
            workerThreadId = request.getCurrentWorkerThreadId();
            intervalMs = DispatchAccess::keepAliveIntervalMs(request);
            lastMs = DispatchAccess::lastKeepAliveMs(request);
        });
        request.setKeepAliveCallback([target] {}, 500);
    }
    DispatchAccess::lastKeepAliveMs(request) = 12345;
    request.stopServing();
    EXPECT_EQ(workerThreadId, "");
    EXPECT_EQ(intervalMs, 500u);
    EXPECT_EQ(lastMs, 12345);
}

TEST(HttpBaseRequest, StopHandlingReleasesTheCallbackOnTheCallingThread)
{
    TestRequest request;
    request.serveOnThisThread();
    std::thread::id releasedOn;
    bool takenOutBefore = false;
    {
        const std::shared_ptr<void> target(nullptr, [&](void*) {
            releasedOn = std::this_thread::get_id();
            takenOutBefore = !DispatchAccess::keepAliveCallback(request);
        });
        request.setKeepAliveCallback([target] {}, 500);
    }
    EXPECT_EQ(releasedOn, std::thread::id());
    request.stopServing();
    EXPECT_EQ(releasedOn, std::this_thread::get_id());
    EXPECT_TRUE(takenOutBefore);
}

TEST(HttpBaseRequest, ReleasesTheCallbackWithTheRequest)
{
    const auto target = std::make_shared<int>(1);
    {
        TestRequest request;
        request.setKeepAliveCallback([target] {}, 500);
        EXPECT_EQ(target.use_count(), 2);
    }
    EXPECT_EQ(target.use_count(), 1);
}

TEST(HttpBaseRequest, ShowsWhatTheDispatchStored)
{
    TestRequest request;
    DispatchAccess::clientAddress(request) = IpAddress::fromText("192.0.2.7", 4711);
    DispatchAccess::receiveDurationMs(request) = 12;
    DispatchAccess::responseStartMs(request) = 34;
    DispatchAccess::responseHeadBytes(request) = 56;
    DispatchAccess::completed(request) = true;
    EXPECT_EQ(request.getClientAddress().toStringWithPort(), "192.0.2.7:4711");
    EXPECT_EQ(request.getReceiveDurationMs(), 12);
    EXPECT_EQ(request.getResponseStartMs(), 34);
    EXPECT_EQ(request.getResponseHeadBytes(), 56u);
    EXPECT_TRUE(request.isCompleted());
}

}  // namespace
}  // namespace qv::tests

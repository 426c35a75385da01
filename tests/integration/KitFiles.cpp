// Files as responses: RFC 9110, sections 8, 13 and 14, and files that change meanwhile.

#include "support/KitTestServer.h"
#include "support/Pattern.h"

#include <support/Capabilities.h>
#include <support/Descriptors.h>
#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::DeferredResponse;
using qv::kit::FileOptions;
using qv::kit::FileTag;
using qv::kit::Request;
using qv::kit::Router;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr size_t kBytes = 100000;
constexpr time_t kModified = 784887151;
constexpr const char* kModifiedText = "Tue, 15 Nov 1994 08:12:31 GMT";
constexpr const char* kSecondBefore = "Tue, 15 Nov 1994 08:12:30 GMT";

void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

void setModified(const std::string& path, time_t seconds)
{
    const timespec times[2] = {{seconds, 0}, {seconds, 250000000}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class KitFiles : public testing::Test
{
protected:
    KitFiles()
    {
        writeFile(mDirectory / "old.txt", mContent);
        setModified(mDirectory / "old.txt", kModified);
        mServer = std::make_unique<KitTestServer>([this](Router& router) { addRoutes(router); });
        mTag = mServer->get("/old.txt").value("ETag");
    }

    void addRoutes(Router& router)
    {
        const auto serve = [this](Request& request) {
            request.replyFile(mDirectory / request.pathParameter("name"), options());
        };
        router.get("/{name}", serve);
        router.post("/{name}", serve);
        router.get("/later/{name}", [this](Request& request) {
            auto later = std::make_shared<DeferredResponse>(request.defer());
            const std::string path = mDirectory / request.pathParameter("name");
            const std::lock_guard<std::mutex> locker(mMutex);
            mThreads.emplace_back([this, later, path] {
                later->setHeader("X-Later", "yes");
                later->replyFile(path, options());
            });
        });
        router.get("/coded/{name}", [this](Request& request) {
            request.setHeader("Content-Encoding", "gzip");
            request.setHeader("ETag", "\"own\"");
            FileOptions options;
            options.tag = FileTag::None;
            request.replyFile(mDirectory / request.pathParameter("name"), options);
        });
        router.get("/open/{name}", [this](Request& request) {
            const std::string path = mDirectory / request.pathParameter("name");
            request.replyOpenFile(open(path.c_str(), O_RDONLY | O_CLOEXEC), "a.png", options());
        });
    }

    ~KitFiles() override
    {
        mServer->stop();
        for (std::thread& thread : mThreads)
            thread.join();
    }

    FileOptions options()
    {
        const std::lock_guard<std::mutex> locker(mMutex);
        return mOptions;
    }

    void setOptions(const FileOptions& options)
    {
        const std::lock_guard<std::mutex> locker(mMutex);
        mOptions = options;
    }

    RawResponse get(const std::string& target, const std::string& lines = "",
                    const std::string& method = "GET") const
    {
        return mServer->ask(method + getRequest(target, lines).substr(3));
    }

    const std::string mContent = pattern(kBytes);
    qv::tests::TemporaryDirectory mDirectory;
    std::mutex mMutex;
    FileOptions mOptions;
    std::vector<std::thread> mThreads;
    std::unique_ptr<KitTestServer> mServer;
    std::string mTag;
};

TEST_F(KitFiles, AreSentWithTheirHead)
{
    const RawResponse whole = get("/old.txt");
    EXPECT_EQ(whole.status, 200);
    EXPECT_EQ(whole.body, mContent);
    EXPECT_EQ(whole.value("Content-Type"), "text/plain; charset=utf-8");
    EXPECT_EQ(whole.value("Content-Length"), std::to_string(kBytes));
    EXPECT_EQ(whole.value("Last-Modified"), kModifiedText);
    EXPECT_EQ(whole.value("Accept-Ranges"), "bytes");
    EXPECT_EQ(whole.value("Cache-Control"), "no-cache");
    EXPECT_EQ(whole.values("Content-Disposition").size(), 0u);
    EXPECT_THAT(mTag, StartsWith("\""));
    const RawResponse head = get("/old.txt", "", "HEAD");
    EXPECT_EQ(head.status, 200);
    for (const auto& header : whole.headers) {
        if (header.first != "Date") {
            EXPECT_EQ(head.value(header.first), header.second) << header.first;
        }
    }
}

TEST_F(KitFiles, TakeTheirOptions)
{
    FileOptions options;
    options.type = "application/x-own";
    options.downloadName = "r\xc3\xa9sum\xc3\xa9.txt";
    options.cacheControl = "max-age=60";
    setOptions(options);
    const RawResponse response = get("/old.txt");
    EXPECT_EQ(response.value("Content-Type"), "application/x-own");
    EXPECT_EQ(response.value("Content-Disposition"),
              "attachment; filename=\"r_sum_.txt\"; filename*=UTF-8''r%C3%A9sum%C3%A9.txt");
    EXPECT_EQ(response.value("Cache-Control"), "max-age=60");
    // An error is not kept for as long.
    EXPECT_EQ(get("/old.txt", "If-Match: \"other\"\r\n").values("Cache-Control").size(), 0u);
    options.type = "text/plain\r\nX-Evil: 1";
    setOptions(options);
    EXPECT_EQ(get("/old.txt").status, 500);
}

TEST_F(KitFiles, KeepTheHeadersOfTheHandler)
{
    writeFile(mDirectory / "old.txt.zst", "other");
    const RawResponse response = get("/coded/old.txt", "Accept-Encoding: zstd, gzip\r\n");
    EXPECT_EQ(response.value("Content-Encoding"), "gzip");
    EXPECT_EQ(response.value("ETag"), "\"own\"");
    EXPECT_EQ(response.body, mContent);
}

TEST_F(KitFiles, HaveTagsOfEachKind)
{
    writeFile(mDirectory / "new.txt", "new");
    const struct
    {
        FileTag tag;
        const char* ofOld;
        const char* ofNew;
    } rows[] = {
        {FileTag::Automatic, "\"", "W/\""},
        {FileTag::Strong, "\"", "\""},
        {FileTag::Weak, "W/\"", "W/\""},
    };
    FileOptions options;
    for (const auto& row : rows) {
        options.tag = row.tag;
        setOptions(options);
        setModified(mDirectory / "new.txt", time(nullptr) + 3600);
        EXPECT_THAT(get("/old.txt").value("ETag"), StartsWith(row.ofOld));
        EXPECT_THAT(get("/new.txt").value("ETag"), StartsWith(row.ofNew));
    }
    options.tag = FileTag::None;
    setOptions(options);
    EXPECT_EQ(get("/old.txt").values("ETag").size(), 0u);
    EXPECT_EQ(get("/old.txt", std::string("If-Modified-Since: ") + kModifiedText + "\r\n").status,
              304);
}

// A clock that was wrong must not make clients believe in a state that is still to come.
TEST_F(KitFiles, AreNotModifiedInTheFuture)
{
    writeFile(mDirectory / "new.txt", "new");
    setModified(mDirectory / "new.txt", time(nullptr) + 36000);
    const RawResponse response = get("/new.txt");
    EXPECT_EQ(response.value("Last-Modified"), response.value("Date"));
}

TEST_F(KitFiles, FollowTheirConditions)
{
    const struct
    {
        const char* what;
        std::string lines;
        int status;
        int statusOfPost;  // conditions are not those of the file
    } rows[] = {
        {"If-Match of the state", "If-Match: " + mTag, 200, 200},
        {"If-Match of another one", "If-Match: \"x\"", 412, 200},
        {"If-Match in two lines", "If-Match: \"x\"\r\nIf-Match: " + mTag, 200, 200},
        {"If-Match of a weak tag", "If-Match: W/" + mTag, 412, 200},
        {"If-Match: *", "If-Match: *", 200, 200},
        {"If-Unmodified-Since", std::string("If-Unmodified-Since: ") + kModifiedText, 200, 200},
        {"modified since", std::string("If-Unmodified-Since: ") + kSecondBefore, 412, 200},
        {"If-Match first", "If-Unmodified-Since: " + std::string(kSecondBefore) + "\r\nIf-Match: *",
         200, 200},
        {"If-None-Match of the state", "If-None-Match: " + mTag, 304, 200},
        {"of a weak tag", "If-None-Match: W/" + mTag, 304, 200},
        {"of another one", "If-None-Match: \"x\"", 200, 200},
        {"If-None-Match: *", "If-None-Match: *", 304, 200},
        {"If-Modified-Since", std::string("If-Modified-Since: ") + kModifiedText, 304, 200},
        {"since before", std::string("If-Modified-Since: ") + kSecondBefore, 200, 200},
        {"If-None-Match first",
         "If-None-Match: \"x\"\r\nIf-Modified-Since: " + std::string(kModifiedText), 200, 200},
        {"a known state before a range", "If-None-Match: " + mTag + "\r\nRange: bytes=0-0", 304,
         200},
        {"a failed condition before a range", "If-Match: \"x\"\r\nRange: bytes=999999-", 412, 200},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const RawResponse response = get("/old.txt", row.lines + "\r\n");
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(response.body == mContent, row.status == 200);
        EXPECT_EQ(get("/old.txt", row.lines + "\r\n", "HEAD").status, row.status);
        EXPECT_EQ(get("/old.txt", row.lines + "\r\n", "POST").status, row.statusOfPost);
        if (row.status == 304) {
            EXPECT_EQ(response.value("ETag"), mTag);
            EXPECT_EQ(response.value("Cache-Control"), "no-cache");
        }
        // Conditions of a missing file are ignored.
        EXPECT_EQ(get("/missing", row.lines + "\r\n").status, 404);
    }
}

TEST_F(KitFiles, AreSentInOneRange)
{
    const struct
    {
        const char* lines;
        size_t first;
        size_t last;
    } rows[] = {
        {"Range: bytes=0-0", 0, 0},
        {"Range: bytes=-1", kBytes - 1, kBytes - 1},
        {"Range: bytes=65535-65537", 65535, 65537},
        {"Range: bytes=5-9, 1-4", 1, 9},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lines);
        const RawResponse part = get("/old.txt", std::string(row.lines) + "\r\n");
        EXPECT_EQ(part.status, 206);
        EXPECT_EQ(part.body, mContent.substr(row.first, row.last - row.first + 1));
        EXPECT_EQ(part.value("Content-Range"), "bytes " + std::to_string(row.first) + "-" +
                                                   std::to_string(row.last) + "/" +
                                                   std::to_string(kBytes));
        EXPECT_EQ(part.value("ETag"), mTag);
        // Only GET has ranges.
        for (const char* method : {"HEAD", "POST"}) {
            const RawResponse whole = get("/old.txt", std::string(row.lines) + "\r\n", method);
            EXPECT_EQ(whole.status, 200);
            EXPECT_EQ(whole.value("Content-Length"), std::to_string(kBytes));
        }
    }
    EXPECT_EQ(get("/old.txt", "Range: bytes=0-0\r\nIf-Range: " + mTag + "\r\n").status, 206);
    EXPECT_EQ(get("/old.txt", "Range: bytes=0-0\r\nIf-Range: \"x\"\r\n").status, 200);
    EXPECT_EQ(
        get("/old.txt", std::string("Range: bytes=0-0\r\nIf-Range: ") + kModifiedText + "\r\n")
            .status,
        206);
}

TEST_F(KitFiles, AreSentInSeveralRanges)
{
    const RawResponse response = get("/old.txt", "Range: bytes=70000-, 0-1, 100-1099, 200-300\r\n");
    EXPECT_EQ(response.status, 206);
    const std::string type = response.value("Content-Type");
    ASSERT_THAT(type, StartsWith("multipart/byteranges; boundary="));
    EXPECT_EQ(response.values("Content-Range").size(), 0u);
    EXPECT_EQ(response.value("Content-Length"), std::to_string(response.body.size()));
    const std::string boundary = type.substr(type.find('=') + 1);
    std::string expected;
    const std::pair<size_t, size_t> parts[] = {{70000, kBytes - 1}, {0, 1}, {100, 1099}};
    for (const auto& [first, last] : parts) {
        expected += (expected.empty() ? "--" : "\r\n--") + boundary +
                    "\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Range: bytes " +
                    std::to_string(first) + "-" + std::to_string(last) + "/" +
                    std::to_string(kBytes) + "\r\n\r\n" + mContent.substr(first, last - first + 1);
    }
    EXPECT_EQ(response.body, expected + "\r\n--" + boundary + "--\r\n");
    EXPECT_NE(get("/old.txt", "Range: bytes=70000-,0-1\r\n").value("Content-Type"), type);
}

TEST_F(KitFiles, RefuseRangesBeyondTheirEndAndByTheThousand)
{
    std::string many = "Range: bytes=";
    for (int i = 0; i < 1000; ++i)
        many += "0-,";
    for (const std::string& lines : {std::string("Range: bytes=100000-"), many}) {
        const RawResponse response = get("/old.txt", lines + "\r\n");
        EXPECT_EQ(response.status, 416);
        EXPECT_EQ(response.value("Content-Range"), "bytes */100000");
        EXPECT_LT(response.body.size(), 1000u);
    }
    EXPECT_EQ(get("/old.txt", "Range: bytes=x\r\n").status, 200);
}

TEST_F(KitFiles, OfNoBytesHaveNoRange)
{
    writeFile(mDirectory / "empty", "");
    for (const char* lines : {"", "Range: bytes=-1\r\n"}) {
        const RawResponse response = get("/empty", lines);
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.value("Content-Length"), "0");
    }
    EXPECT_EQ(get("/empty", "Range: bytes=0-\r\n").status, 416);
}

// A pipe without a writer must not hold the worker.
TEST_F(KitFiles, ThatAreNoneAreNotFound)
{
    std::filesystem::create_directory(mDirectory / "inner");
    ASSERT_EQ(mkfifo((mDirectory / "pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("loop", mDirectory / "loop");
    for (const char* target : {"/missing", "/inner", "/pipe", "/loop", "/open/missing"}) {
        SCOPED_TRACE(target);
        EXPECT_EQ(get(target).status, 404);
    }
    EXPECT_EQ(get("/" + std::string(300, 'x')).status, 404);
}

TEST_F(KitFiles, ThatMustNotBeReadAreForbidden)
{
    const qv::tests::PermissionsCount permissions;
    const KitTestServer server([this](Router& router) { addRoutes(router); });
    writeFile(mDirectory / "locked", "x");
    EXPECT_EQ(server.get("/locked").status, 200);
    std::filesystem::permissions(mDirectory / "locked", std::filesystem::perms::none);
    EXPECT_EQ(server.get("/locked").status, 403);
}

// A client may come again when others have their files.
TEST_F(KitFiles, WithoutADescriptorAreUnavailable)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "UndefinedBehaviorSanitizer looks at objects through a pipe";
#endif
    RawClient client(mServer->port());
    client.send(getRequest("/old.txt"));
    EXPECT_EQ(client.receive().value_or(RawResponse()).status, 200);
    RawResponse response;
    {
        const qv::tests::NoDescriptors none;
        client.send(getRequest("/old.txt"));
        response = client.receive().value_or(RawResponse());
    }
    EXPECT_EQ(response.status, 503);
    EXPECT_EQ(response.value("Retry-After"), "1");
    EXPECT_TRUE(logged("GET /{name}: cannot open the file old.txt: Too many open files"));
    client.send(getRequest("/old.txt"));
    EXPECT_EQ(client.receive().value_or(RawResponse()).status, 200);
}

// Archives, and tools that copy, set the time of a modification back.
TEST_F(KitFiles, ThatAreWrittenAgainWithTheirOldTimeHaveAnotherTag)
{
    writeFile(mDirectory / "old.txt", std::string(kBytes, 'x'));
    setModified(mDirectory / "old.txt", kModified);
    const RawResponse response = get("/old.txt", "If-None-Match: " + mTag + "\r\n");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.value("Last-Modified"), kModifiedText);
    EXPECT_THAT(response.value("ETag"), StartsWith("\""));
    EXPECT_EQ(get("/old.txt", "Range: bytes=0-0\r\nIf-Range: " + mTag + "\r\n").status, 200);
}

// The file may have been changed once more within the same tick of the clock.
TEST_F(KitFiles, AreSentAgainWhenTheirTagBecomesStrong)
{
    writeFile(mDirectory / "new.txt", "new");
    setModified(mDirectory / "new.txt", time(nullptr));
    const std::string first = get("/new.txt").value("ETag");
    ASSERT_THAT(first, StartsWith("W/\""));
    EXPECT_EQ(get("/new.txt", "If-None-Match: " + first + "\r\n").status, 304);
    ASSERT_TRUE(waitUntil([&] { return get("/new.txt").value("ETag")[0] == '"'; }));
    const RawResponse response = get("/new.txt", "If-None-Match: " + first + "\r\n");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "new");
}

TEST_F(KitFiles, AreSentByDeferredResponsesAndFromDescriptors)
{
    const RawResponse later = get("/later/old.txt", "Range: bytes=1-2\r\n");
    EXPECT_EQ(later.status, 206);
    EXPECT_EQ(later.body, mContent.substr(1, 2));
    EXPECT_EQ(later.value("X-Later"), "yes");
    EXPECT_EQ(get("/later/missing").status, 404);
    const RawResponse opened = get("/open/old.txt");
    EXPECT_EQ(opened.body, mContent);
    EXPECT_EQ(opened.value("Content-Type"), "image/png");
    EXPECT_EQ(opened.value("ETag"), mTag);
}

TEST_F(KitFiles, ThatShrinkCutTheConnection)
{
    constexpr uint64_t kLarge = 64 << 20;
    const std::string path = mDirectory / "large";
    writeFile(path, "");
    std::filesystem::resize_file(path, kLarge);
    RawClient client(mServer->port());
    client.send(getRequest("/large"));
    const std::optional<RawResponse> head = client.receiveHead();
    ASSERT_TRUE(head.has_value());
    EXPECT_EQ(head->value("Content-Length"), std::to_string(kLarge));
    std::filesystem::resize_file(path, 1);
    EXPECT_LT(client.receiveToEnd().size(), kLarge);
    EXPECT_EQ(get("/old.txt").status, 200);
}

TEST_F(KitFiles, ThatGrowAreSentInTheLengthTheyHad)
{
    constexpr uint64_t kLarge = 16 << 20;
    const std::string path = mDirectory / "large";
    writeFile(path, "");
    std::filesystem::resize_file(path, kLarge);
    RawClient client(mServer->port());
    client.send(getRequest("/large"));
    ASSERT_TRUE(client.receiveHead().has_value());
    std::filesystem::resize_file(path, kLarge + 1000);
    EXPECT_EQ(client.receiveExactly(kLarge).size(), kLarge);
    // The next response follows at once.
    client.send(getRequest("/old.txt"));
    EXPECT_EQ(client.receive().value_or(RawResponse()).body, mContent);
}

}  // namespace
}  // namespace integration

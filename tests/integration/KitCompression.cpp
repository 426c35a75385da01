// Compressed responses as curl decodes them, and those that must stay as they are.

#include "support/KitTestServer.h"
#include "support/Pattern.h"

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <zlib.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace integration
{
namespace
{

using qv::BodySource;
using qv::kit::CompressionOptions;
using qv::kit::ContentType;
using qv::kit::DeferredStream;
using qv::kit::FileOptions;
using qv::kit::Request;
using qv::kit::Router;
using ::testing::StartsWith;

constexpr size_t kBytes = 200000;

std::string makeText()
{
    std::string text;
    for (size_t i = 0; text.size() < kBytes; ++i)
        text += "line " + std::to_string(i) + "\n";
    return text;
}

const std::string kText = makeText();

// As far as it has come.
std::string decoded(const std::string& coded)
{
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(coded.data()));
    stream.avail_in = static_cast<uInt>(coded.size());
    std::string text;
    std::array<char, 16384> block{};
    int result = Z_OK;
    do {
        stream.next_out = reinterpret_cast<Bytef*>(block.data());
        stream.avail_out = block.size();
        result = inflate(&stream, Z_SYNC_FLUSH);
        text.append(block.data(), block.size() - stream.avail_out);
    } while (result == Z_OK && stream.avail_out == 0);
    inflateEnd(&stream);
    return text;
}

class KitCompression : public testing::Test
{
protected:
    KitCompression()
    {
        std::ofstream(mDirectory / "a.txt") << kText;
        std::ofstream(mDirectory / "small.txt") << kText.substr(0, 60000);
        std::ofstream(mDirectory / "large.txt") << std::string(1048577, 'x');
        // A tag is strong when the file has not been changed for a while.
        for (const char* name : {"a.txt", "small.txt"})
            std::filesystem::last_write_time(mDirectory / name,
                                             std::filesystem::file_time_type::clock::now() -
                                                 std::chrono::hours(1));
        auto options = kitOptions();
        options.compression.enabled = true;
        options.compression.types.emplace_back("text/event-stream");
        mServer =
            std::make_unique<KitTestServer>([this](Router& router) { addRoutes(router); }, options);
    }

    void addRoutes(Router& router)
    {
        router.get("/text", [](Request& request) {
            request.setHeader("ETag", "\"tag\"");
            request.reply(kText);
        });
        router.get("/inline", [](Request& request) { request.reply(kText); }).nonBlocking();
        router.get("/short", [](Request& request) { request.reply(std::string(1023, 'x')); });
        router.get("/image", [](Request& r) { r.reply(kText, ContentType("image/png")); });
        router.get("/json",
                   [](Request& r) { r.reply(kText, ContentType("application/JSON; a=b")); });
        router.get("/coded", [](Request& request) {
            request.setHeader("Content-Encoding", "br");
            request.reply(kText);
        });
        router.get("/no-transform", [](Request& request) {
            request.setHeader("Cache-Control", "private, No-Transform");
            request.reply(kText);
        });
        router.get("/range", [](Request& request) {
            request.setHeader("Content-Range", "bytes 0-199/200");
            request.reply(206, kText);
        });
        router.get("/tagged-small", [](Request& request) {
            request.setHeader("ETag", "\"tag\"");
            request.reply(kText.substr(0, 60000));
        });
        router.get("/own-304", [](Request& request) {
            request.setHeader("ETag", "\"tag\"");
            request.reply(304);
        });
        router.get("/long",
                   [](Request& request) { request.reply(kText + std::string(1048576, 'x')); });
        router.get("/off", [](Request& request) { request.reply(kText); })
            .compression(CompressionOptions());
        router.get("/not-modified", [](Request& request) { request.reply(304); });
        router.get("/file", [this](Request& r) { r.replyFile(mDirectory / "a.txt"); });
        router.get("/small-file", [this](Request& r) { r.replyFile(mDirectory / "small.txt"); });
        router.get("/large", [this](Request& r) { r.replyFile(mDirectory / "large.txt"); });
        router.get("/callback", [](Request& request) {
            request.replySource(
                BodySource::fromCallback(
                    [](uint64_t offset, char* buffer, size_t size) -> qv::BodyRead {
                        return {qv::BodyRead::Data, kText.copy(buffer, size, offset)};
                    },
                    qv::BodyResumer(), static_cast<int64_t>(kText.size())),
                ContentType::text());
        });
        router.get("/stream", [](Request& request) {
            request.startStream();
            for (size_t at = 0; at < kText.size(); at += 1000)
                request.write(std::string_view(kText).substr(at, 1000));
        });
        router.get("/declared", [](Request& request) {
            request.setContentLength(static_cast<int64_t>(kText.size()));
            request.startStream();
            request.write(kText);
        });
        router.get("/later", [](Request& request) {
            DeferredStream stream =
                request.defer().startStream(ContentType::text(), 200, 2 * kBytes);
            stream.write(kText);
            stream.finish();
        });
        router.get("/events", [this](Request& request) {
            mEvents = std::make_unique<DeferredStream>(
                request.defer().startStream(ContentType("text/event-stream")));
            mEvents->write("data: 1\n\n");
        });
        router.get("/flushed", [](Request& request) {
            request.startStream();
            request.write("first");
            request.flush();
            request.write("second");
        });
    }

    RawResponse get(const std::string& target, const std::string& lines = "",
                    const std::string& method = "GET") const
    {
        return mServer->ask(method + getRequest(target, lines).substr(3));
    }

    RawResponse getCoded(const std::string& target, const std::string& more = "",
                         const std::string& method = "GET") const
    {
        return get(target, "Accept-Encoding: gzip\r\n" + more, method);
    }

    qv::tests::TemporaryDirectory mDirectory;
    std::unique_ptr<DeferredStream> mEvents;
    std::unique_ptr<KitTestServer> mServer;
};

TEST_F(KitCompression, CodesBodiesOfEveryKind)
{
    const struct
    {
        const char* target;
        bool hasLength;
    } rows[] = {{"/text", true},      {"/inline", false}, {"/json", true},  {"/file", true},
                {"/callback", false}, {"/stream", false}, {"/later", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        const RawResponse coded = getCoded(row.target);
        EXPECT_EQ(coded.status, 200);
        EXPECT_EQ(coded.value("Content-Encoding"), "gzip");
        EXPECT_EQ(coded.value("Vary"), "Accept-Encoding");
        // A stream may be complete before its head is sent.
        if (std::string(row.target) != "/stream") {
            EXPECT_EQ(coded.values("Content-Length").size(), row.hasLength ? 1u : 0u);
        }
        EXPECT_LT(coded.body.size(), kText.size() / 2);
        EXPECT_EQ(decoded(coded.body), kText);
        const RawResponse plain = get(row.target);
        EXPECT_EQ(plain.body, kText);
        EXPECT_EQ(plain.values("Content-Encoding").size(), 0u);
        EXPECT_EQ(plain.value("Vary"), "Accept-Encoding");
        EXPECT_EQ(get(row.target, "Accept-Encoding: gzip, zstd\r\n").value("Content-Encoding"),
                  "zstd");
    }
    // Above 1 MiB, in steps.
    const RawResponse longer = getCoded("/long");
    EXPECT_EQ(longer.values("Content-Length").size(), 0u);
    EXPECT_EQ(decoded(longer.body), get("/long").body);
}

TEST_F(KitCompression, LeavesOtherBodies)
{
    const struct
    {
        const char* target;
        bool isVaried;
    } rows[] = {{"/short", false}, {"/image", false}, {"/no-transform", false}, {"/range", true},
                {"/off", false},   {"/large", false}, {"/declared", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        const RawResponse plain = get(row.target);
        const RawResponse asked = getCoded(row.target);
        EXPECT_EQ(asked.status, plain.status);
        EXPECT_EQ(asked.values("Content-Encoding").size(), 0u);
        EXPECT_EQ(asked.body, plain.body);
        EXPECT_EQ(asked.value("Content-Length"), std::to_string(plain.body.size()));
        EXPECT_EQ(asked.values("Vary").size(), row.isVaried ? 1u : 0u);
    }
    EXPECT_EQ(getCoded("/coded").value("Content-Encoding"), "br");
    EXPECT_EQ(getCoded("/not-modified").value("Vary"), "Accept-Encoding");
}

// Those that say how the connection is used may differ.
TEST_F(KitCompression, HasTheSameHeadForHeadAndGet)
{
    for (const char* target :
         {"/text", "/tagged-small", "/inline", "/json", "/file", "/small-file", "/callback",
          "/stream", "/later", "/long", "/short", "/image", "/large", "/coded", "/declared"}) {
        SCOPED_TRACE(target);
        for (const char* coding : {"gzip", "zstd", "identity"}) {
            SCOPED_TRACE(coding);
            const std::string lines = std::string("Accept-Encoding: ") + coding + "\r\n";
            const RawResponse got = get(target, lines);
            const RawResponse head = get(target, lines, "HEAD");
            EXPECT_EQ(head.status, got.status);
            EXPECT_EQ(head.body, "");
            for (const char* name : {"Content-Encoding", "Content-Length", "Content-Type", "ETag",
                                     "Vary", "Accept-Ranges", "Last-Modified"}) {
                // The length of a stream that is complete before its head is sent is known.
                if (std::string(name) != "Content-Length" || std::string(target) != "/stream") {
                    EXPECT_EQ(head.values(name), got.values(name)) << name;
                }
            }
        }
    }
}

TEST_F(KitCompression, LeavesRangesAndWeakensTags)
{
    const std::string tag = get("/file").value("ETag");
    const RawResponse part = getCoded("/file", "Range: bytes=5-9\r\n");
    EXPECT_EQ(part.status, 206);
    EXPECT_EQ(part.value("ETag"), tag);
    EXPECT_EQ(part.value("Vary"), "Accept-Encoding");
    EXPECT_EQ(part.values("Content-Encoding").size(), 0u);
    EXPECT_EQ(part.body, kText.substr(5, 5));
    const RawResponse coded = getCoded("/file");
    EXPECT_THAT(coded.value("ETag"), StartsWith("W/\""));
    EXPECT_EQ(coded.values("Accept-Ranges").size(), 0u);
    // A range of a compressed body does not exist.
    EXPECT_EQ(
        getCoded("/file", "Range: bytes=5-9\r\nIf-Range: " + coded.value("ETag") + "\r\n").status,
        200);
    EXPECT_EQ(getCoded("/file", "Range: bytes=5-9\r\nIf-Range: " + tag + "\r\n").status, 206);
}

// RFC 9110, section 15.4.5.
TEST_F(KitCompression, HasTheSameHeadFor304)
{
    for (const char* target : {"/text", "/tagged-small", "/file", "/small-file"}) {
        SCOPED_TRACE(target);
        for (const bool isCoded : {false, true}) {
            SCOPED_TRACE(isCoded);
            const std::string lines = isCoded ? "Accept-Encoding: gzip\r\n" : "";
            const RawResponse whole = get(target, lines);
            const std::string tag = whole.value("ETag");
            ASSERT_EQ(tag.substr(0, 2), isCoded ? "W/" : tag.substr(0, 2));
            const std::string opaque = tag.substr(tag.find('"'));
            EXPECT_EQ(tag, (isCoded ? "W/" : "") + opaque);
            for (const std::string& known : {opaque, "W/" + opaque, "\"x\", W/" + opaque}) {
                SCOPED_TRACE(known);
                const std::string condition = lines + "If-None-Match: " + known + "\r\n";
                for (const char* method : {"GET", "HEAD"}) {
                    const RawResponse response = get(target, condition, method);
                    EXPECT_EQ(response.status, 304);
                    EXPECT_EQ(response.body, "");
                    for (const char* name : {"ETag", "Vary", "Cache-Control", "Last-Modified"})
                        EXPECT_EQ(response.values(name), whole.values(name)) << name;
                    for (const char* name : {"Content-Type", "Content-Encoding"})
                        EXPECT_EQ(response.values(name).size(), 0u) << name;
                    // None, or that of the 200.
                    if (!response.values("Content-Length").empty()) {
                        EXPECT_EQ(response.value("Content-Length"), whole.value("Content-Length"));
                    }
                }
            }
            EXPECT_EQ(get(target, lines + "If-None-Match: \"x\"\r\n").status, 200);
        }
    }
    const std::string tag = getCoded("/small-file").value("ETag");
    const RawResponse small = getCoded("/small-file", "If-None-Match: " + tag + "\r\n");
    EXPECT_EQ(small.values("Content-Length").size(), 1u);
    EXPECT_EQ(small.values("Connection").size(), 0u);
}

// The kit does not know the type of the 200.
TEST_F(KitCompression, KeepsTheFormOfTheTagInA304OfAHandler)
{
    const auto tagOf = [&](const std::string& known) {
        return getCoded("/own-304", "If-None-Match: " + known + "\r\n").value("ETag");
    };
    EXPECT_EQ(tagOf("\"tag\""), "\"tag\"");
    EXPECT_EQ(tagOf("W/\"tag\""), "W/\"tag\"");
    EXPECT_EQ(tagOf("\"x\", W/\"tag\""), "W/\"tag\"");
    EXPECT_EQ(tagOf("*"), "\"tag\"");
    EXPECT_EQ(getCoded("/own-304").value("ETag"), "\"tag\"");
}

// The handler does not look at the tag.
TEST_F(KitCompression, MatchesTagsOfHandlers)
{
    EXPECT_EQ(get("/text").value("ETag"), "\"tag\"");
    EXPECT_EQ(getCoded("/text").value("ETag"), "W/\"tag\"");
    for (const char* known : {"W/\"tag\"", "\"tag\"", "\"other\", W/\"tag\""}) {
        const RawResponse response =
            getCoded("/text", std::string("If-None-Match: ") + known + "\r\n");
        EXPECT_EQ(response.status, 304);
        EXPECT_EQ(response.body, "");
        EXPECT_EQ(response.value("Vary"), "Accept-Encoding");
    }
    EXPECT_EQ(getCoded("/text", "If-None-Match: \"x\"\r\n").status, 200);
    // There is no tag.
    EXPECT_EQ(getCoded("/json", "If-None-Match: *\r\n").status, 200);
}

TEST_F(KitCompression, SendsEachEventAtOnce)
{
    RawClient client(mServer->port());
    client.send(getRequest("/events", "Accept-Encoding: gzip\r\n"));
    const std::optional<RawResponse> head = client.receiveHead();
    ASSERT_TRUE(head.has_value());
    EXPECT_EQ(head->value("Content-Encoding"), "gzip");
    std::string coded;
    const auto awaitText = [&](const std::string& text) {
        while (decoded(coded) != text) {
            // Chunks: size, line break, bytes, line break.
            std::string line;
            while (line.size() < 2 || line.substr(line.size() - 2) != "\r\n") {
                const std::string byte = client.receiveExactly(1);
                if (byte.empty())
                    return false;
                line += byte;
            }
            coded += client.receiveExactly(std::stoul(line, nullptr, 16));
            client.receiveExactly(2);
        }
        return true;
    };
    EXPECT_TRUE(awaitText("data: 1\n\n"));
    mEvents->write("data: 2\n\n");
    EXPECT_TRUE(awaitText("data: 1\n\ndata: 2\n\n"));
    mEvents->finish();
    EXPECT_EQ(decoded(getCoded("/flushed").body), "firstsecond");
}

// A compressor that the budget has no space for is not made.
TEST_F(KitCompression, KeepsWithinTheMemoryBudget)
{
    auto options = kitOptions();
    options.compression.enabled = true;
    options.memoryBudgetBytes = 300000;
    KitTestServer server([this](Router& router) { addRoutes(router); }, options);
    for (const char* target : {"/stream", "/callback", "/text", "/file"}) {
        SCOPED_TRACE(target);
        const RawResponse response = server.ask(getRequest(target, "Accept-Encoding: gzip\r\n"));
        EXPECT_EQ(response.values("Content-Encoding").size(), 0u);
        EXPECT_EQ(response.body, kText);
    }
}

// The system takes less of a body than for a connection of TCP.
RawClient::Connected connectTo(const std::string& path)
{
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return {descriptor};
}

// A client that does not read keeps what has been compressed.
TEST_F(KitCompression, CountsWhatItKeeps)
{
    constexpr size_t kNoiseBytes = 1000000;
    constexpr size_t kClients = 8;
    auto options = kitOptions();
    options.compression.enabled = true;
    options.memoryBudgetBytes = 3 * kNoiseBytes;
    const std::string path = mDirectory / "socket";
    options.listen.push_back("unix:" + path);
    std::string noise(kNoiseBytes, '\0');
    unsigned state = 1;
    for (char& byte : noise)
        byte = static_cast<char>((state = state * 1664525u + 1013904223u) >> 24);
    KitTestServer server(
        [&](Router& router) {
            router.get("/noise", [&](Request& request) { request.reply(noise); });
        },
        options);
    std::vector<std::unique_ptr<RawClient>> clients;
    size_t coded = 0;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<RawClient>(connectTo(path)));
        clients.back()->send(getRequest("/noise", "Accept-Encoding: gzip\r\n"));
        const auto head = clients.back()->receiveHead();
        ASSERT_TRUE(head.has_value());
        coded += head->values("Content-Encoding").size();
    }
    EXPECT_GE(coded, 1u);
    EXPECT_LE(coded, 2u);
    clients.clear();
    EXPECT_TRUE(waitUntil([&] {
        return !server.ask(getRequest("/noise", "Accept-Encoding: gzip\r\n"))
                    .values("Content-Encoding")
                    .empty();
    }));
}

}  // namespace
}  // namespace integration

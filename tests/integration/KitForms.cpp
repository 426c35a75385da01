// Forms of real requests: whole and streamed, and bombs.

#include "support/KitTestServer.h"

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::DeferredResponse;
using qv::kit::Form;
using qv::kit::FormFile;
using qv::kit::FormLimits;
using qv::kit::NewFile;
using qv::kit::Part;
using qv::kit::PartHead;
using qv::kit::PartTaker;
using qv::kit::Request;
using qv::kit::Router;
using ::testing::HasSubstr;

constexpr const char* kMultipart = "multipart/form-data; boundary=b0";
constexpr const char* kEncoded = "application/x-www-form-urlencoded";
constexpr size_t kMaxBodyBytes = 64 << 20;

std::string headOfForm(const std::string& target, const std::string& type, size_t length)
{
    return "POST " + target + " HTTP/1.1\r\nHost: x\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

std::string post(const std::string& target, const std::string& type, const std::string& body)
{
    return headOfForm(target, type, body.size()) + body;
}

std::string partHead(const std::string& parameters)
{
    return "--b0\r\nContent-Disposition: form-data; " + parameters + "\r\n\r\n";
}

// The sanitizers keep freed memory.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kCountsMemory = false;
#else
constexpr bool kCountsMemory = true;
#endif

// Memory of this process.
int64_t residentKiB()
{
    std::ifstream file("/proc/self/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stoll(line.substr(6));
    }
    throw std::runtime_error("no VmRSS");
}

void addRoutes(Router& router)
{
    router.post("/form", [](Request& request) {
        const std::string& title = request.form().field("title");
        const int64_t priority = request.form().field("priority").asInt(1, 1, 5);
        const FormFile* const file = request.form().file("file");
        request.reply(title + " " + std::to_string(priority) +
                      (file ? " " + file->fileName + " " + file->content : ""));
    });
    router
        .post(
            "/large",
            [](Request& request) { request.reply(std::to_string(request.form().fields().size())); })
        .maxBodyBytes(kMaxBodyBytes);
    router
        .post("/count",
              [](Request& request) {
                  size_t parts = 0;
                  request.readParts([&](Part&) { ++parts; });
                  request.reply(std::to_string(parts));
              })
        .streaming();
    router
        .post("/unread",
              [](Request& request) {
                  // The rest of the first part is discarded, the second one is read.
                  std::string text;
                  request.readParts([&](Part& part) { text = part.name() + part.text(100); });
                  request.reply(text);
              })
        .streaming();
}

TEST(KitForms, AreReadInBothEncodings)
{
    KitTestServer server(&addRoutes);
    EXPECT_EQ(server.ask(post("/form", kEncoded, "title=a+b&priority=3")).body, "a b 3");
    EXPECT_EQ(server
                  .ask(post("/form", kMultipart,
                            partHead("name=title") + "t\r\n" +
                                partHead("name=file; filename=\"../x.txt\"") + "1\r\n2\r\n" +
                                "--b0--\r\n"))
                  .body,
              "t 1 x.txt 1\r\n2");
    const RawResponse wrong = server.ask(post("/form", kEncoded, "priority=9"));
    EXPECT_EQ(wrong.status, 400);
    EXPECT_THAT(wrong.body, HasSubstr(R"(the form field \"priority\" must be from 1 to 5: \"9\")"));
    EXPECT_EQ(server.ask(post("/form", "text/plain", "title=a")).status, 415);
    EXPECT_EQ(server.ask(post("/count", kEncoded, "title=a")).status, 415);
    EXPECT_EQ(server.ask(post("/form", kMultipart, "--b0\r\n")).status, 400);
}

TEST(KitForms, DiscardBytesThatAreNotRead)
{
    KitTestServer server(&addRoutes);
    EXPECT_EQ(server
                  .ask(post("/unread", kMultipart,
                            partHead("name=a") + std::string(50, 'x') + "\r\n" +
                                partHead("name=b") + "2\r\n--b0--\r\n"))
                  .body,
              "b2");
    EXPECT_EQ(server
                  .ask(post("/unread", kMultipart,
                            partHead("name=a") + std::string(101, 'x') + "\r\n--b0--\r\n"))
                  .status,
              413);
}

// A file of 64 MiB takes no more memory than one of 1 MiB.
TEST(KitForms, AreStreamedToFilesInConstantMemory)
{
    qv::tests::TemporaryDirectory directory;
    const std::string path = directory / "upload";
    KitTestServer server([&](Router& router) {
        router
            .post("/upload",
                  [&](Request& request) {
                      uint64_t bytes = 0;
                      request.readParts(
                          [&](Part& part) { bytes += part.saveTo(path, kMaxBodyBytes); });
                      request.reply(std::to_string(bytes));
                  })
            .streaming();
    });
    const std::string piece(1 << 20, 'p');
    const auto upload = [&](size_t pieces) {
        const std::string begin = partHead("name=file; filename=x");
        const std::string end = "\r\n--b0--\r\n";
        RawClient client(server.port());
        client.send(
            headOfForm("/upload", kMultipart, begin.size() + pieces * piece.size() + end.size()) +
            begin);
        for (size_t sent = 0; sent < pieces; ++sent)
            client.send(piece);
        client.send(end);
        return client.receive().value_or(RawResponse()).body;
    };
    EXPECT_EQ(upload(1), std::to_string(piece.size()));
    const int64_t before = residentKiB();
    EXPECT_EQ(upload(64), std::to_string(64 * piece.size()));
    EXPECT_EQ(std::filesystem::file_size(path), 64 * piece.size());
    if (kCountsMemory) {
        EXPECT_LT(residentKiB() - before, 8 * 1024);
    }
}

// Files of slow clients, with four workers.
TEST(KitForms, HoldNoWorkerWhileTheClientIsSlow)
{
    constexpr size_t kUploads = 200;
    qv::tests::TemporaryDirectory directory;
    struct Incoming
    {
        DeferredResponse later;
        std::string names;
    };
    KitTestServer server(
        [&](Router& router) {
            router
                .post("/upload/{name}",
                      [&](Request& request) {
                          auto incoming = std::make_shared<Incoming>();
                          const std::string path =
                              directory / std::string(request.pathParameter("name"));
                          incoming->later = request.defer();
                          incoming->later.onParts(
                              [incoming, path](const PartHead& part) -> PartTaker {
                                  incoming->names += part.name();
                                  if (!part.isFile())
                                      return nullptr;
                                  auto file = std::make_shared<NewFile>(path);
                                  return [file](std::string_view piece) {
                                      file->write(piece);
                                      if (piece.empty())
                                          file->complete();
                                  };
                              },
                              [incoming] { incoming->later.reply(incoming->names); });
                      })
                .streaming();
            router.get("/ping", [](Request& request) { request.reply("pong"); });
        },
        kitOptions(4));
    const std::string form =
        partHead("name=a") + "1\r\n" + partHead("name=f; filename=x") + "content\r\n--b0--\r\n";
    std::vector<std::unique_ptr<RawClient>> slow;
    for (size_t i = 0; i < kUploads; ++i) {
        slow.push_back(std::make_unique<RawClient>(server.port()));
        const std::string target = "/upload/" + std::to_string(i);
        ASSERT_TRUE(slow.back()->send(headOfForm(target, kMultipart, form.size())));
        // Everywhere in the form.
        ASSERT_TRUE(slow.back()->send(form.substr(0, i % form.size())));
    }
    ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == kUploads; }));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(server.get("/ping").body, "pong");
    for (size_t i = 0; i < kUploads; ++i) {
        ASSERT_TRUE(slow[i]->send(form.substr(i % form.size())));
        EXPECT_EQ(slow[i]->receive().value_or(RawResponse()).body, "af") << i;
        std::ifstream file(directory / std::to_string(i));
        const std::string content{std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(content, "content");
    }
    // Errors of the form, and a client that leaves.
    EXPECT_EQ(server.ask(post("/upload/e", kEncoded, "a=1")).status, 415);
    EXPECT_EQ(server.ask(post("/upload/e", kMultipart, form.substr(0, 90))).status, 400);
    {
        RawClient leaving(server.port());
        ASSERT_TRUE(leaving.send(headOfForm("/upload/e", kMultipart, form.size()) +
                                 form.substr(0, form.size() - 12)));
        ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == 1; }));
    }
    EXPECT_TRUE(waitUntil([&] { return server.server().openRequests() == 0; }));
    EXPECT_TRUE(server.stop());
    // Nothing is left of them.
    const std::filesystem::directory_iterator files(std::filesystem::path(directory / "."));
    EXPECT_EQ(std::distance(begin(files), end(files)), static_cast<long>(kUploads));
}

// Of a million fields or parts the first thousand are read.
TEST(KitForms, RefuseBombs)
{
    constexpr size_t kMany = 1000000;
    KitTestServer server(&addRoutes);
    std::string fields;
    std::string parts;
    for (size_t i = 0; i < kMany; ++i) {
        fields += "a&";
        parts += "--b0\r\nContent-Disposition: form-data; name=a\r\n\r\n\r\n";
    }
    parts += "--b0--\r\n";
    const struct
    {
        const char* what;
        const char* target;
        const char* type;
        const std::string& body;
    } rows[] = {
        {"fields beyond the limit of the body", "/form", kEncoded, fields},
        {"fields", "/large", kEncoded, fields},
        {"parts", "/large", kMultipart, parts},
        {"streamed parts", "/count", kMultipart, parts},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const int64_t before = residentKiB();
        RawClient client(server.port());
        // A refusal may come, and end the connection, before everything has been sent.
        client.send(headOfForm(row.target, row.type, row.body.size()));
        client.send(row.body);
        const std::optional<RawResponse> response = client.receive();
        ASSERT_TRUE(response.has_value());
        EXPECT_EQ(response->status, 413);
        // The body itself, where it is received whole.
        const auto limit = static_cast<int64_t>(4 * row.body.size() / 1024 + 16384);
        if (kCountsMemory) {
            EXPECT_LT(residentKiB() - before, limit);
        }
    }
    std::string thousand;
    for (size_t i = 0; i < FormLimits().maxFields; ++i)
        thousand += "a&";
    EXPECT_EQ(server.ask(post("/large", kEncoded, thousand)).body, "1000");
}

}  // namespace
}  // namespace integration

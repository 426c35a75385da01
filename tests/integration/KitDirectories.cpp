// Directories as routes: their files, and nothing outside of them by any spelling.

#include "support/KitTestServer.h"
#include "support/ProcessCounts.h"

#include <support/Capabilities.h>
#include <support/Descriptors.h>
#include <support/TemporaryDirectory.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace integration
{
namespace
{

namespace fs = std::filesystem;

using qv::kit::DirectoryOptions;
using qv::kit::HookThread;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::SymbolicLinks;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kSecret = "the secret of the directory above";

class KitDirectories : public testing::Test
{
protected:
    KitDirectories()
    {
        write("secret", kSecret);
        write("secret.txt", kSecret);
        fs::create_directories(mDirectory / "www/sub/inner");
        fs::create_directories(mDirectory / "www/.git");
        write("www/index.html", "<p>root</p>");
        write("www/a b.txt", "spaces");
        write("www/app.js", "0;");
        write("www/.htpasswd", kSecret);
        write("www/.git/config", kSecret);
        write("www/sub/index.html", "<p>sub</p>");
        write("www/sub/inner/x.txt", "x");
        fs::create_symlink("sub/inner/x.txt", mDirectory / "www/link");
        fs::create_symlink("../secret", mDirectory / "www/out");
        fs::create_symlink("..", mDirectory / "www/parent");
        fs::create_symlink(mDirectory / "secret", mDirectory / "www/absolute");
        fs::create_symlink("/proc/self/cwd", mDirectory / "www/magic");
    }

    void write(const std::string& name, const std::string& content) const
    {
        std::ofstream(mDirectory / name, std::ios::binary) << content;
    }

    void start(const DirectoryOptions& options = DirectoryOptions())
    {
        mServer = std::make_unique<KitTestServer>([&](Router& router) {
            router.directory("/", mDirectory / "www", options);
            router.directory("/static/", mDirectory / "www", options);
            router.group("/group").directory("/", mDirectory / "www", options);
            router.get("/api", [](Request& request) { request.reply("api"); });
        });
    }

    RawResponse get(const std::string& target, const std::string& lines = "") const
    {
        return mServer->ask(getRequest(target, lines));
    }

    // Status and body of 200, status and Location of 301, or only the status.
    std::string shown(const std::string& target) const
    {
        const RawResponse response = get(target);
        const std::string status = std::to_string(response.status);
        if (response.status == 200)
            return status + " " + response.body;
        return response.status == 301 ? status + " " + response.value("Location") : status;
    }

    qv::tests::TemporaryDirectory mDirectory;
    std::unique_ptr<KitTestServer> mServer;
};

TEST_F(KitDirectories, ServeTheirFiles)
{
    start();
    const struct
    {
        const char* target;
        const char* shown;
    } rows[] = {
        {"/", "200 <p>root</p>"},
        {"/index.html", "200 <p>root</p>"},
        {"/a%20b.txt", "200 spaces"},
        {"/a%20b.txt?v=1", "200 spaces"},
        {"/sub", "301 ./sub/"},
        {"/sub?a=b", "301 ./sub/?a=b"},
        {"/sub/", "200 <p>sub</p>"},
        {"/sub/inner", "301 ./inner/"},
        {"/sub/inner/", "404"},
        {"/sub/inner/x.txt", "200 x"},
        {"/s%75b", "301 ./s%75b/"},
        {"/link", "200 x"},
        {"/app.js/", "404"},
        {"/app.js/x", "404"},
        {"/missing", "404"},
        {"/sub//index.html", "404"},
        {"//sub", "404"},
        {"//sub/", "404"},
        {"/api", "200 api"},
        {"/static", "301 ./static/"},
        {"/static/", "200 <p>root</p>"},
        {"/group/", "200 <p>root</p>"},
        {"/group/sub", "301 ./sub/"},
        {"/static/sub", "301 ./sub/"},
        {"/static/sub/inner/x.txt", "200 x"},
        {"/.htpasswd", "404"},
        {"/.git/config", "404"},
        {"/.git/", "404"},
        {"/out", "404"},
        {"/parent/secret", "404"},
        {"/parent/", "404"},
        {"/absolute", "404"},
        {"/magic/", "404"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        EXPECT_EQ(shown(row.target), row.shown);
    }
    EXPECT_EQ(get("/app.js").value("Content-Type"), "text/javascript; charset=utf-8");
    EXPECT_EQ(get("/app.js", "Range: bytes=1-1\r\n").body, ";");
    EXPECT_EQ(get("/", "If-None-Match: " + get("/").value("ETag") + "\r\n").status, 304);
}

TEST_F(KitDirectories, HaveGetAndHeadAlone)
{
    start();
    EXPECT_EQ(mServer->ask("HEAD /app.js HTTP/1.1\r\nHost: x\r\n\r\n").value("Content-Length"),
              "2");
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH"}) {
        const RawResponse response = mServer->ask(withBody(method, "/app.js", ""));
        EXPECT_EQ(response.status, 405);
        EXPECT_EQ(response.value("Allow"), "GET, HEAD, OPTIONS");
    }
    EXPECT_EQ(mServer->ask("OPTIONS /app.js HTTP/1.1\r\nHost: x\r\n\r\n").status, 204);
}

TEST_F(KitDirectories, TakeTheirOptions)
{
    DirectoryOptions options;
    options.hidden = true;
    options.index = {"none.html", "app.js"};
    options.links = SymbolicLinks::Refuse;
    options.cacheControl = "max-age=1";
    start(options);
    EXPECT_EQ(shown("/.htpasswd"), std::string("200 ") + kSecret);
    EXPECT_EQ(shown("/"), "200 0;");
    EXPECT_EQ(get("/").value("Cache-Control"), "max-age=1");
    EXPECT_EQ(shown("/sub/"), "404");
    EXPECT_EQ(shown("/link"), "404");
    EXPECT_EQ(shown("/.."), "404");
    EXPECT_EQ(shown("/../secret"), "404");
}

TEST_F(KitDirectories, MustExistWhenTheyAreAdded)
{
    Router router;
    EXPECT_THROW(router.directory("/", mDirectory / "missing"), std::system_error);
    EXPECT_THROW(router.directory("/", mDirectory / "secret"), std::system_error);
    EXPECT_THROW(router.directory("no-slash", mDirectory / "www"), std::invalid_argument);
}

// As a deployment does it.
TEST_F(KitDirectories, MayBeReplacedWhileTheyAreServed)
{
    fs::create_directory(mDirectory / "next");
    write("next/index.html", "next");
    start();
    EXPECT_EQ(shown("/"), "200 <p>root</p>");
    fs::rename(mDirectory / "www", mDirectory / "before");
    EXPECT_EQ(shown("/"), "500");
    fs::rename(mDirectory / "next", mDirectory / "www");
    EXPECT_EQ(shown("/"), "200 next");
}

// Spellings of "..", of "/" and of the names behind them, joined in each way.
std::vector<std::string> traversals()
{
    const std::vector<std::string> ups = {
        "..",
        "%2e%2e",
        "%2E%2E",
        ".%2e",
        "%2e.",
        "%252e%252e",
        "%c0%ae%c0%ae",
        "%e0%80%ae.",
        "%f0%80%80%ae.",
        "%uff0e%uff0e",
        "..%00",
        "..%20",
        "..;",
        "...",
        "..%09",
        "%2e%2e%2e",
        "\xc0\xae\xc0\xae",
        "..%c0%af",
        "%ef%bc%8e%ef%bc%8e",
    };
    const std::vector<std::string> slashes = {"/",   "%2f",    "%2F",    "\\",     "%5c",
                                              "%5C", "//",     "%252f",  "%c0%af", "%e0%80%af",
                                              "/./", "%u2215", "%c1%9c", "/%2e/",  "%5c%2f"};
    const std::vector<std::string> begins = {"/",    "/sub/", "/static/",
                                             "/%2f", "//",    "/sub/inner/../"};
    const std::vector<std::string> files = {"secret", "secret.txt", "secret%00.html",
                                            "www/../secret", "secret/"};
    std::vector<std::string> targets;
    for (const std::string& begin : begins) {
        for (const std::string& up : ups) {
            for (const std::string& slash : slashes) {
                for (size_t depth = 1; depth <= 3; ++depth) {
                    std::string target = begin;
                    for (size_t i = 0; i < depth; ++i)
                        target += up + slash;
                    targets.push_back(target + files[targets.size() % files.size()]);
                    targets.push_back(target + "secret");
                }
            }
        }
    }
    return targets;
}

TEST_F(KitDirectories, ServeNothingOutsideByAnySpelling)
{
    start();
    std::vector<std::string> targets = traversals();
    const std::string absolute = mDirectory / "secret";
    for (const char* begin : {"/", "//", "/%2f", "/static//", "/%5c"})
        targets.push_back(begin + absolute.substr(1));
    for (const char* target :
         {"/.htpasswd", "/%2ehtpasswd", "/.git/config", "/%2egit%2fconfig", "/sub/../.htpasswd",
          "/.%68tpasswd", "/out", "/parent/secret", "/absolute", "/out%00", "/./.htpasswd"})
        targets.emplace_back(target);
    ASSERT_GE(targets.size(), 10000u);
    size_t refused = 0;
    RawClient* client = nullptr;
    std::unique_ptr<RawClient> connection;
    for (const std::string& target : targets) {
        SCOPED_TRACE(target);
        if (!client) {
            connection = std::make_unique<RawClient>(mServer->port());
            client = connection.get();
        }
        client->send(getRequest(target));
        const RawResponse response = client->receive().value_or(RawResponse());
        EXPECT_THAT(response.status, AnyOf(301, 400, 404));
        EXPECT_THAT(response.body, Not(HasSubstr("secret of")));
        refused += response.status == 400 || response.status == 404;
        if (response.status == 400 || response.value("Connection") == "close")
            client = nullptr;
    }
    EXPECT_EQ(refused, targets.size());
}

TEST_F(KitDirectories, AreListedWhenTold)
{
    DirectoryOptions options;
    options.listing = true;
    options.index.clear();
    write("www/<b>&\"'.txt", "1");
    write("www/javascript:alert(1)", "12");
    write("www/bad\xff", "123");
    write("www/new\nline", "1");
    ASSERT_EQ(mkfifo((mDirectory / "www/pipe").c_str(), 0600), 0);
    start(options);
    const RawResponse page = get("/");
    EXPECT_EQ(page.value("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(page.value("Vary"), "Accept");
    EXPECT_THAT(page.body,
                HasSubstr("<a href=\"./%3Cb%3E%26%22%27.txt\">&lt;b&gt;&amp;&quot;'.txt</a>"));
    EXPECT_THAT(page.body, HasSubstr("<a href=\"./javascript:alert(1)\">javascript:alert(1)</a>"));
    // A target that is not UTF-8 is refused.
    EXPECT_EQ(get("/bad%FF").status, 400);
    EXPECT_THAT(page.body, Not(HasSubstr("bad")));
    EXPECT_THAT(page.body, HasSubstr("<a href=\"./sub/\">sub/</a>"));
    EXPECT_THAT(page.body, Not(HasSubstr("../")));
    EXPECT_THAT(get("/sub/").body, HasSubstr("<a href=\"../\">../</a>"));
    const RawResponse json = get("/", "Accept: application/json\r\n");
    EXPECT_EQ(json.value("Content-Type"), "application/json");
    const nlohmann::json list = nlohmann::json::parse(json.body);
    std::vector<std::string> names;
    for (const auto& entry : list["entries"])
        names.push_back(entry["name"]);
    EXPECT_THAT(names, ElementsAre("<b>&\"'.txt", "a b.txt", "app.js", "index.html",
                                   "javascript:alert(1)", "link", "sub"));
    EXPECT_EQ(list["complete"], true);
    EXPECT_EQ(list["entries"][2]["size"], 2);
    EXPECT_EQ(list["entries"][6]["type"], "directory");
    const RawResponse browser = get("/", "Accept: text/html,application/xhtml+xml,*/*;q=0.8\r\n");
    EXPECT_EQ(browser.value("Content-Type"), "text/html; charset=utf-8");
}

TEST_F(KitDirectories, AreListedUpToALimit)
{
    fs::create_directory(mDirectory / "www/many");
    for (int i = 0; i <= 10000; ++i)
        write("www/many/" + std::to_string(i), "");
    DirectoryOptions options;
    options.listing = true;
    start(options);
    const RawResponse json = get("/many/", "Accept: application/json\r\n");
    const nlohmann::json list = nlohmann::json::parse(json.body);
    EXPECT_EQ(list["entries"].size(), 10000u);
    EXPECT_EQ(list["complete"], false);
    EXPECT_THAT(get("/many/").body, HasSubstr("There are more names."));
    // Those that are not listed take time, too.
    for (int i = 0; i < 5000; ++i) {
        fs::remove(mDirectory / ("www/many/" + std::to_string(i)));
        ASSERT_EQ(mkfifo((mDirectory / ("www/many/" + std::to_string(i))).c_str(), 0600), 0);
    }
    const RawResponse mixed = get("/many/", "Accept: application/json\r\n");
    EXPECT_EQ(nlohmann::json::parse(mixed.body)["complete"], false);
}

TEST_F(KitDirectories, AreListedWithTheirCacheControl)
{
    DirectoryOptions options;
    options.listing = true;
    options.index.clear();
    start(options);
    EXPECT_EQ(get("/sub/").value("Cache-Control"), "no-cache");
    options.cacheControl = "max-age=1";
    mServer = std::make_unique<KitTestServer>([&](Router& router) {
        router.before(
            "/", [](Request& request) { request.setHeader("Cache-Control", "private"); },
            HookThread::Daemon);
        router.directory("/", mDirectory / "www", options);
        options.cacheControl.clear();
        router.directory("/other/", mDirectory / "www", options);
    });
    for (const char* target : {"/sub/", "/app.js"})
        EXPECT_EQ(get(target).value("Cache-Control"), "max-age=1");
    for (const char* target : {"/other/sub/", "/other/app.js"})
        EXPECT_EQ(get(target).value("Cache-Control"), "private");
}

// Its names would be told in place of it.
TEST_F(KitDirectories, AreNotListedInPlaceOfAnIndexThatMustNotBeRead)
{
    const qv::tests::PermissionsCount permissions;
    DirectoryOptions options;
    options.index = {"none.html", "index.html"};
    options.listing = true;
    start(options);
    EXPECT_EQ(shown("/sub/"), "200 <p>sub</p>");
    fs::permissions(mDirectory / "www/sub/index.html", fs::perms::none);
    EXPECT_EQ(shown("/sub/"), "403");
    // There is none.
    fs::remove(mDirectory / "www/sub/index.html");
    fs::create_directory(mDirectory / "www/sub/index.html");
    EXPECT_EQ(get("/sub/").status, 200);
    EXPECT_THAT(get("/sub/").body, HasSubstr("inner/"));
}

// Mode 0711: who does not know its names gets nothing.
TEST_F(KitDirectories, ServeFilesOfDirectoriesThatMayOnlyBeSearched)
{
    const qv::tests::PermissionsCount permissions;
    start();
    for (const char* name : {"www", "www/sub", "www/sub/inner"})
        fs::permissions(mDirectory / name, fs::perms::owner_exec);
    EXPECT_EQ(shown("/"), "200 <p>root</p>");
    EXPECT_EQ(shown("/sub/"), "200 <p>sub</p>");
    EXPECT_EQ(shown("/sub"), "301 ./sub/");
    EXPECT_EQ(shown("/sub/inner/x.txt"), "200 x");
    EXPECT_EQ(shown("/sub/inner/"), "404");
    DirectoryOptions options;
    options.listing = true;
    start(options);
    EXPECT_EQ(shown("/sub/"), "200 <p>sub</p>");
    EXPECT_EQ(shown("/sub/inner/"), "403");
    for (const char* name : {"www", "www/sub", "www/sub/inner"})
        fs::permissions(mDirectory / name, fs::perms::owner_all);
    EXPECT_EQ(get("/sub/inner/").status, 200);
}

TEST_F(KitDirectories, WithoutADescriptorAreUnavailable)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "UndefinedBehaviorSanitizer looks at objects through a pipe";
#endif
    start();
    RawClient client(mServer->port());
    client.send(getRequest("/app.js"));
    EXPECT_EQ(client.receive().value_or(RawResponse()).body, "0;");
    // The directory itself, and the file in it.
    for (const rlim_t left : {0, 1}) {
        SCOPED_TRACE(left);
        RawResponse response;
        {
            const qv::tests::NoDescriptors none(left);
            client.send(getRequest("/app.js"));
            response = client.receive().value_or(RawResponse());
        }
        EXPECT_EQ(response.status, 503);
        EXPECT_EQ(response.value("Retry-After"), "1");
    }
    client.send(getRequest("/app.js"));
    EXPECT_EQ(client.receive().value_or(RawResponse()).body, "0;");
}

class KitPrecompressed : public KitDirectories
{
protected:
    KitPrecompressed()
    {
        write("www/app.js.gz", "gzip");
        write("www/app.js.br", "brotli");
        write("www/app.js.zst", "zstd");
        write("www/only.css", "identity");
        write("www/only.css.gz", "gzip of css");
        write("www/stale.txt", "new");
        write("www/stale.txt.gz", "old");
        fs::last_write_time(mDirectory / "www/stale.txt.gz",
                            fs::last_write_time(mDirectory / "www/stale.txt") -
                                std::chrono::hours(1));
        write("www/nanosecond.txt", "new");
        write("www/nanosecond.txt.gz", "old");
        fs::last_write_time(mDirectory / "www/nanosecond.txt.gz",
                            fs::last_write_time(mDirectory / "www/nanosecond.txt") -
                                std::chrono::nanoseconds(1));
        write("www/equal.txt", "new");
        write("www/equal.txt.gz", "same");
        fs::last_write_time(mDirectory / "www/equal.txt.gz",
                            fs::last_write_time(mDirectory / "www/equal.txt"));
        fs::create_directory(mDirectory / "www/index.html.gz");
    }
};

// RFC 9110, section 12.5.3.
TEST_F(KitPrecompressed, IsChosenByTheClient)
{
    start();
    const struct
    {
        const char* accept;
        const char* target;
        const char* coding;
        const char* body;
    } rows[] = {
        {nullptr, "/app.js", "", "0;"},
        {"", "/app.js", "", "0;"},
        {"gzip", "/app.js", "gzip", "gzip"},
        {"GZip", "/app.js", "gzip", "gzip"},
        {"gzip, deflate, br, zstd", "/app.js", "zstd", "zstd"},
        {"gzip, deflate, br", "/app.js", "br", "brotli"},
        {"gzip;q=1, br;q=0.9, zstd;q=0.1", "/app.js", "gzip", "gzip"},
        {"zstd;q=0, br;q=0, *", "/app.js", "gzip", "gzip"},
        {"*", "/app.js", "zstd", "zstd"},
        {"*;q=0", "/app.js", "", "0;"},
        {"gzip;q=0", "/app.js", "", "0;"},
        {"identity, gzip;q=0.5", "/app.js", "", "0;"},
        {"identity;q=0.5, gzip", "/app.js", "gzip", "gzip"},
        {"identity;q=0, gzip", "/app.js", "gzip", "gzip"},
        {"deflate", "/app.js", "", "0;"},
        {"br, gzip", "/only.css", "gzip", "gzip of css"},
        {"br", "/only.css", "", "identity"},
        {"gzip", "/stale.txt", "", "new"},
        {"gzip", "/nanosecond.txt", "", "new"},
        {"gzip", "/equal.txt", "gzip", "same"},
        {"gzip", "/", "", "<p>root</p>"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.accept ? row.accept : "none") + " " + row.target);
        const std::string lines =
            row.accept ? std::string("Accept-Encoding: ") + row.accept + "\r\n" : "";
        const RawResponse response = get(row.target, lines);
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.value("Content-Encoding"), row.coding);
        EXPECT_EQ(response.body, row.body);
        EXPECT_EQ(response.value("Vary"), "Accept-Encoding");
    }
    EXPECT_EQ(get("/app.js", "Accept-Encoding: br\r\n").value("Content-Type"),
              "text/javascript; charset=utf-8");
}

TEST_F(KitPrecompressed, HasATagOfItsOwn)
{
    start();
    const std::string plain = get("/app.js").value("ETag");
    const std::string coded = get("/app.js", "Accept-Encoding: gzip\r\n").value("ETag");
    EXPECT_NE(plain, coded);
    const auto status = [&](const std::string& lines) { return get("/app.js", lines).status; };
    EXPECT_EQ(status("Accept-Encoding: gzip\r\nIf-None-Match: " + coded + "\r\n"), 304);
    EXPECT_EQ(status("Accept-Encoding: gzip\r\nIf-None-Match: " + plain + "\r\n"), 200);
    EXPECT_EQ(status("If-None-Match: " + coded + "\r\n"), 200);
    const RawResponse known = get("/app.js", "If-None-Match: " + plain + "\r\n");
    EXPECT_EQ(known.status, 304);
    EXPECT_EQ(known.value("Vary"), "Accept-Encoding");
    const RawResponse part = get("/app.js", "Accept-Encoding: gzip\r\nRange: bytes=1-2\r\n");
    EXPECT_EQ(part.body, "zi");
    EXPECT_EQ(part.value("Content-Range"), "bytes 1-2/4");
}

TEST_F(KitPrecompressed, IsSwitchedOff)
{
    DirectoryOptions options;
    options.precompressed = false;
    start(options);
    const RawResponse response = get("/app.js", "Accept-Encoding: gzip\r\n");
    EXPECT_EQ(response.body, "0;");
    EXPECT_EQ(response.values("Vary").size(), 0u);
}

}  // namespace
}  // namespace integration

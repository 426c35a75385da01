// wendrel-taskboard: the tasks of a small team, with attachments and a board that is always up to
// date.

#include "Accounts.h"
#include "Board.h"
#include "Page.h"

#include <Wendrel/kit/Configuration.h>
#include <Wendrel/kit/Json.h>
#include <Wendrel/kit/Middleware.h>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <sys/stat.h>

#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

namespace taskboard
{

namespace
{

using qv::kit::ContentType;
using qv::kit::Cookie;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::websocket::WebSocketOptions;

// The page runs its own script and no other, and no other site can put it into a frame.
std::string pagePolicy()
{
    constexpr std::string_view kBegin = "<script>";
    const size_t begin = kPage.find(kBegin) + kBegin.size();
    const std::string_view script = kPage.substr(begin, kPage.find("</script>") - begin);
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(script.data()), script.size(), digest);
    unsigned char hash[2 * sizeof digest];  // as base64, which needs less
    EVP_EncodeBlock(hash, digest, sizeof digest);
    return "default-src 'none'; connect-src 'self'; style-src 'unsafe-inline'; base-uri 'none'; "
           "form-action 'none'; frame-ancestors 'none'; script-src 'sha256-" +
           std::string(reinterpret_cast<const char*>(hash)) + "'";
}

struct Credentials
{
    std::string name;
    std::string password;
};

void from_json(const nlohmann::json& value, Credentials& credentials)
{
    value.at("name").get_to(credentials.name);
    value.at("password").get_to(credentials.password);
}

int64_t idOf(const Request& request)
{
    return request.pathParameter("id").asInt(std::nullopt, 1);
}

// The user of a request that the hook below has let in.
struct User
{
    std::string name;
};

void addSessionRoutes(Router& router, Accounts& accounts)
{
    router.get("/", [policy = pagePolicy()](Request& request) {
        request.setHeader("Content-Security-Policy", policy);
        request.reply(std::string(kPage), ContentType::html());
    });
    router.post("/api/login", [&accounts](Request& request) {
        const Credentials sent = request.json<Credentials>();
        request.setCookie(accounts.logIn(request, sent.name, sent.password));
        request.replyJson({{"user", sent.name}});
    });
    router.post("/api/logout", [](Request& request) {
        request.setCookie(Cookie::expired(Accounts::kCookie));
        request.reply(204);
    });
    // Guesses of passwords.
    qv::kit::RateLimitOptions guesses;
    guesses.perSecond = 0.5;
    router.use("/api/login", qv::kit::rateLimit(guesses));
    router.use("/", qv::kit::securityHeaders());

    const auto letUsersIn = [&accounts](Request& request) {
        request.attach(User{accounts.userOf(request)});
    };
    for (const char* prefix : {"/api/session", "/api/tasks", "/api/files", "/live", "/events"})
        router.before(prefix, letUsersIn, qv::kit::HookThread::Daemon);
    router.get("/api/session", [](Request& request) {
        request.replyJson({{"user", request.attached<User>().name}});
    });
}

void addBoardRoutes(Router& router, Board& board, const uint64_t& maxFileBytes)
{
    router.get("/api/tasks", [&](Request& request) {
        const std::string_view state =
            request.query("state").asOneOf({"open", "doing", "done"}, "");
        const int64_t page = request.query("page").asInt(1, 1, 1000);
        request.replyJson({{"tasks", board.tasks(std::string(state), page)}});
    });
    router.post("/api/tasks", [&](Request& request) {
        const int64_t id = board.add(request.attached<User>().name, request.json<TaskFields>());
        request.setHeader("Location", "/api/tasks/" + std::to_string(id));
        request.replyJson(201, {{"id", id}});
    });
    router.get("/api/tasks/{id}",
               [&](Request& request) { request.replyJson(board.task(idOf(request))); });
    router.patch("/api/tasks/{id}", [&](Request& request) {
        board.change(idOf(request), request.json<TaskFields>());
        request.reply(204);
    });
    router.del("/api/tasks/{id}", [&](Request& request) {
        board.remove(idOf(request));
        request.reply(204);
    });
    router
        .post("/api/tasks/{id}/files",
              [&](Request& request) {
                  request.readParts([&](qv::kit::Part& part) {
                      if (part.isFile() && !part.fileNameAsSent().empty())
                          board.attach(idOf(request), part, maxFileBytes);
                  });
                  request.reply(204);
              })
        .streaming();
    router.get("/api/files/{id}", [&](Request& request) {
        const auto [name, path] = board.file(idOf(request));
        qv::kit::FileOptions options;
        options.downloadName = name;  // never shown as a page of this site
        options.type = "application/octet-stream";
        request.replyFile(path, options);
    });

    // Changes: a page listens to the WebSocket, and where that is blocked to events.
    router.webSocket("/live", WebSocketOptions(), [&](Request&) { return board.listen(); });
    router.get("/events", [&](Request& request) { board.events().subscribe(request); });
}

int run(int argc, char** argv)
{
    std::string directory = ".";
    std::string newUser;
    uint64_t maxFileBytes = 104857600;

    qv::kit::Server server;
    CLI::App app("The task board of a small team.", "wendrel-taskboard");
    app.add_option("--data", directory, "Directory of database and attachments")
        ->option_text("DIRECTORY=.")
        ->check(CLI::ExistingDirectory);
    app.add_option("--add-user", newUser, "Read the user's password from standard input, and exit")
        ->option_text("NAME");
    qv::kit::addSizeOption(app, "--max-file", maxFileBytes, "Largest attachment");
    qv::kit::addServerOptions(app, server.options());
    CLI11_PARSE(app, argc, argv);

    // The database has the key of the sessions.
    umask(S_IRWXG | S_IRWXO);
    Database database(directory + "/tasks.sqlite");
    Accounts accounts(database);
    if (!newUser.empty()) {
        std::string password;
        if (!std::getline(std::cin, password) || password.empty())
            throw std::runtime_error("no password on standard input");
        accounts.setPassword(newUser, password);
        return 0;
    }
    Board board(database, directory + "/files");
    addSessionRoutes(server.router(), accounts);
    addBoardRoutes(server.router(), board, maxFileBytes);
    server.onStopping([&] { board.events().close(); });
    return server.run();
}

}  // namespace
}  // namespace taskboard

int main(int argc, char** argv)
{
    try {
        return taskboard::run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "wendrel-taskboard: " << error.what() << '\n';
        return 1;
    }
}

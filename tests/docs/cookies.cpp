// The handlers of docs/cookies.md: a login kept in a signed cookie.

#include <Wendrel/kit/CookieSigner.h>
#include <Wendrel/kit/Server.h>

#include <chrono>
#include <optional>
#include <string>

using qv::kit::Cookie;
using qv::kit::CookieSigner;
using qv::kit::HttpError;
using qv::kit::Request;

int main(int argc, char** argv)
{
    // A key of its own for each start: a restart logs everybody out. Keep keys in a file otherwise.
    const CookieSigner signer({CookieSigner::randomKey()});

    qv::kit::Server server;
    server.router().post("/login", [&](Request& request) {
        const std::string user = request.query("user").asText();
        request.setCookie(signer.sign("session", user, std::chrono::hours(8)));
        request.reply("Welcome, " + user + "!\n");
    });
    server.router().get("/me", [&](Request& request) {
        const std::optional<std::string> user = signer.verify("session", request.cookie("session"));
        if (!user)
            throw HttpError(401, "Log in first.");
        request.reply("You are " + *user + ".\n");
    });
    server.router().post("/logout", [](Request& request) {
        request.setCookie(Cookie::expired("session"));
        request.reply(204);
    });
    server.router().post("/language", [](Request& request) {
        request.setCookie(Cookie("language", request.query("language").asText())
                              .maxAge(std::chrono::hours(24 * 365))
                              .sameSite(Cookie::SameSite::Lax));
        request.reply(204);
    });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}

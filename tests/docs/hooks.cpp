// The handlers of docs/hooks.md: an API with logins, limits and headers around it.

#include <Wendrel/kit/Middleware.h>
#include <Wendrel/kit/Server.h>

#include <map>
#include <string>

using qv::kit::AuthenticatedUser;
using qv::kit::basicAuthentication;
using qv::kit::CorsOptions;
using qv::kit::ErrorResponse;
using qv::kit::HookThread;
using qv::kit::HttpError;
using qv::kit::RateLimitOptions;
using qv::kit::Request;
using qv::kit::ResponseHead;
using qv::kit::Router;

namespace
{

struct Team
{
    int id;
};

void addMiddleware(Router& router)
{
    CorsOptions pages;
    pages.origins = {"https://app.example"};
    pages.credentials = true;
    RateLimitOptions limit;
    limit.perSecond = 5;
    limit.burst = 100;
    router.use("/", qv::kit::requestId());
    router.use("/", qv::kit::securityHeaders());
    router.use("/api", qv::kit::cors(pages));
    router.use("/api", qv::kit::rateLimit(limit));
}

}  // namespace

int main(int argc, char** argv)
{
    qv::kit::Server server;
    Router& router = server.router();
    addMiddleware(router);

    // Stands for a database.
    const std::map<std::string, int> teamOf{{"ann", 1}, {"bob", 2}};
    auto api = router.group("/api");
    api.use(basicAuthentication("team board", {{"ann", "secret"}, {"bob", "hidden"}}));
    api.before([&](Request& request) {
        const auto team = teamOf.find(request.attached<AuthenticatedUser>().name);
        if (team == teamOf.end())
            throw HttpError(403, "You are in no team.");
        request.attach(Team{team->second});
    });
    api.get("/team", [](Request& request) {
        request.reply("team " + std::to_string(request.attached<Team>().id) + "\n");
    });
    api.put("/notes", [](Request& request) {
        request.reply(std::to_string(request.body().size()) + " bytes\n");
    });

    router.before(
        "/old",
        [](Request& request) {
            request.setHeader("Location", "/api/team");
            request.reply(308);
        },
        HookThread::Daemon);
    router.after("/api", [](const Request&, int status, ResponseHead& head) {
        if (status == 200)
            head.setHeader("Cache-Control", "no-store");
    });
    router.onError([](const Request& request, ErrorResponse& response) {
        if (response.status == 404)
            response.body = "There is nothing at " + request.path() + ".\n";
        if (response.status == 404)
            response.type = qv::kit::ContentType::text();
    });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}

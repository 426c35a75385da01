// The handlers of docs/parameters.md: texts of a request as numbers, switches and choices.

#include <Wendrel/kit/Server.h>

#include <string>

using qv::kit::Parameter;
using qv::kit::Request;

namespace
{

// GET /list?page=2&size=50&order=date&all=yes
void list(Request& request)
{
    const int64_t page = request.query("page").asInt(1, 1, 1000);
    const int64_t size = request.query("size").asInt(20, 1, 100);
    const auto order = request.query("order").asOneOf({"name", "date"}, "name");
    const bool all = request.query("all").asBool(false);
    request.reply("page " + std::to_string(page) + " of " + std::to_string(size) + " by " +
                  std::string(order) + (all ? ", all\n" : "\n"));
}

// GET /items/{id}
void show(Request& request)
{
    const int64_t id = request.pathParameter("id").asInt();
    const std::string& language = request.cookie("language");
    request.reply("item " + std::to_string(id) + (language.empty() ? "" : " in " + language) +
                  "\n");
}

// GET /sum?n=1&n=2
void sum(Request& request)
{
    double total = 0;
    for (const std::string& text : request.queryValues("n"))
        total += Parameter(Parameter::Kind::Query, "n", text).asDouble();
    request.reply(std::to_string(total) + "\n");
}

}  // namespace

int main(int argc, char** argv)
{
    qv::kit::Server server;
    server.router().get("/list", &list).nonBlocking();
    server.router().get("/items/{id}", &show).nonBlocking();
    server.router().get("/sum", &sum).nonBlocking();
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}

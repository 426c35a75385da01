// The handlers of docs/json.md: a list of tasks.

#include <Wendrel/kit/Json.h>
#include <Wendrel/kit/Server.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

using qv::kit::HttpError;
using qv::kit::Request;

struct Task
{
    std::string title;
    bool done = false;
};

void from_json(const nlohmann::json& value, Task& task)
{
    value.at("title").get_to(task.title);
    task.done = value.value("done", false);
}

void to_json(nlohmann::json& value, const Task& task)
{
    value = {{"title", task.title}, {"done", task.done}};
}

int main(int argc, char** argv)
{
    std::mutex mutex;
    std::vector<Task> tasks;

    qv::kit::Server server;
    server.router().post("/tasks", [&](Request& request) {
        const Task task = request.json<Task>();
        const std::lock_guard<std::mutex> lock(mutex);
        tasks.push_back(task);
        request.replyJson(201, {{"id", tasks.size()}});
    });
    server.router().get("/tasks", [&](Request& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        request.replyJson(tasks);
    });
    server.router().get("/tasks/{id}", [&](Request& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto id = static_cast<size_t>(request.pathParameter("id").asInt(std::nullopt, 1));
        if (id > tasks.size())
            throw HttpError(404, "There is no such task.");
        request.replyJson(tasks[id - 1]);
    });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}

// The handlers of docs/events.md: messages that are pushed to all pages.

#include <Wendrel/kit/EventStream.h>
#include <Wendrel/kit/Server.h>

using qv::kit::ContentType;
using qv::kit::EventStream;
using qv::kit::EventStreamOptions;
using qv::kit::Request;

namespace
{

constexpr const char* kPage = R"(<!DOCTYPE html>
<meta charset="utf-8"><title>Messages</title>
<ul id="messages"></ul>
<script>
new EventSource("/events").addEventListener("message", event => {
    const item = document.createElement("li");
    item.textContent = event.data;
    document.getElementById("messages").append(item);
});
</script>
)";

}  // namespace

int main(int argc, char** argv)
{
    EventStreamOptions options;
    options.historyEvents = 1000;
    EventStream events(options);

    qv::kit::Server server;
    server.router().get("/", [](Request& request) { request.reply(kPage, ContentType::html()); });
    server.router().get("/events", [&](Request& request) { events.subscribe(request); });
    server.router().post("/messages", [&](Request& request) {
        events.publish("message", request.body());
        request.reply(204);
    });
    // A stop waits for responses: these would not end.
    server.onStopping([&] { events.close(); });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}

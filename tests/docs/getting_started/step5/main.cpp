// Event streams from the main loop of the program, which has its own signals.

#include <Wendrel/kit/Server.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <list>
#include <mutex>
#include <string>
#include <utility>

using qv::kit::ContentType;
using qv::kit::DeferredStream;
using qv::kit::Request;
using qv::kit::StreamWrite;

class Events
{
public:
    // GET /events
    void open(Request& request)
    {
        request.setHeader("Cache-Control", "no-store");
        DeferredStream stream = request.defer().startStream(ContentType("text/event-stream"));
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mHasEnded)
            stream.finish();
        else
            mStreams.push_back(std::move(stream));
    }

    // Sends an event to all. Never waits: a client that does not keep up is closed.
    void send(const std::string& data)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStreams.remove_if([&](DeferredStream& stream) {
            const StreamWrite result = stream.write("data: " + data + "\n\n");
            if (result == StreamWrite::Full)
                stream.finish();
            return result != StreamWrite::Taken;
        });
    }

    // Ends all streams, also those to come.
    void end()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (DeferredStream& stream : mStreams)
            stream.finish();
        mStreams.clear();
        mHasEnded = true;
    }

private:
    std::mutex mMutex;
    std::list<DeferredStream> mStreams;
    bool mHasEnded = false;
};

int main(int argc, char** argv)
{
    // Before the first thread is started, so that all have it.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    qv::kit::ServerOptions options;
    options.workers = 4;
    options.listen = {"127.0.0.1:8181", "unix:/tmp/events.sock"};
    if (argc > 1)
        options.listen.assign(argv + 1, argv + argc);
    options.trustedProxies = {"127.0.0.1", "unix"};
    options.headTimeout = std::chrono::seconds(5);

    Events events;  // outlives the server, whose handlers use it
    qv::kit::Server server(options);
    server.router().get("/events", [&](Request& request) { events.open(request); }).nonBlocking();
    server.router().get("/address", [](Request& request) {
        request.reply(request.clientAddress().toString() + "\n");
    });
    if (!server.start()) {
        std::fprintf(stderr, "%s\n", server.failureReason().c_str());
        return 1;
    }
    for (const std::string& url : server.urls())
        std::printf("listening on %s\n", url.c_str());
    std::fflush(stdout);

    // The main loop: a tick each second, until a signal.
    const timespec second{1, 0};
    for (unsigned tick = 1; sigtimedwait(&signals, nullptr, &second) < 0; ++tick)
        events.send("tick " + std::to_string(tick));

    events.send("the server stops");
    events.end();
    const bool allServed = server.stop(std::chrono::seconds(10));
    std::puts(allServed ? "every request was served" : "some requests were aborted");
    return 0;
}

// Server-sent events: delivery, replay, slow clients, many clients.

#include "support/KitTestServer.h"
#include "support/ProcessLog.h"
#include "support/Waiting.h"

#include <Wendrel/kit/EventStream.h>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::EventStream;
using qv::kit::EventStreamOptions;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::SlowClient;
using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::Not;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSlow = true;
#else
constexpr bool kIsSlow = false;
#endif

EventStreamOptions quiet()
{
    EventStreamOptions options;
    options.heartbeat = milliseconds(0);
    return options;
}

// A page that listens. Texts include the framing of the chunks.
class EventClient
{
public:
    EventClient(uint16_t port, const std::string& headers) : mClient(port)
    {
        mClient.send(getRequest("/events", headers));
        const auto head = mClient.receiveHead();
        EXPECT_TRUE(head && head->status == 200);
    }

    // All that has been received when `text` is part of it; with "<end>" at the end of the stream.
    const std::string& until(const std::string& text)
    {
        while (mReceived.find(text) == std::string::npos) {
            const std::string more = mClient.receiveSome(65536);
            mReceived += more.empty() ? "<end>" : more;
            if (more.empty())
                break;
        }
        return mReceived;
    }

    // The same when the stream has ended; the connection stays open.
    const std::string& toEnd() { return until("\r\n0\r\n\r\n"); }
    RawClient& raw() { return mClient; }

private:
    RawClient mClient;
    std::string mReceived;
};

// A server with one worker and one topic.
class EventServer
{
public:
    explicit EventServer(const EventStreamOptions& options, uint32_t connections = 1000)
        : mEvents(std::make_unique<EventStream>(options)),
          mServer(
              [this](Router& router) {
                  router.get("/events", [this](Request& request) { mEvents->subscribe(request); });
                  router.get("/ping", [](Request& request) { request.reply("pong"); });
              },
              optionsFor(connections))
    {}

    EventStream& events() { return *mEvents; }
    void destroyEvents() { mEvents.reset(); }
    KitTestServer& server() { return mServer; }

    // A client that is subscribed: the comment at the beginning is sent before.
    std::unique_ptr<EventClient> listen(const std::string& headers = "")
    {
        auto client = std::make_unique<EventClient>(mServer.port(), headers);
        client->until(":\n\n");
        return client;
    }

private:
    static qv::kit::ServerOptions optionsFor(uint32_t connections)
    {
        auto options = kitOptions(1);
        options.maxConnections = connections;
        return options;
    }

    std::unique_ptr<EventStream> mEvents;
    KitTestServer mServer;
};

size_t count(const std::string& text, const std::string& part)
{
    size_t number = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++number;
    return number;
}

TEST(KitEvents, ReachAllWhoListen)
{
    EventServer run(quiet());
    const auto first = run.listen();
    const auto second = run.listen();
    run.events().publish("task", "a\nb", "7");
    for (EventClient* client : {first.get(), second.get()})
        EXPECT_THAT(client->until("data: b\n\n"),
                    HasSubstr("id: 7\nevent: task\ndata: a\ndata: b\n\n"));
    run.events().publish("", "c", "8");
    EXPECT_THAT(first->until("data: c\n\n"), HasSubstr("\nid: 8\ndata: c\n\n"));
    EXPECT_EQ(run.server().get("/ping").body, "pong");
}

TEST(KitEvents, HaveTheHeadersThatProxiesNeed)
{
    EventServer run(quiet());
    RawClient client(run.server().port());
    client.send(getRequest("/events"));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head.has_value());
    EXPECT_EQ(head->value("Content-Type"), "text/event-stream");
    EXPECT_EQ(head->value("Cache-Control"), "no-store");
    EXPECT_EQ(head->value("X-Accel-Buffering"), "no");
    const RawResponse toHead = run.server().ask("HEAD /events HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(toHead.status, 200);
    EXPECT_EQ(toHead.value("Content-Type"), "text/event-stream");
}

TEST(KitEvents, AreReplayedBehindTheLastOneThatWasReceived)
{
    EventStreamOptions options = quiet();
    options.historyEvents = 3;
    options.retry = milliseconds(1234);
    EventServer run(options);
    for (const char* id : {"1", "2", "3", "4"})
        run.events().publish("", std::string("number ") + id, id);
    const struct
    {
        const char* header;
        std::vector<std::string> ids;
    } rows[] = {
        {"", {}},
        {"Last-Event-ID: 4\r\n", {}},
        {"Last-Event-ID: 3\r\n", {"4"}},
        {"Last-Event-ID: 2\r\n", {"3", "4"}},
        {"Last-Event-ID: 1\r\n", {"2", "3", "4"}},
        {"Last-Event-ID: from before a restart\r\n", {"2", "3", "4"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.header);
        const auto client = run.listen(row.header);
        run.events().publish("mark", "end", "mark");
        const std::string received = client->until("data: end\n");
        EXPECT_THAT(received, HasSubstr("retry: 1234\n\n"));
        size_t at = 0;
        for (const std::string& id : row.ids) {
            const size_t found = received.find("id: " + id + "\ndata: number " + id, at);
            EXPECT_NE(found, std::string::npos) << id << " in " << received;
            at = found;
        }
        EXPECT_EQ(count(received, "data: number"), row.ids.size());
        // The history again without the mark.
        for (const char* id : {"2", "3", "4"})
            run.events().publish("", std::string("number ") + id, id);
    }
}

TEST(KitEvents, KeepABoundedHistory)
{
    EventStreamOptions options = quiet();
    options.historyBytes = 1000;
    EventServer run(options);
    for (int i = 0; i < 10; ++i)
        run.events().publish("", std::string(280, static_cast<char>('a' + i)), std::to_string(i));
    const auto client = run.listen("Last-Event-ID: x\r\n");
    run.events().publish("", "end");
    const std::string received = client->until("data: end\n");
    EXPECT_EQ(count(received, "data: "), 4u);
    EXPECT_THAT(received, HasSubstr("id: 7\n"));
    // Larger than the history.
    run.events().publish("", std::string(2000, 'z'), "large");
    const auto late = run.listen("Last-Event-ID: x\r\n");
    run.events().publish("", "end");
    EXPECT_EQ(count(late->until("data: end\n"), "data: "), 1u);
}

// A client that does not read costs its queue, not the history.
TEST(KitEvents, AreReplayedInPartsThatTheQueueHolds)
{
    EventStreamOptions options = quiet();
    options.queueBytes = 1000;
    EventServer run(options);
    for (const size_t bytes : {400, 400, 400, 2000, 10})
        run.events().publish("", std::string(bytes, 'x'));
    std::string last = "unknown";
    size_t received = 0;
    // The last part is whole: its stream goes on.
    for (const size_t events : {2, 1, 1}) {
        EventClient client(run.server().port(), "Last-Event-ID: " + last + "\r\n");
        const std::string part = client.toEnd();
        EXPECT_EQ(count(part, "data: "), events);
        const size_t id = part.rfind("id: ") + 4;
        last = part.substr(id, part.find('\n', id) - id);
        received += events;
    }
    EXPECT_EQ(run.events().subscribers(), 0u);
    EXPECT_EQ(received, 4u);
    EventClient client(run.server().port(), "Last-Event-ID: " + last + "\r\n");
    EXPECT_THAT(client.until("data: xxxxxxxxxx\n"), Not(HasSubstr("<end>")));
    EXPECT_EQ(run.events().subscribers(), 1u);
}

TEST(KitEvents, HaveNumbersOfTheirOwn)
{
    EventServer run(quiet());
    const auto client = run.listen();
    run.events().publish("", "a");
    run.events().publish("", "b");
    const std::string received = client->until("data: b\n");
    const size_t id = received.find("id: ") + 4;
    const std::string first = received.substr(id, received.find('\n', id) - id);
    EXPECT_EQ(first.substr(first.find('-')), "-1");
    const auto late = run.listen("Last-Event-ID: " + first + "\r\n");
    EXPECT_THAT(late->until("data: b\n"), Not(HasSubstr("data: a")));
}

// The queue of a client that does not read is full after a while.
TEST(KitEvents, DisconnectASlowClientOrLeaveEventsOut)
{
    for (const SlowClient policy : {SlowClient::Disconnect, SlowClient::Skip}) {
        EventStreamOptions options = quiet();
        options.queueBytes = 65536;
        options.slowClient = policy;
        EventServer run(options);
        const auto slow = run.listen();
        const std::string data(30000, 'x');
        size_t published = 0;
        // More than the socket buffers of both sides hold.
        constexpr size_t kMany = 2000;
        while (published < kMany && run.events().subscribers() == 1) {
            run.events().publish("", data, std::to_string(++published));
        }
        if (policy == SlowClient::Disconnect) {
            EXPECT_EQ(run.events().subscribers(), 0u);
            const std::string received = slow->toEnd();
            EXPECT_THAT(received.substr(received.size() - 5), "0\r\n\r\n");
            // The last events in the order of their publication, none left out before the end.
            const size_t events = count(received, "data: ");
            EXPECT_GT(events, 0u);
            EXPECT_THAT(received, HasSubstr("id: " + std::to_string(events) + "\n"));
        } else {
            EXPECT_EQ(published, kMany);
            EXPECT_EQ(run.events().subscribers(), 1u);
            // When it reads again it gets new events.
            std::string received;
            while (received.find("id: new") == std::string::npos) {
                run.events().publish("", "y", "new");
                const std::string more = slow->raw().receiveSome(1 << 20);
                ASSERT_FALSE(more.empty());
                received =
                    received.substr(received.size() - std::min<size_t>(received.size(), 10)) + more;
            }
        }
    }
}

TEST(KitEvents, AreKeptAliveByComments)
{
    EventStreamOptions options;
    options.heartbeat = milliseconds(20);
    EventServer run(options);
    const auto client = run.listen();
    const auto another = run.listen();
    another->until(":\n\n\r\n3\r\n:\n\n\r\n3\r\n:\n\n");
    // A client that has left is noticed without an event.
    client->raw().reset();
    EXPECT_TRUE(waitUntil([&] { return run.events().subscribers() == 1; }));
}

// Two comments after the one at the beginning.
bool hasHeartbeats(EventServer& run)
{
    const auto client = run.listen();
    return count(client->until(":\n\n\r\n3\r\n:\n\n\r\n3\r\n:\n\n"), ":\n\n") >= 3;
}

TEST(KitEvents, AreKeptAliveInAChildOfAProcessThatHasSome)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a child of several threads starts none under this sanitizer";
#endif
    EventStreamOptions options;
    options.heartbeat = milliseconds(20);
    const auto parents = std::make_unique<EventStream>(options);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        bool isRight = false;
        {
            EventServer run(options);
            isRight = hasHeartbeats(run);
        }
        ::_exit(isRight ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EventServer run(options);
    EXPECT_TRUE(hasHeartbeats(run));
}

// As of other streams, whose length is not known.
TEST(KitEvents, HaveNoLengthForHead)
{
    EventServer run(quiet());
    RawClient client(run.server().port());
    ASSERT_TRUE(client.send("HEAD /events HTTP/1.1\r\nHost: x\r\n\r\n"));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 200);
    EXPECT_EQ(head->value("Content-Type"), "text/event-stream");
    EXPECT_EQ(head->value("Cache-Control"), "no-store");
    EXPECT_TRUE(head->values("Content-Length").empty());
    EXPECT_EQ(run.events().subscribers(), 0u);
    EXPECT_TRUE(run.server().stop());
}

TEST(KitEvents, EndWithTheirTopic)
{
    EventServer run(quiet());
    const auto closed = run.listen();
    run.events().publish("", "last");
    run.events().close();
    const std::string received = closed->toEnd();
    EXPECT_THAT(received, HasSubstr("data: last\n"));
    EXPECT_THAT(received.substr(received.size() - 5), "0\r\n\r\n");
    EXPECT_EQ(run.events().subscribers(), 0u);
    run.events().publish("", "nobody");
    const RawResponse refused = run.server().get("/events");
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.value("Retry-After"), "1");

    EventServer other(EventStreamOptions{});
    const auto left = other.listen();
    other.destroyEvents();
    EXPECT_THAT(left->toEnd(), HasSubstr("0\r\n\r\n"));
    EXPECT_TRUE(other.server().stop());
}

TEST(KitEvents, ReachFiveThousandWithOneWorker)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const size_t wanted = std::min<size_t>(kIsSlow ? 300 : 5000, (limit.rlim_cur - 300) / 2);
    EventServer run(quiet(), static_cast<uint32_t>(wanted) + 100);
    std::vector<std::unique_ptr<EventClient>> clients;
    for (size_t i = 0; i < wanted; ++i)
        clients.push_back(run.listen());
    EXPECT_EQ(run.events().subscribers(), wanted);
    const auto begin = std::chrono::steady_clock::now();
    run.events().publish("task", "to all", "1");
    const auto published = std::chrono::steady_clock::now();
    for (const auto& client : clients)
        EXPECT_THAT(client->until("data: to all\n\n"), Not(HasSubstr("<end>")));
    const auto end = std::chrono::steady_clock::now();
    std::printf("an event to %zu clients: published in %.1f ms, received in %.1f ms\n", wanted,
                std::chrono::duration<double, std::milli>(published - begin).count(),
                std::chrono::duration<double, std::milli>(end - begin).count());
    EXPECT_EQ(run.server().get("/ping").body, "pong");
    clients.clear();
    // Those that have left are noticed by the next events.
    EXPECT_TRUE(waitUntil([&] {
        run.events().publish("", "anybody?");
        return run.events().subscribers() == 0;
    }));
}

// The daemon sends to it once more.
TEST(KitEvents, WriteNoWarningForAClientThatLeaves)
{
    processLog->clear();
    EventServer run(quiet());
    for (int i = 0; i < 20; ++i) {
        run.listen();
        EXPECT_TRUE(waitUntil([&] {
            run.events().publish("", "x");
            return run.events().subscribers() == 0;
        }));
    }
    EXPECT_TRUE(run.server().stop());
    for (const auto& line : processLog->lines())
        EXPECT_THAT(line.message, Not(HasSubstr("libmicrohttpd: ")));
}

TEST(KitEvents, ArePublishedWhileClientsComeAndLeave)
{
    EventStreamOptions options;
    options.heartbeat = milliseconds(1);
    options.historyEvents = 10;
    EventServer run(options);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> publishers;
    for (int thread = 0; thread < 2; ++thread)
        publishers.emplace_back([&] {
            while (!isOver) {
                run.events().publish("e", std::string(100, 'x'));
                std::this_thread::yield();
            }
        });
    const int rounds = kIsSlow ? 50 : 300;
    for (int round = 0; round < rounds; ++round) {
        if (round % 3 == 0) {
            RawClient client(run.server().port());
            client.send(getRequest("/events", "Last-Event-ID: x\r\n"));
            client.reset();
        } else {
            EXPECT_THAT(run.listen("Last-Event-ID: x\r\n")->until("data: x"),
                        Not(HasSubstr("<end>")));
        }
    }
    isOver = true;
    for (std::thread& publisher : publishers)
        publisher.join();
    run.events().close();
    EXPECT_TRUE(run.server().stop());
}

}  // namespace
}  // namespace integration

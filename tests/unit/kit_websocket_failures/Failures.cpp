// Sessions while memory runs out and system calls fail: the session concerned ends, with its last
// callback; the others go on, and nothing is left behind.

#include "FailingLoop.h"

#include "Compressing.h"
#include "Peer.h"

#include "websocket/Connection.h"
#include "websocket/Loop.h"

#include <support/CapturedLog.h>
#include <support/TestsOwn.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using namespace websockettests;

size_t countEntries(const char* directory)
{
    const std::filesystem::directory_iterator all(directory);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

size_t countDescriptors()
{
    return countEntries("/proc/self/fd");
}

// Sends everything back.
class Echo : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>&) override { ++opened; }
    void onText(Session& session, std::string_view text) override { session.sendText(text); }
    void onBinary(Session& session, BinaryView bytes) override { session.sendBinary(bytes); }
    void onClose(Session&, uint16_t, std::string_view, bool) override { ++closed; }

    std::atomic<int> opened{0};
    std::atomic<int> closed{0};
};

// Runs callbacks on a thread of its own.
class Worker
{
public:
    ~Worker()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEnds = true;
        }
        mChanged.notify_all();
        mThread.join();
    }

    bool submit(std::function<void()> task)
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mTasks.push_back(std::move(task));
        }
        mChanged.notify_all();
        return true;
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            mChanged.wait(lock, [this] { return mEnds || !mTasks.empty(); });
            if (mTasks.empty())
                return;
            const std::function<void()> task = std::move(mTasks.front());
            mTasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<std::function<void()>> mTasks;
    bool mEnds = false;
    std::thread mThread{[this] { run(); }};
};

// A loop with the sessions of a run, and what they share.
class OneLoop
{
public:
    OneLoop() : loop(std::make_shared<Loop>(membership)) {}

    std::unique_ptr<Peer> open(const std::shared_ptr<const WebSocketOptions>& options,
                               const Agreement& agreement)
    {
        const auto [server, client] = tcpPair(4096);
        ::fcntl(server, F_SETFL, O_NONBLOCK);
        const auto session = std::make_shared<Connection>(
            loop, membership,
            std::make_unique<qv::UpgradedConnection>(server, "", qv::IpAddress(), nullptr),
            agreement, echo, options);
        membership->join([&] { loop->adopt(session); });
        return std::make_unique<Peer>(client);
    }

    std::shared_ptr<Membership> membership = std::make_shared<Membership>(100000000);
    std::shared_ptr<Loop> loop;
    std::shared_ptr<Echo> echo = std::make_shared<Echo>();
};

// Messages of a client and the frames that respond to them.
struct Script
{
    std::string bytes;
    std::vector<std::string> responses;
};

const std::string& largeMessage()
{
    static const std::string large = words(300000);
    return large;
}

Script plainScript()
{
    const std::string& large = largeMessage();
    return {frame(Opcode::Text, "a") + frame(Opcode::Text, "b", false) + frame(Opcode::Ping, "p") +
                frame(Opcode::Continuation, "c") +
                frame(Opcode::Binary, large.substr(0, 100000), false) +
                frame(Opcode::Continuation, large.substr(100000)) + frame(Opcode::Pong, "q") +
                frame(Opcode::Text, "d") + frame(Opcode::Text, "e") + closeFrame(1000, "bye"),
            {"81:a", "8a:p", "81:bc", "82:" + large, "81:d", "81:e", closed(1000)}};
}

// Without a ping: a pong does not wait for the executor.
Script messagesScript()
{
    const std::string& large = largeMessage();
    return {frame(Opcode::Text, "a") + frame(Opcode::Text, "b", false) +
                frame(Opcode::Continuation, "c") + frame(Opcode::Binary, large) +
                frame(Opcode::Pong, "q") + frame(Opcode::Text, "d"),
            {"81:a", "81:bc", "82:" + large, "81:d"}};
}

// Text of which the echoes are compressed.
Script compressedScript(bool keepsContext)
{
    Script script;
    Compressing context;
    for (unsigned i = 0; i < 4; ++i) {
        const std::string text = words(2000, i);
        const std::string payload =
            keepsContext ? context.compress(text) : Compressing().compress(text);
        script.bytes += rawFrame(kRsv1 | 1, payload.substr(0, 100)) + frame(Opcode::Ping, "p") +
                        frame(Opcode::Continuation, payload.substr(100));
        script.responses.push_back("8a:p");
        script.responses.push_back("c1:" + text);
    }
    script.bytes += closeFrame(1000);
    script.responses.push_back(closed(1000));
    return script;
}

// True when the session has responded to everything.
bool receiveAll(Peer& peer, const Script& script, bool keepsContext)
{
    Inflater inflater;
    for (const std::string& expected : script.responses) {
        std::string response = peer.receive();
        if (response.substr(0, 3) == "c1:") {
            if (!keepsContext)
                inflater.reset();
            Buffer text;
            inflater.decompress(BinaryView(std::string_view(response).substr(3)), text,
                                SIZE_MAX / 2);
            response = "c1:" + std::string(BinaryView(text.data(), text.size()).asText());
        }
        if (response != expected)
            return false;
    }
    return true;
}

struct Scenario
{
    const char* name;
    Script script;
    bool keepsContext = false;
    bool hasExecutor = false;
};

Agreement agreementOf(const Scenario& scenario)
{
    Agreement agreement;
    agreement.deflate.isEnabled = scenario.script.responses.front()[0] == '8' &&
                                  scenario.script.responses[1].substr(0, 2) == "c1";
    agreement.deflate.serverNoContextTakeover = !scenario.keepsContext;
    agreement.deflate.clientNoContextTakeover = !scenario.keepsContext;
    return agreement;
}

// Two sessions, one or both of which may meet the failure, and a third one after it.
void run(const Scenario& scenario, Failing kind, size_t number, bool andAllLater, int minSuccesses)
{
    const size_t descriptors = countDescriptors();
    std::shared_ptr<Membership> membership;
    {
        auto options = std::make_shared<WebSocketOptions>();
        Worker worker;
        if (scenario.hasExecutor) {
            options->executor = [&worker](std::function<void()> task) {
                return worker.submit(std::move(task));
            };
        }
        OneLoop one;
        membership = one.membership;
        const Agreement agreement = agreementOf(scenario);
        int successes = 0;
        {
            const FailNth failing(kind, number, andAllLater, On::Loops);
            std::vector<std::unique_ptr<Peer>> peers;
            for (int i = 0; i < 2; ++i)
                peers.push_back(one.open(options, agreement));
            for (const auto& peer : peers)
                peer->send(scenario.script.bytes);
            for (const auto& peer : peers)
                successes += receiveAll(*peer, scenario.script, scenario.keepsContext);
            for (const auto& peer : peers)
                peer->close();
            EXPECT_TRUE(waitUntil([&] { return membership->count() == 0; }));
        }
        EXPECT_GE(successes, FailNth::hasFailed() ? minSuccesses : 2);
        const auto peer = one.open(options, agreement);
        peer->send(scenario.script.bytes);
        EXPECT_TRUE(receiveAll(*peer, scenario.script, scenario.keepsContext))
            << "a session after the failure";
        peer->close();
        EXPECT_TRUE(waitUntil([&] { return membership->count() == 0; }));
        EXPECT_EQ(one.echo->opened, 3);
        EXPECT_EQ(one.echo->closed, 3);
        one.loop->stop();
    }
    EXPECT_EQ(membership->budget.usedBytes(), 0u);
    EXPECT_EQ(countDescriptors(), descriptors);
}

// Returns how many calls could fail.
size_t failEach(const Scenario& scenario, Failing kind, int minSuccesses, bool canFailForEver)
{
    size_t number = 1;
    for (bool hasFailed = true; hasFailed && !testing::Test::HasFailure(); ++number) {
        for (const bool andAllLater : {false, true}) {
            if (andAllLater && !canFailForEver)
                continue;
            SCOPED_TRACE(testing::Message() << scenario.name << ": " << nameOf(kind) << ' '
                                            << number << (andAllLater ? " and all later" : ""));
            run(scenario, kind, number, andAllLater, andAllLater ? 0 : minSuccesses);
            hasFailed = FailNth::hasFailed();
        }
    }
    std::printf("%-24s %-16s %4zu failing calls\n", scenario.name, nameOf(kind), number - 2);
    return number - 2;
}

class SessionFailures : public testing::Test
{
protected:
    // Objects that the process makes once are made before the descriptors are counted.
    SessionFailures() { run(plain, Failing::New, 0, false, 2); }

    qv::tests::CapturedLog log;
    const Scenario plain{"plain", plainScript()};
    const Scenario executor{"executor", messagesScript(), false, true};
    const Scenario compressed{"compressed", compressedScript(false)};
    const Scenario context{"compressed with context", compressedScript(true), true};
};

TEST_F(SessionFailures, OfMemoryEndOneSessionAndNotTheOthers)
{
    for (const Scenario* scenario : {&plain, &executor, &compressed, &context}) {
        EXPECT_GT(failEach(*scenario, Failing::New, 1, true), 0u);
        if (canFailMalloc()) {
            EXPECT_GT(failEach(*scenario, Failing::Malloc, 1, true), 0u);
        }
    }
}

TEST_F(SessionFailures, OfSystemCallsEndOneSessionAndNotTheOthers)
{
    for (const Failing kind : {Failing::EpollControl, Failing::Send, Failing::Receive})
        EXPECT_GT(failEach(plain, kind, 1, true), 0u);
}

TEST_F(SessionFailures, ThatPassEndNoSession)
{
    for (const Failing kind :
         {Failing::EpollWait, Failing::SendBlocked, Failing::SendOneByte, Failing::ReceiveNothing,
          Failing::ReceiveOneByte, Failing::ReadEvent, Failing::SetOption, Failing::ShutDown})
        EXPECT_GT(failEach(plain, kind, 2, false), 0u);
    EXPECT_GT(failEach(compressed, Failing::ReceiveOneByte, 2, true), 0u);
}

TEST_F(SessionFailures, AreLoggedWithTheNameOfTheRoute)
{
    OneLoop one;
    auto options = std::make_shared<WebSocketOptions>();
    options->name = "GET /channels/{channel}";
    std::function<void()> kept;
    std::atomic<bool> isAsked{false};
    options->executor = [&](std::function<void()> task) {
        kept = std::move(task);
        isAsked = true;
        return true;
    };
    std::unique_ptr<Peer> peer = one.open(options, {});
    EXPECT_TRUE(waitUntil([&] { return isAsked.load(); }));
    {
        // The copy for the executor cannot be made.
        const FailNth failing(Failing::New, 1, false, On::Loops);
        peer->send(frame(Opcode::Text, std::string(100, 't')));
        EXPECT_EQ(peer->receive(), "end");
    }
    EXPECT_TRUE(waitUntil([&] {
        return log.lines("GET /channels/{channel}: a WebSocket session was ended: std::bad_alloc")
                   .size() == 1;
    }));
    kept();
    EXPECT_EQ(one.echo->opened, 1);
    EXPECT_EQ(one.echo->closed, 1);
    one.loop->stop();
}

TEST_F(SessionFailures, OfTheStartLeaveNothingBehind)
{
    const size_t descriptors = countDescriptors();
    const size_t threads = countEntries("/proc/self/task");
    for (const Failing kind : {Failing::New, Failing::EpollCreate, Failing::EventFd,
                               Failing::EpollControl, Failing::StartThread}) {
        size_t number = 1;
        for (bool hasFailed = true; hasFailed; ++number) {
            SCOPED_TRACE(testing::Message() << nameOf(kind) << ' ' << number);
            bool hasThrown = false;
            {
                const FailNth failing(kind, number, false, On::ThisThread);
                try {
                    const Engine engine({2});
                } catch (const std::bad_alloc&) {
                    hasThrown = true;
                } catch (const std::system_error&) {
                    hasThrown = true;
                }
            }
            hasFailed = FailNth::hasFailed();
            EXPECT_EQ(hasThrown, hasFailed);
            EXPECT_EQ(countDescriptors(), descriptors);
            EXPECT_TRUE(waitUntil([&] { return countEntries("/proc/self/task") == threads; }));
        }
        EXPECT_GT(number, 2u);
    }
}

TEST_F(SessionFailures, OfOpeningCloseTheConnection)
{
    Engine engine({1});
    const auto options = std::make_shared<WebSocketOptions>();
    const auto echo = std::make_shared<Echo>();
    size_t number = 1;
    for (bool hasFailed = true; hasFailed; ++number) {
        SCOPED_TRACE(number);
        const auto [server, client] = tcpPair();
        ::fcntl(server, F_SETFL, O_NONBLOCK);
        Peer peer(client);
        auto connection =
            std::make_unique<qv::UpgradedConnection>(server, "", qv::IpAddress(), nullptr);
        bool hasThrown = false;
        {
            const FailNth failing(Failing::New, number, false, On::ThisThread);
            try {
                engine.open(std::move(connection), {}, echo, options);
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
        }
        hasFailed = FailNth::hasFailed();
        EXPECT_EQ(hasThrown, hasFailed);
        if (hasThrown) {
            EXPECT_EQ(peer.receive(), "end");
            EXPECT_EQ(engine.sessionCount(), 0u);
        }
    }
    EXPECT_GT(number, 2u);
}

// A message that could not be queued is not sent, and the next one is.
TEST_F(SessionFailures, OfSendingLeaveTheSessionAsItWas)
{
    const std::string text = words(3000);
    const struct
    {
        const char* name;
        bool isCompressed;
        bool keepsContext;
        std::function<void(Session&)> send;
        std::string response;
    } rows[] = {
        {"text", false, false, [&](Session& s) { s.sendText(text); }, "81:" + text},
        {"ping", false, false, [](Session& s) { s.ping("p"); }, "89:p"},
        {"prepared", false, false, [&](Session& s) { s.send(PreparedMessage::text(text)); },
         "81:" + text},
        {"compressed", true, false, [&](Session& s) { s.sendText(text); }, "c1:" + text},
        {"compressed with context", true, true, [&](Session& s) { s.sendText(text); },
         "c1:" + text},
        {"prepared and compressed", true, true,
         [&](Session& s) { s.send(PreparedMessage::text(text)); }, "c1:" + text},
    };
    for (const auto& row : rows) {
        for (const Failing kind : {Failing::New, Failing::Malloc}) {
            size_t number = 1;
            for (bool hasFailed = true; hasFailed; ++number) {
                SCOPED_TRACE(testing::Message()
                             << row.name << ": " << nameOf(kind) << ' ' << number);
                Agreement agreement;
                agreement.deflate = {row.isCompressed, !row.keepsContext, true, 15, 15};
                SessionRun run({}, agreement);
                run.open();
                run.recorder->event(1);
                const std::string first = words(2000, 5);
                ASSERT_EQ(run.session->sendText(first), SendResult::Queued);
                bool hasThrown = false;
                {
                    const FailNth failing(kind, number, false, On::ThisThread);
                    try {
                        row.send(*run.session);
                    } catch (const std::bad_alloc&) {
                        hasThrown = true;
                    }
                }
                hasFailed = FailNth::hasFailed();
                const std::string last = words(2500, 6);
                ASSERT_EQ(run.session->sendText(last), SendResult::Queued);
                run.session->close(1000);
                // Without memory for the compressor a message goes as it is.
                Script script;
                const std::string lead = row.isCompressed ? "c1:" : "81:";
                script.responses.push_back(lead + first);
                if (!hasThrown)
                    script.responses.push_back(row.response);
                script.responses.push_back(lead + last);
                script.responses.push_back(closed(1000));
                std::vector<std::string> received;
                Inflater inflater;
                for (size_t i = 0; i < script.responses.size(); ++i) {
                    std::string response = run.peer->receive();
                    if (response.substr(0, 3) == "c1:") {
                        if (!row.keepsContext)
                            inflater.reset();
                        Buffer out;
                        inflater.decompress(BinaryView(std::string_view(response).substr(3)), out,
                                            SIZE_MAX / 2);
                        response = "c1:" + std::string(BinaryView(out.data(), out.size()).asText());
                    }
                    if (hasFailed && row.isCompressed && response.substr(0, 3) == "81:")
                        response.replace(0, 2, "c1");
                    received.push_back(response);
                }
                EXPECT_EQ(received, script.responses);
            }
            if (kind == Failing::New) {
                EXPECT_GT(number, 2u) << row.name;
            }
        }
    }
}

// As long as memory lacks for its close frame, a session is aborted.
TEST_F(SessionFailures, OfACloseFrameAbortTheSession)
{
    OneLoop one;
    auto options = std::make_shared<WebSocketOptions>();
    class Throwing : public Echo
    {
        void onText(Session&, std::string_view) override { throw std::runtime_error("no"); }
    };
    one.echo = std::make_shared<Throwing>();
    std::unique_ptr<Peer> peer = one.open(options, {});
    EXPECT_TRUE(waitUntil([&] { return one.echo->opened == 1; }));
    {
        const FailNth failing(Failing::New, 1, true, On::Loops);
        peer->send(frame(Opcode::Text, "a"));
        EXPECT_EQ(peer->receive(), "end");
        EXPECT_TRUE(waitUntil([&] { return one.membership->count() == 0; }));
    }
    EXPECT_EQ(one.echo->closed, 1);
    one.loop->stop();
}

}  // namespace

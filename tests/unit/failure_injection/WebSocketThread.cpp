// The threads of upgraded connections while memory, threads and poll() fail: connections are in
// exactly one place, or destroyed; the lock is free.

#include "failure_injection/Support.h"
#include "support/CapturedLog.h"
#include "support/FakeTime.h"
#include "support/Waiting.h"
#include "websocket/Support.h"

#include <Wendrel/WebSocket.h>

#include <chrono>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

using http::WebSocketThread;
using http::WebSocketWorkerThread;
using Access = WebSocketAccess;
using testing::IsEmpty;
using testing::SizeIs;

// Counts itself.
class Counted : public Connection
{
public:
    Counted(int descriptor, size_t& alive, void* handle = nullptr)
        : Connection(descriptor, handle), mAlive(alive)
    {
        ++mAlive;
    }
    ~Counted() override { --mAlive; }

private:
    size_t& mAlive;
};

// On the thread of the test.
class PollThread : public WebSocketThread
{
public:
    using WebSocketThread::run;
};

// Calls run() of a worker. A derived object is not possible: the constructor starts the thread.
class WorkerRun : public WebSocketWorkerThread
{
public:
    static void On(WebSocketWorkerThread& worker) { (worker.*&WorkerRun::run)(); }
};

MHD_UpgradeResponseHandle* Handle(char& place)
{
    return reinterpret_cast<MHD_UpgradeResponseHandle*>(&place);
}

TEST(WebSocketThreadFailures, AllThreadsAreStartedOrNone)
{
    FailEachCallOf(
        {{"startThreads", [](Attempt& attempt) {
              size_t alive = 0;
              ScriptedSockets sockets;
              Latch polled;
              sockets.onCall(
                  [&](const ScriptedSockets::Attempt&) -> std::optional<ScriptedSockets::Outcome> {
                      polled.open();
                      return std::nullopt;
                  });
              SocketPair ends;
              {
                  WebSocketThread thread;
                  const bool done = attempt([&] { thread.startThreads(3); });
                  EXPECT_EQ(Access::workerCount(thread), done ? 3u : 0u);
                  EXPECT_EQ(Access::readyCount(thread), 0u);
                  if (!done) {
                      EXPECT_TRUE(thread.waitThread(0));
                      thread.startThreads(3);
                  }
                  EXPECT_EQ(Access::workerCount(thread), 3u);
                  std::unique_ptr<WebSocket> connection =
                      std::make_unique<Counted>(ends.server(), alive);
                  thread.addWebSocket(connection);
                  EXPECT_TRUE(polled.wait());
                  for (size_t i = 0; i < 3; ++i)
                      EXPECT_FALSE(Access::hasWorkerEnded(thread, i));
                  thread.stopThreads(true);
                  EXPECT_EQ(alive, 1u);
              }
              EXPECT_EQ(alive, 0u);
          }}});
}

TEST(WebSocketThreadFailures, AConnectionIsTakenOverOrStaysWithTheCaller)
{
    for (const bool readPending : {false, true}) {
        for (const bool givenBack : {false, true}) {
            const std::string name = std::string(givenBack ? "giveBackWebSocket" : "addWebSocket") +
                                     (readPending ? ": with more to read" : "");
            FailEachCall(name.c_str(), [&](Attempt& attempt) {
                size_t alive = 0;
                {
                    WebSocketThread thread;
                    std::unique_ptr<WebSocket> connection = std::make_unique<Counted>(-1, alive);
                    connection->setReadEnabled(readPending);
                    const auto give = [&] {
                        if (givenBack)
                            thread.giveBackWebSocket(connection);
                        else
                            thread.addWebSocket(connection);
                    };
                    if (!attempt(give)) {
                        ASSERT_NE(connection, nullptr);
                        EXPECT_EQ(Access::newCount(thread) + Access::readyCount(thread), 0u);
                        give();
                    }
                    EXPECT_EQ(connection, nullptr);
                    EXPECT_EQ(Access::newCount(thread), givenBack && readPending ? 0u : 1u);
                    EXPECT_EQ(Access::readyCount(thread), givenBack && readPending ? 1u : 0u);
                    EXPECT_EQ(alive, 1u);
                }
                EXPECT_EQ(alive, 0u);
            });
        }
    }
}

TEST(WebSocketThreadFailures, HandingOutRefusingAndStoppingNeedNoMemory)
{
    FailEachCallOf({{"getFirstWebSocket, stopThreads, addWebSocket after it",
                     [](Attempt& attempt) {
                         RecordingDaemon daemon;
                         size_t alive = 0;
                         char handles[2];
                         WebSocketThread thread;
                         std::unique_ptr<WebSocket> ready =
                             std::make_unique<Counted>(-1, alive, Handle(handles[0]));
                         ready->setReadEnabled(true);
                         thread.giveBackWebSocket(ready);
                         std::unique_ptr<WebSocket> late =
                             std::make_unique<Counted>(-1, alive, Handle(handles[1]));
                         EXPECT_TRUE(attempt([&] {
                             thread.getFirstWebSocket(ready);
                             thread.stopThreads(true);
                             thread.addWebSocket(late);
                             thread.giveBackWebSocket(ready);
                         }));
                         EXPECT_THAT(daemon.closedHandles(), SizeIs(2));
                         EXPECT_EQ(alive, 2u);
                     },
                     Points::None},
                    {"poll thread and workers: made and destroyed",
                     [](Attempt& attempt) { EXPECT_TRUE(attempt([] { WebSocketThread thread; })); },
                     Points::None}});
}

// One cycle of the poll thread: one connection with something to read, one without, one whose
// client has closed.
TEST(WebSocketThreadFailures, ThePollThreadLosesNoConnection)
{
    FailEachCallOf({{"poll thread: a cycle", [](Attempt& attempt) {
                         CapturedLog log;
                         RecordingDaemon daemon;
                         FailingSockets sockets(EINTR);
                         size_t alive = 0;
                         char handles[3];
                         SocketPair ends[3];
                         {
                             PollThread thread;
                             for (int i = 0; i < 3; ++i) {
                                 std::unique_ptr<WebSocket> connection = std::make_unique<Counted>(
                                     ends[i].server(), alive, Handle(handles[i]));
                                 thread.addWebSocket(connection);
                             }
                             ends[0].writeAll(Bytes{1, 2, 3});
                             ends[1].closeClient();
                             FakeTime time;
                             time.onWait([&](FakeTime::Wait&) { thread.stopThreads(false); });
                             // Ends the loop after the first cycle.
                             sockets.onCall([&](const ScriptedSockets::Attempt& call)
                                                -> std::optional<ScriptedSockets::Outcome> {
                                 if (call.operation == ScriptedSockets::Poll)
                                     thread.stopThreads(false);
                                 if (!ShouldFail(Failing::Poll))
                                     return std::nullopt;
                                 return ScriptedSockets::Outcome{-1, EINTR};
                             });
                             const bool done = attempt([&] { thread.run(); });
                             // Each takes the lock.
                             const size_t fresh = Access::newCount(thread);
                             const size_t ready = Access::readyCount(thread);
                             EXPECT_EQ(alive, fresh + ready);
                             if (!attempt.hasFailed()) {
                                 EXPECT_EQ(fresh, 1u);
                                 EXPECT_EQ(ready, 1u);
                                 EXPECT_THAT(daemon.closedHandles(), SizeIs(1));
                             }
                             if (attempt.hasFailed(Failing::Poll)) {
                                 // Required: the connections are destroyed and not closed.
                                 EXPECT_EQ(alive, 0u);
                                 EXPECT_THAT(daemon.closedHandles(), IsEmpty());
                                 EXPECT_THAT(log.lines(), SizeIs(done ? 1 : 0));
                             }
                         }
                         EXPECT_EQ(alive, 0u);
                     }}});
}

// A thread of workers that can be replaced by one that has not been stopped.
TEST(WebSocketThreadFailures, AWorkerLosesNoConnection)
{
    for (const int error : {EAGAIN, ECONNRESET}) {
        FailEachCall(error == EAGAIN ? "worker: a turn, the socket is not ready"
                                     : "worker: a turn, the client has closed",
                     [&](Attempt& attempt) {
                         RecordingDaemon daemon;
                         size_t alive = 0;
                         char handle = 0;
                         SocketPair ends;
                         SocketPair quiet;
                         std::optional<WebSocketThread> owner;
                         owner.emplace();
                         owner->stopThreads(false);
                         {
                             WebSocketWorkerThread worker(&*owner);
                             ASSERT_TRUE(worker.waitThread(60000));
                             // At the same place: the worker's run is to go on with it.
                             owner.emplace();
                             std::unique_ptr<WebSocket> connection =
                                 std::make_unique<Counted>(ends.server(), alive, Handle(handle));
                             auto* counted = static_cast<Counted*>(connection.get());
                             counted->messages.reserve(1);
                             connection->writeMessage("hello", 5, false);
                             connection->setReadEnabled(true);
                             ends.writeAll(ClientFrame(0x81, Pattern(2000)));
                             owner->giveBackWebSocket(connection);

                             FailingSockets sockets(error);
                             FakeTime time;
                             bool isLast = false;
                             time.onWait([&](FakeTime::Wait&) {
                                 if (std::exchange(isLast, true)) {
                                     owner->stopThreads(false);
                                     return;
                                 }
                                 // A worker that holds a connection which it has closed ends only
                                 // when it gets one that it can hand back.
                                 sockets.passThrough();
                                 std::unique_ptr<WebSocket> last =
                                     std::make_unique<Counted>(quiet.server(), alive);
                                 last->setReadEnabled(true);
                                 owner->giveBackWebSocket(last);
                             });
                             const bool done = attempt([&] { WorkerRun::On(worker); });
                             EXPECT_EQ(done, !attempt.hasLackedMemory());
                             // Each takes the lock.
                             const size_t held =
                                 Access::newCount(*owner) + Access::readyCount(*owner);
                             EXPECT_EQ(alive, held);
                         }
                         owner.reset();
                         EXPECT_EQ(alive, 0u);
                     });
    }
}

}  // namespace
}  // namespace qv::tests

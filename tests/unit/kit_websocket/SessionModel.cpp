// Sessions used by many threads at once, against a model of what must be seen.

#include "Peer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace websockettests;
using std::chrono::milliseconds;

constexpr size_t kThreads = 3;
constexpr size_t kSessions = 12;
constexpr int kMessages = 300;

using Counts = std::array<std::atomic<int>, kThreads>;

// A session, what the threads have done with it, and what its callbacks have seen.
class Modelled : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>&) override { order += isFirst() ? 0 : 1; }
    void onText(Session& session, std::string_view text) override
    {
        check();
        if (text == "close")
            accepted += session.close(4001, "by the callback") ? 1 : 0;
    }
    void onDrained(Session&) override { check(); }
    void onClose(Session& session, uint16_t, std::string_view, bool) override
    {
        check();
        ++closes;
        if (session.isOpen() || session.sendText("late") != SendResult::Closed)
            ++order;
    }

    std::atomic<int> accepted{0};  // calls of close that returned true
    std::atomic<int> closes{0};
    std::atomic<int> order{0};  // callbacks that came at the wrong time
    Counts queued{};            // messages of each thread

private:
    bool isFirst() { return !mIsOpen.exchange(true); }
    void check() { order += mIsOpen && closes == 0 ? 0 : 1; }

    std::atomic<bool> mIsOpen{false};
};

// The messages that a client has received of each thread.
struct Received
{
    std::array<int, kThreads> next{};
    bool isInOrder = true;
    bool hasCloseFrame = false;
};

Received receiveAll(Peer& peer, std::mt19937& dice)
{
    Received received;
    for (;;) {
        const std::string frame = peer.receive();
        if (frame == "end" || frame == "reset" || frame == "nothing")
            break;
        if (frame.substr(0, 3) == "88:") {
            received.hasCloseFrame = true;
            peer.send(frame.size() >= 5 ? closeFrame(1000) : frame);
            peer.close();
            break;
        }
        // "81:THREAD NUMBER and padding"
        const auto thread = static_cast<size_t>(frame[3] - '0');
        received.isInOrder = received.isInOrder && frame.substr(0, 3) == "81:" &&
                             thread < kThreads &&
                             std::stoi(frame.substr(5)) == received.next[thread]++;
        if (!received.isInOrder)
            break;
        if (dice() % 200 == 0)
            peer.send(::websockettests::frame(Opcode::Text, dice() % 8 == 0 ? "close" : "x"));
    }
    return received;
}

void perturb(std::mt19937& dice)
{
    if (dice() % 16 == 0)
        std::this_thread::yield();
    for (volatile unsigned i = dice() % 64; i > 0;)
        i = i - 1;
}

// Messages numbered per thread, in the order of the calls, until a close.
void act(std::vector<std::shared_ptr<Session>>& sessions,
         std::vector<std::shared_ptr<Modelled>>& models, size_t thread, unsigned seed,
         std::atomic<int>& wrong)
{
    std::mt19937 dice(seed);
    std::array<bool, kSessions> isClosed{};
    for (int i = 0; i < kMessages * static_cast<int>(kSessions); ++i) {
        perturb(dice);
        const size_t which = dice() % kSessions;
        Session& session = *sessions[which];
        Modelled& model = *models[which];
        if (dice() % 2000 == 0) {
            model.accepted += session.close(4000, "by a thread") ? 1 : 0;
            isClosed[which] = true;
            wrong += session.isOpen() ? 1 : 0;
            continue;
        }
        const std::string text = std::to_string(thread) + ' ' +
                                 std::to_string(model.queued[thread].load()) +
                                 std::string(dice() % 8 == 0 ? 20000 : dice() % 50, ' ');
        const SendResult result = session.sendText(text);
        if (result == SendResult::Queued)
            ++model.queued[thread];
        // Once closed it stays so, and nothing else is reported of a queue that is large enough.
        wrong += result == SendResult::Queued ? isClosed[which] : result != SendResult::Closed;
        isClosed[which] = isClosed[which] || result == SendResult::Closed;
    }
}

// A client that receives the close frame has all messages of all threads; one that does not has
// those that came first, in order.
TEST(SessionModel, HoldsForThreadsThatSendAndCloseDuringAStop)
{
    std::random_device device;
    for (int round = 0; round < 10; ++round) {
        const unsigned seed = device();
        SCOPED_TRACE(testing::Message() << "round " << round << ", seed " << seed);
        std::mt19937 dice(seed);
        auto options = std::make_shared<WebSocketOptions>();
        options->sendQueueBytes = size_t{1} << 30;
        std::mutex tasksMutex;
        std::vector<std::thread> tasks;
        if (round % 3 == 2) {
            options->executor = [&](std::function<void()> task) {
                const std::lock_guard<std::mutex> lock(tasksMutex);
                tasks.emplace_back(std::move(task));
                return true;
            };
        }
        Engine engine({2, uint64_t{1} << 32});
        std::vector<std::shared_ptr<Session>> sessions;
        std::vector<std::shared_ptr<Modelled>> models;
        std::vector<std::unique_ptr<Peer>> peers;
        for (size_t i = 0; i < kSessions; ++i) {
            const auto [server, client] = tcpPair(i % 2 == 0 ? 4096 : 0);
            ::fcntl(server, F_SETFL, O_NONBLOCK);
            models.push_back(std::make_shared<Modelled>());
            sessions.push_back(engine.open(
                std::make_unique<qv::UpgradedConnection>(server, "", qv::IpAddress(), nullptr), {},
                models.back(), options));
            peers.push_back(std::make_unique<Peer>(client));
        }
        std::atomic<int> wrong{0};
        std::vector<std::thread> senders;
        for (size_t t = 0; t < kThreads; ++t) {
            senders.emplace_back([&, t, own = dice()] { act(sessions, models, t, own, wrong); });
        }
        std::vector<Received> received(kSessions);
        std::vector<std::thread> receivers;
        for (size_t i = 0; i < kSessions; ++i) {
            receivers.emplace_back([&, i, own = dice()] {
                std::mt19937 clients(own);
                received[i] = receiveAll(*peers[i], clients);
            });
        }
        // Some rounds stop in the middle, some with a deadline that cuts messages off.
        const bool isCutOff = round % 4 == 3;
        ::poll(nullptr, 0, static_cast<int>(dice() % 40));
        const bool isClean = engine.shutDown(isCutOff ? milliseconds(dice() % 3) : kLimit);
        for (std::thread& sender : senders)
            sender.join();
        for (std::thread& receiver : receivers)
            receiver.join();
        for (std::thread& task : tasks)
            task.join();
        EXPECT_TRUE(isClean || isCutOff);
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(engine.sessionCount(), 0u);
        for (size_t i = 0; i < kSessions; ++i) {
            SCOPED_TRACE(i);
            const Modelled& model = *models[i];
            EXPECT_EQ(model.closes, 1);
            EXPECT_EQ(model.order, 0);
            EXPECT_LE(model.accepted, 1);
            EXPECT_EQ(sessions[i]->bufferedBytes(), 0u);
            EXPECT_TRUE(received[i].isInOrder);
            EXPECT_TRUE(received[i].hasCloseFrame || isCutOff);
            for (size_t t = 0; t < kThreads; ++t) {
                EXPECT_LE(received[i].next[t], model.queued[t]);
                EXPECT_TRUE(received[i].next[t] == model.queued[t] || !received[i].hasCloseFrame);
            }
        }
    }
}

}  // namespace

/// Very many clients on one thread, which do things that no good client does.
#ifndef WENDREL_TESTS_INTEGRATION_ADVERSARIAL_CROWD_H
#define WENDREL_TESTS_INTEGRATION_ADVERSARIAL_CROWD_H

#include "Metrics.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

namespace adversarial
{

/// One connection of a crowd.
struct Client
{
    enum State { Connecting, Open, Ended };

    int descriptor = -1;
    State state = Connecting;
    bool wasRefused = false;              ///< the connection did not come about
    bool wasReset = false;                ///< ended by the server's reset
    uint64_t sent = 0;                    ///< bytes that the socket took
    uint64_t received = 0;                ///< bytes that were read
    uint64_t receiveUpTo = ~uint64_t{0};  ///< no more bytes are read than these
    std::string text;                     ///< the bytes read, up to Crowd::kKeptBytes
    Clock::time_point opened;
    Clock::time_point lastSent;
    Clock::time_point ended;
    size_t number = 0;  ///< place in the crowd
    int role = 0;       ///< the test's own

    std::string pending;  ///< not yet sent; use Crowd::send
    uint32_t watched = 0;
};

/// Non-blocking connections to one port of 127.0.0.1, driven by `run`. They come from several
/// addresses of the loopback network, as one address has too few ports for tens of thousands.
class Crowd
{
public:
    static constexpr size_t kKeptBytes = 4096;

    enum class End { Reset, Close };

    explicit Crowd(uint16_t port);
    ~Crowd();
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    /// Begins to connect one more; with a receive buffer of this size unless 0.
    Client& open(int role = 0, int receiveBuffer = 0);

    /// Queues the bytes behind unsent ones and sends.
    void send(Client& client, std::string_view bytes);

    void finishSending(Client& client);

    /// Ends it from this side.
    void end(Client& client, End how);

    /// Applies a changed `receiveUpTo`.
    void update(Client& client);

    /// Called, if set, when something happened to a client: it was connected, bytes came or went,
    /// it has ended. Not for an end that the test itself has made.
    std::function<void(Client&)> onChange;

    /// Serves all sockets until the condition holds; false when the limit has passed first.
    bool run(const std::function<bool()>& until, milliseconds limit);

    /// Serves all sockets for this time.
    void runFor(milliseconds time);

    size_t count(Client::State state) const { return mCounts[state]; }

    /// Forgets those that have ended, for crowds that are renewed all the time.
    void forgetEnded();

    std::deque<Client>& clients() { return mClients; }

private:
    void setState(Client& client, Client::State state);
    void serve(Client& client, uint32_t events);
    void connected(Client& client);
    bool sendPending(Client& client);
    bool receive(Client& client);
    void ended(Client& client, bool byReset);
    void closeDescriptor(Client& client);

    const uint16_t mPort;
    int mPoll;
    size_t mOpened = 0;
    size_t mCounts[3] = {0, 0, 0};
    std::deque<Client> mClients;
};

}  // namespace adversarial

#endif

/// Clients that send requests while a server listens, and count the responses.
#ifndef WENDREL_TESTS_INTEGRATION_CLIENTS_H
#define WENDREL_TESTS_INTEGRATION_CLIENTS_H

#include "Round.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace integration
{

// The response bodies of both servers, for the clients to compare.

std::string smallBody(uint64_t id);
std::string uploadBody(uint64_t id, const std::string& body);
std::string streamBody(uint64_t id);

/// Threads that live as long as the test, so that the server's are the only ones that come and
/// go. Between two rounds they stand still and hold no descriptor.
class Clients
{
public:
    static constexpr unsigned kTalkers = 3;

    Clients();
    ~Clients();
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

    /// Sends all of them to the server of this round, which must outlive their part of it.
    void begin(Round& round);

    /// Waits until all of them stand still; they do when the round has ended.
    bool waitUntilIdle();

private:
    using Behaviour = void (*)(Round& round, uint32_t dice);

    void live(Behaviour behaviour, uint32_t seed);

    std::mutex mMutex;  // guards all below but the threads
    std::condition_variable mChanged;
    Round* mRound = nullptr;
    uint64_t mRounds = 0;
    size_t mBusy = 0;
    bool mEnded = false;
    std::vector<std::thread> mThreads;
};

}  // namespace integration

#endif

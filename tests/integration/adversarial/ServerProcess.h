/// The server under attack in a process of its own, and looks at it from outside.
#ifndef WENDREL_TESTS_INTEGRATION_ADVERSARIAL_SERVERPROCESS_H
#define WENDREL_TESTS_INTEGRATION_ADVERSARIAL_SERVERPROCESS_H

#include "Metrics.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace adversarial
{

/// The resources of a process.
struct Footprint
{
    size_t descriptors = 0;
    size_t threads = 0;
    size_t residentBytes = 0;
};

/// The server's reply: names and numbers.
using Report = std::map<std::string, uint64_t>;

/// One process of adversarial_server; see there for its arguments and orders.
class ServerProcess
{
public:
    /// `arguments` as "name=value". Waits until the server listens.
    explicit ServerProcess(const std::vector<std::string>& arguments = {});

    /// Ends the process, by force if it was not stopped.
    ~ServerProcess();

    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    uint16_t port() const { return mPort; }

    /// Has it give back the memory that it holds for nothing, then looks.
    Footprint footprint();

    /// The same, after all connections have closed.
    Footprint quietFootprint();

    size_t descriptors() const;

    /// One order whose reply is one line.
    Report ask(const std::string& order);

    Report metrics() { return ask("metrics"); }

    /// Error text of the response device to number, for each kind of request that has ended.
    std::map<std::string, uint64_t> endings();

    /// Stops the server as its application would, giving requests this long. Expects that the
    /// process ends well; with sanitizers that is without a report of theirs.
    Report stop(milliseconds limit);

    /// The exit code; minus the number of the signal that has ended it; none when it does not end.
    std::optional<int> waitForEnd(milliseconds limit);

    /// Waits until descriptors and threads are as they were and no request is open, and expects
    /// memory within `toleratedBytes` of `before`.
    void expectAsBefore(const Footprint& before, size_t toleratedBytes);

private:
    std::string readLine(milliseconds limit);

    pid_t mProcess = -1;
    int mOrders = -1;
    int mReplies = -1;
    uint16_t mPort = 0;
    size_t mFirstDescriptors = 0;
    std::string mUnread;
    std::optional<int> mEnd;
};

}  // namespace adversarial

#endif

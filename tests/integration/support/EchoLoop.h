/// Echoes the bytes that the peers of upgraded connections send.
#ifndef WENDREL_TESTS_INTEGRATION_ECHOLOOP_H
#define WENDREL_TESTS_INTEGRATION_ECHOLOOP_H

#include <Wendrel/UpgradedConnection.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace integration
{

/// One thread for all connections. A connection is destroyed when its peer has ended it, or with
/// the loop.
class EchoLoop
{
public:
    EchoLoop();
    ~EchoLoop();
    EchoLoop(const EchoLoop&) = delete;
    EchoLoop& operator=(const EchoLoop&) = delete;

    /// Any thread; does not wait.
    void add(std::unique_ptr<qv::UpgradedConnection> connection);

    /// Connections that have not ended.
    size_t count() const;

private:
    using Connection = std::unique_ptr<qv::UpgradedConnection>;

    void run();
    void takeAdded();
    void echo(int descriptor);

    int mEpoll = -1;
    int mWake = -1;
    mutable std::mutex mMutex;  // guards the four below
    std::vector<Connection> mAdded;
    std::map<int, Connection> mConnections;
    bool mEnding = false;
    std::thread mThread;  // last: it uses the others
};

}  // namespace integration

#endif

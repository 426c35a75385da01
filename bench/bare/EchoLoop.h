// The threads that drive upgraded connections.
#ifndef BENCH_BARE_ECHOLOOP_H
#define BENCH_BARE_ECHOLOOP_H

#include "bare/EchoConnection.h"

#include <poll.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace bench
{

// One thread polls the connections that are idle and hands those that are not to workers, which
// give them back. Each connection is in one place at a time.
class EchoLoop
{
public:
    explicit EchoLoop(unsigned workers);
    ~EchoLoop();
    EchoLoop(const EchoLoop&) = delete;
    EchoLoop& operator=(const EchoLoop&) = delete;

    // Takes an upgraded connection; closes it when the loop has been stopped. Any thread.
    void add(int socket, MHD_UpgradeResponseHandle* handle);

    // Ends the threads and closes all connections. Call it before the daemon is stopped.
    void stop();

private:
    using Connection = std::unique_ptr<EchoConnection>;

    void giveBack(Connection connection);
    void poll();
    bool collect();
    void handOverReady();
    Connection takeReady();
    void work();

    int mWakeUp;                    // readable when connections were returned to the poll thread
    std::vector<Connection> mIdle;  // the poll thread's
    std::vector<pollfd> mPolled;    // the same, after an entry for mWakeUp

    std::mutex mBackMutex;
    std::vector<Connection> mBack;
    bool mWoken = false;
    bool mStopping = false;

    std::mutex mReadyMutex;
    std::condition_variable mReadyArrived;
    std::deque<Connection> mReady;
    bool mWorkersEnd = false;

    std::vector<std::thread> mWorkers;
    std::thread mPollThread;
};

}  // namespace bench

#endif

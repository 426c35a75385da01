// wendrel-bench-websocket-client: measures the rate of echoes.

#include "client/Connection.h"
#include "client/Options.h"
#include "client/Tally.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <iostream>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace bench::client;

constexpr double kWarmUpPart = 0.2;
// For all to connect, and after the end for the last echoes.
constexpr std::chrono::seconds kTimeout(10);

template <typename Stream>
Awaitable<void> openInto(Connection<Stream>& connection, std::vector<Connection<Stream>*>& open)
{
    const bool isOpen = co_await connection.open();
    if (isOpen)
        open.push_back(&connection);
}

// The connections of one thread.
template <typename Stream> class Group
{
public:
    Group(const Options& options, size_t connections)
    {
        for (size_t i = 0; i < connections; ++i)
            mConnections.emplace_back(mContext, options, mTally);
    }

    // Returns when all are open or have failed.
    void open()
    {
        for (Connection<Stream>& connection : mConnections)
            boost::asio::co_spawn(mContext, openInto(connection, mOpen), boost::asio::detached);
        runUntil(Clock::now() + kTimeout, "opening the connections");
    }

    void run(Period period)
    {
        for (Connection<Stream>* connection : mOpen)
            boost::asio::co_spawn(mContext, connection->run(period), boost::asio::detached);
        runUntil(period.end + kTimeout, "waiting for echoes");
    }

    const Tally& getTally() const { return mTally; }

private:
    // A longer wait is aborted, and is an error.
    void runUntil(Clock::time_point limit, const char* what)
    {
        mContext.restart();
        mContext.run_until(limit);
        if (mContext.stopped())
            return;
        mTally.addError(std::string(what) + " took too long");
        for (Connection<Stream>& connection : mConnections)
            connection.cancel();
        mContext.run();
    }

    boost::asio::io_context mContext{1};
    Tally mTally;
    std::list<Connection<Stream>> mConnections;
    std::vector<Connection<Stream>*> mOpen;
};

template <typename Stream, typename Action>
void onThreads(std::list<Group<Stream>>& groups, Action action)
{
    std::vector<std::thread> threads;
    for (Group<Stream>& group : groups)
        threads.emplace_back([&group, action] { action(group); });
    for (std::thread& thread : threads)
        thread.join();
}

Period periodFromNow(double seconds)
{
    const auto duration = [](double count) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(count));
    };
    const Clock::time_point begin = Clock::now() + duration(kWarmUpPart * seconds);
    return {begin, begin + duration(seconds)};
}

template <typename Stream> Tally measure(const Options& options)
{
    std::list<Group<Stream>> groups;
    for (unsigned i = 0; i < options.threads; ++i)
        groups.emplace_back(options, (options.connections + i) / options.threads);

    onThreads(groups, [](Group<Stream>& group) { group.open(); });
    const Period period = periodFromNow(options.seconds);
    onThreads(groups, [period](Group<Stream>& group) { group.run(period); });

    Tally all;
    for (const Group<Stream>& group : groups)
        all.merge(group.getTally());
    return all;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    int exitCode = 0;
    if (!parseOptions(argc, argv, options, exitCode))
        return exitCode;
    Tally all = options.tls ? measure<SecureSocket>(options) : measure<Socket>(options);
    std::cout << all.report(options.seconds) << std::endl;
    return all.isGood() ? 0 : 1;
}

/// A daemon without sockets: connections that take turns on its thread, each with one request
/// after the other, driven through the library's real callbacks.
#ifndef WENDREL_TESTS_STRESS_SMALLDAEMON_H
#define WENDREL_TESTS_STRESS_SMALLDAEMON_H

#include "Dice.h"
#include "Plan.h"
#include "RunRecord.h"

#include <microhttpd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <vector>

namespace qv
{
class HttpBaseRequest;
namespace http
{
class HttpServer;
}
}  // namespace qv

/// Belongs to the queueing call that gets it.
struct MHD_Response
{
    uint64_t size = 0;
    MHD_ContentReaderCallback reader = nullptr;  // null: a buffer
    void* closure = nullptr;
    std::vector<char> body;
};

struct MHD_Connection
{
    stress::Plan plan;
    void* slot = nullptr;
    uint64_t turns = 0;
    uint64_t got = 0;
    bool isBusy = false;
    bool isQueued = false;
    unsigned int status = 0;
    MHD_Response response;
};

namespace stress
{

/// One thread of the daemon.
class SmallDaemon
{
public:
    /// Everything that the threads share.
    struct Shared
    {
        qv::http::HttpServer& server;
        RunRecord& record;
        const BodySource& source;
        uint64_t seed;
    };

    SmallDaemon(const Shared& shared, uint64_t number);

    /// Serves requests until no more may be begun and those of its connections have been completed
    /// and those left to it have been deleted. The body of a thread.
    void run();

    /// The plan of the request that is being made. Thread: the daemon's, in createRequest.
    static const Plan& CurrentPlan();

    /// Leaves the deletion of a request to the daemon's thread. Thread: the daemon's, in
    /// handleRequest.
    static void LeaveToCurrent(std::function<bool()> deleteIfDone);

private:
    bool turn(MHD_Connection& connection);
    bool begin(MHD_Connection& connection);
    bool ask(MHD_Connection& connection);
    bool fetch(MHD_Connection& connection);
    void finishWhole(MHD_Connection& connection);
    size_t requestedBytes(const MHD_Connection& connection);
    void take(MHD_Connection& connection, const char* data, size_t size);
    void complete(MHD_Connection& connection, uint32_t code, Outcome outcome);
    bool deleteDone();

    const Shared mShared;
    Dice mDice;
    std::vector<char> mBuffer;
    std::vector<MHD_Connection> mConnections;
    std::list<std::function<bool()>> mDeletions;
};

}  // namespace stress

#endif

/// One life of a server under load: the record of each request on both sides.
#ifndef WENDREL_TESTS_INTEGRATION_ROUND_H
#define WENDREL_TESTS_INTEGRATION_ROUND_H

#include "../support/Waiting.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace qv
{
class HttpBaseRequest;
}

namespace integration
{

/// The progress of a response at the moment before the stop was asked for. Only a response that was
/// handed over must reach the client; a response in an earlier stage may be lost.
enum class Stage : uint8_t {
    NotReached,  ///< the request came later, or no worker had begun with it
    InWork,      ///< its worker had not finished
    Announced,   ///< its worker had finished; the daemon had not checked for the response since
    Queued,      ///< and the daemon had queued it, but was not done with it
    HandedOver,  ///< and the daemon had handed it to the kernel, all of it, and completed it
    Broken       ///< its connection had been lost, by an earlier stop
};

constexpr size_t kStages = 6;

/// One request, known to both sides by its number.
struct Record
{
    std::atomic<uint8_t> begun{0};        ///< by a worker
    std::atomic<uint8_t> finished{0};     ///< by its worker, with a complete response
    std::atomic<bool> isFollowed{false};  ///< its object is known; the next two count only then
    std::atomic<uint8_t> deleted{0};      ///< by the server
    std::atomic<uint8_t> endedWell{0};    ///< without error of the device
    std::atomic<uint8_t> responses{0};    ///< complete, at the client
    std::atomic<uint8_t> refusals{0};     ///< 503, at the client
    std::atomic<Stage> stage{Stage::NotReached};
    std::atomic<bool> isStream{false};
};

/// Shared by the server, its clients and the test of one round. Any thread.
class Round
{
public:
    Round(uint16_t port, unsigned number);

    const uint16_t port;
    const unsigned number;

    // The server's side.

    /// A request has been made; called with the object that the daemon is given.
    void opened(qv::HttpBaseRequest* request);

    /// A worker begins with it.
    Record& begun(qv::HttpBaseRequest* request, uint64_t id);

    /// The same of a server that keeps its requests to itself: neither their ends nor the stage of
    /// their responses are known, and `noteCreated` tells how many there were.
    Record& begun(uint64_t id);
    void noteCreated(uint64_t requests) { mCreated = requests; }

    /// It is being deleted, its devices are still there. By then it must be completed.
    void deleted(qv::HttpBaseRequest* request);

    /// Notes how far every request has come. Call right before the stop is asked for.
    void askStop();

    /// A stopped server has been started again.
    void goOn();

    // The clients' side.

    uint64_t newId() { return mNextId++; }
    Record& record(uint64_t id) { return mRecords[id % kRecords]; }

    /// No server will listen any more.
    void end();
    bool hasEnded() const { return mEnded; }

    bool isStopAsked() const { return mStopAsked; }

    /// Waits for the order to stop; false after the limit.
    bool waitForStop();

    void waitForEnd();

    /// Waits a moment for a server that does not listen.
    void waitForServer();

    std::atomic<bool> isLeaving{false};  ///< it has refused a request
    std::atomic<uint64_t> responses{0};
    std::atomic<uint64_t> streaming{0};  ///< streams that clients are reading
    std::atomic<uint64_t> echoes{0};
    std::atomic<uint64_t> quiet{0};        ///< clients with an open WebSocket that say nothing more
    std::atomic<uint64_t> halfUploads{0};  ///< uploads that wait for the order to stop
    std::atomic<bool> hasWebSockets{false};
    std::atomic<bool> talksOn{false};          ///< until the stop ends it
    std::atomic<bool> holdsUploads{false};     ///< a client is to make one
    std::atomic<bool> finishesUploads{false};  ///< and to send the rest when the order has come

    // Errors on either side.

    void addError(const std::string& what);
    std::vector<std::string> errors() const;

    // When all is over.

    uint64_t created() const { return mCreated; }
    size_t openCount() const;
    const std::vector<Record>& records() const { return mRecords; }
    uint64_t ids() const { return mNextId; }

private:
    static constexpr size_t kRecords = 32768;

    static Stage StageOf(qv::HttpBaseRequest& request, const Record& record);

    std::vector<Record> mRecords;
    std::atomic<uint64_t> mNextId{0};
    std::atomic<uint64_t> mCreated{0};
    std::atomic<bool> mEnded{false};
    std::atomic<bool> mStopAsked{false};
    mutable std::mutex mMutex;  // guards the fields below
    std::condition_variable mChanged;
    std::unordered_map<qv::HttpBaseRequest*, Record*> mOpen;  // null: no worker yet
    std::vector<std::string> mErrors;
};

/// The totals of all rounds.
class Totals
{
public:
    /// Checks one finished round. `losesNothing`: the server promised a response to each request.
    void add(const Round& round, bool losesNothing);

    void print(const std::string& prefix) const;

private:
    struct Count
    {
        uint64_t all = 0;
        uint64_t lost = 0;
    };

    using Counts = std::array<Count, kStages>;

    void check(const Record& record, uint64_t id, bool losesNothing);
    static void printCounts(const std::string& prefix, const Counts& counts);

    Counts mSmall{};
    Counts mStreams{};
    uint64_t mRequests = 0;
    uint64_t mResponses = 0;
    uint64_t mResponsesThoughCutOff = 0;
    uint64_t mEchoes = 0;
    uint64_t mRefusals = 0;
    uint64_t mHalfUploads = 0;
};

void printMetric(const std::string& name, uint64_t value, const char* unit);

}  // namespace integration

#endif

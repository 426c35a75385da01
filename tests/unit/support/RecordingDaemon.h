// A fake of the daemon: defines every MHD_ function that the library calls, behaves as the test
// demands and records the calls. A program that links it does not link libmicrohttpd.
#ifndef WENDREL_TESTS_RECORDINGDAEMON_H
#define WENDREL_TESTS_RECORDINGDAEMON_H

#include <microhttpd.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <netinet/in.h>

// One request as the daemon has parsed it. Filled by the test.
struct MHD_Daemon
{
    int listener = -1;
};

struct MHD_Connection
{
    struct Value
    {
        MHD_ValueKind kind;
        std::optional<std::string> name;  // without: null
        std::optional<std::string> value;
    };

    void add(MHD_ValueKind kind, std::optional<std::string> name, std::optional<std::string> value)
    {
        values.push_back({kind, std::move(name), std::move(value)});
    }

    void setClient(const char* ipv4, uint16_t port);

    // The walk offers them in this order; a look-up gives the first one.
    std::vector<Value> values;
    bool hasInfo = true;     // otherwise MHD_get_connection_info gives null
    bool hasClient = false;  // otherwise the information holds a null address
    sockaddr_in client{};
    MHD_Daemon daemon;  // that of its pool thread: never the one that was started
    MHD_ConnectionInfo info{};
};

// A response the library made. Stays readable after it has been destroyed.
struct MHD_Response
{
    enum Kind { Buffer, Callback, Upgrade };

    Kind kind = Buffer;

    // Buffer: the bytes as they were when the response was made, and where they stood.
    std::string body;
    const void* bodyAddress = nullptr;
    MHD_ResponseMemoryMode mode = MHD_RESPMEM_PERSISTENT;

    // Callback.
    uint64_t size = 0;
    size_t blockSize = 0;
    MHD_ContentReaderCallback reader = nullptr;
    MHD_ContentReaderFreeCallback free = nullptr;  // also of a buffer that is lent

    // Upgrade.
    MHD_UpgradeHandler upgrade = nullptr;

    void* closure = nullptr;  // of the reader or the upgrade handler
    std::vector<std::pair<std::string, std::string>> headers;
    std::vector<std::pair<MHD_Connection*, unsigned int>> queued;  // with which status
    int destroyed = 0;
    bool isHeld = false;  // by a connection: what is lent is released with the fake
    unsigned flags = 0;   // of MHD_set_response_options
};

namespace qv::tests
{

// At most one at a time; without one only MHD_get_version may be called. Its destructor
// demands that each response has been destroyed exactly once.
class RecordingDaemon
{
public:
    // One option of MHD_start_daemon, read with the types the real daemon reads it with.
    struct Option
    {
        int number = 0;
        std::string type;    // "size_t", "unsigned int", "int", "sockaddr", "functions", "end"
        uint64_t value = 0;  // of the integer types; two's complement
        void (*function)() = nullptr;
        void* closure = nullptr;
        sockaddr_in address{};  // copied while the call was going on
    };

    struct Start
    {
        unsigned int flags = 0;
        uint16_t port = 0;
        MHD_AcceptPolicyCallback accept = nullptr;
        void* acceptClosure = nullptr;
        MHD_AccessHandlerCallback handler = nullptr;
        void* handlerClosure = nullptr;
        std::vector<Option> options;
        MHD_Daemon* daemon = nullptr;  // the returned daemon

        const Option* find(int number) const;
    };

    RecordingDaemon();
    ~RecordingDaemon();
    RecordingDaemon(const RecordingDaemon&) = delete;
    RecordingDaemon& operator=(const RecordingDaemon&) = delete;

    // A new connection; lives as long as the fake.
    MHD_Connection& connection();

    // The features that MHD_is_feature_supported reports; by default poll and epoll.
    void setFeatures(std::set<MHD_FEATURE> features);

    // From now on the function named `function` ("MHD_queue_response") refuses: it returns
    // null, MHD_NO or, for the walk, 0 without offering anything.
    void fail(const std::string& function);

    // Asked at each call that would not refuse otherwise, on its thread: true makes this one
    // refuse. Makes the Nth call fail.
    void refuseWhen(std::function<bool(const std::string& function)> decide);

    // Called at the beginning of each call of `function`, on its thread.
    void onCall(const std::string& function, std::function<void()> hook);

    // Adds a line of the test's own to the record.
    void record(const std::string& line);

    // The calls so far, one line a call: "MHD_queue_response 200".
    std::vector<std::string> calls() const;
    std::vector<std::string> callsOf(const std::string& function) const;
    void clearCalls();

    std::vector<Start> starts() const;
    std::vector<MHD_Daemon*> stops() const;
    size_t responseCount() const;
    const MHD_Response& response(size_t index) const;

    // The handles of the upgraded connections that the library had closed, in order.
    std::vector<const MHD_UpgradeResponseHandle*> closedHandles() const;

    // Whether a value iterator has asked for the end of a walk.
    bool walkWasStopped() const;

    // For the MHD_ functions.
    static RecordingDaemon& Current();
    bool enter(const std::string& function, const std::string& details);  // false: refuse
    bool supports(MHD_FEATURE feature) const;
    MHD_Daemon* takeStart(Start start, bool refuse);
    void takeStop(MHD_Daemon* daemon);
    MHD_Response* takeResponse(std::unique_ptr<MHD_Response> response);
    bool isUsable(const MHD_Response* response, const char* function) const;
    void takeHeader(MHD_Response* response, const char* name, const char* value);
    void takeQueued(MHD_Connection* connection, unsigned int status, MHD_Response* response);
    void takeFlags(MHD_Response* response, unsigned flags);
    void takeHeld(MHD_Response* response);
    void takeDestroyed(MHD_Response* response);
    void takeWalkStopped();
    void takeClosed(const MHD_UpgradeResponseHandle* handle);

private:
    mutable std::mutex mMutex;  // guards all below
    std::vector<std::string> mCalls;
    std::set<MHD_FEATURE> mFeatures{MHD_FEATURE_POLL, MHD_FEATURE_EPOLL};
    std::set<std::string> mFailing;
    std::function<bool(const std::string&)> mDecide;
    std::map<std::string, std::function<void()>> mHooks;
    std::vector<Start> mStarts;
    std::vector<MHD_Daemon*> mStops;
    std::deque<MHD_Connection> mConnections;
    std::vector<std::unique_ptr<MHD_Response>> mResponses;
    std::vector<const MHD_UpgradeResponseHandle*> mClosedHandles;
    bool mWalkStopped = false;
};

}  // namespace qv::tests

#endif

// The MHD_ functions, and their call record.

#include "support/RecordingDaemon.h"

#include "support/TestsOwn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <strings.h>

namespace
{

std::atomic<qv::tests::RecordingDaemon*> gCurrent{nullptr};
MHD_Daemon gDaemons[64];

MHD_Daemon* startedDaemon(size_t index)
{
    constexpr int kFirstListener = 1000;
    gDaemons[index].listener = kFirstListener + static_cast<int>(index);
    return &gDaemons[index];
}

const char* ModeName(MHD_ResponseMemoryMode mode)
{
    switch (mode) {
    case MHD_RESPMEM_PERSISTENT:
        return "PERSISTENT";
    case MHD_RESPMEM_MUST_FREE:
        return "MUST_FREE";
    case MHD_RESPMEM_MUST_COPY:
        return "MUST_COPY";
    }
    return "?";
}

const char* Text(const std::optional<std::string>& text)
{
    return text ? text->c_str() : nullptr;
}

}  // namespace

void MHD_Connection::setClient(const char* ipv4, uint16_t port)
{
    hasClient = true;
    client.sin_family = AF_INET;
    client.sin_port = htons(port);
    ASSERT_EQ(inet_pton(AF_INET, ipv4, &client.sin_addr), 1);
}

namespace qv::tests
{

const RecordingDaemon::Option* RecordingDaemon::Start::find(int number) const
{
    for (const Option& option : options)
        if (option.number == number)
            return &option;
    return nullptr;
}

// Gives lent memory back, as the daemon does with the last use of a response.
static void release(MHD_Response& response)
{
    if (response.kind != MHD_Response::Buffer || response.free == nullptr)
        return;
    response.free(response.closure);
    response.free = nullptr;
}

RecordingDaemon::RecordingDaemon()
{
    if (gCurrent.exchange(this) != nullptr) {
        std::fprintf(stderr, "RecordingDaemon: there is one already\n");
        std::abort();
    }
}

RecordingDaemon::~RecordingDaemon()
{
    gCurrent = nullptr;
    for (size_t i = 0; i < mResponses.size(); ++i)
        EXPECT_EQ(mResponses[i]->destroyed, 1) << "times that response " << i << " was destroyed";
    for (const auto& response : mResponses)
        release(*response);
}

RecordingDaemon& RecordingDaemon::Current()
{
    RecordingDaemon* current = gCurrent;
    if (current == nullptr) {
        std::fprintf(stderr, "RecordingDaemon: the daemon was called without a test\n");
        std::abort();
    }
    return *current;
}

MHD_Connection& RecordingDaemon::connection()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mConnections.emplace_back();
}

void RecordingDaemon::setFeatures(std::set<MHD_FEATURE> features)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mFeatures = std::move(features);
}

void RecordingDaemon::fail(const std::string& function)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mFailing.insert(function);
}

void RecordingDaemon::refuseWhen(std::function<bool(const std::string& function)> decide)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mDecide = std::move(decide);
}

void RecordingDaemon::onCall(const std::string& function, std::function<void()> hook)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mHooks[function] = std::move(hook);
}

void RecordingDaemon::record(const std::string& line)
{
    const TestsOwn own;
    std::lock_guard<std::mutex> lock(mMutex);
    mCalls.push_back(line);
}

std::vector<std::string> RecordingDaemon::calls() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCalls;
}

std::vector<std::string> RecordingDaemon::callsOf(const std::string& function) const
{
    std::vector<std::string> found;
    for (const std::string& call : calls())
        if (call.substr(0, call.find(' ')) == function)
            found.push_back(call);
    return found;
}

void RecordingDaemon::clearCalls()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCalls.clear();
}

std::vector<RecordingDaemon::Start> RecordingDaemon::starts() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mStarts;
}

std::vector<MHD_Daemon*> RecordingDaemon::stops() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mStops;
}

size_t RecordingDaemon::responseCount() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mResponses.size();
}

const MHD_Response& RecordingDaemon::response(size_t index) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return *mResponses.at(index);
}

std::vector<const MHD_UpgradeResponseHandle*> RecordingDaemon::closedHandles() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mClosedHandles;
}

bool RecordingDaemon::walkWasStopped() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mWalkStopped;
}

bool RecordingDaemon::enter(const std::string& function, const std::string& details)
{
    std::function<void()> hook;
    std::function<bool(const std::string&)> decide;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back(details.empty() ? function : function + " " + details);
        const auto found = mHooks.find(function);
        if (found != mHooks.end())
            hook = found->second;
        decide = mDecide;
    }
    if (hook)
        hook();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mFailing.count(function) != 0)
            return false;
    }
    return !decide || !decide(function);
}

bool RecordingDaemon::supports(MHD_FEATURE feature) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mFeatures.count(feature) != 0;
}

MHD_Daemon* RecordingDaemon::takeStart(Start start, bool refuse)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!refuse)
        start.daemon = startedDaemon(mStarts.size() % std::size(gDaemons));
    mStarts.push_back(std::move(start));
    return mStarts.back().daemon;
}

void RecordingDaemon::takeStop(MHD_Daemon* daemon)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mStops.push_back(daemon);
}

MHD_Response* RecordingDaemon::takeResponse(std::unique_ptr<MHD_Response> response)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mResponses.push_back(std::move(response));
    return mResponses.back().get();
}

bool RecordingDaemon::isUsable(const MHD_Response* response, const char* function) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& known : mResponses) {
        if (known.get() != response)
            continue;
        EXPECT_EQ(known->destroyed, 0) << function << " on a destroyed response";
        return true;
    }
    ADD_FAILURE() << function << " on a response that was never made";
    return false;
}

void RecordingDaemon::takeHeader(MHD_Response* response, const char* name, const char* value)
{
    std::lock_guard<std::mutex> lock(mMutex);
    response->headers.emplace_back(name, value);
}

void RecordingDaemon::takeQueued(MHD_Connection* connection, unsigned int status,
                                 MHD_Response* response)
{
    std::lock_guard<std::mutex> lock(mMutex);
    response->queued.emplace_back(connection, status);
}

void RecordingDaemon::takeDestroyed(MHD_Response* response)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++response->destroyed;
    }
    if (!response->isHeld)
        release(*response);
}

void RecordingDaemon::takeHeld(MHD_Response* response)
{
    std::lock_guard<std::mutex> lock(mMutex);
    response->isHeld = true;
}

void RecordingDaemon::takeFlags(MHD_Response* response, unsigned flags)
{
    std::lock_guard<std::mutex> lock(mMutex);
    response->flags = flags;
}

void RecordingDaemon::takeWalkStopped()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mWalkStopped = true;
}

void RecordingDaemon::takeClosed(const MHD_UpgradeResponseHandle* handle)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mClosedHandles.push_back(handle);
}

namespace
{

// One call of the library.
class Call
{
public:
    Call(const char* function, const std::string& details)
        : mDaemon(RecordingDaemon::Current()), mAllowed(mDaemon.enter(function, details))
    {}

    RecordingDaemon* operator->() const { return &mDaemon; }
    bool isAllowed() const { return mAllowed; }

private:
    RecordingDaemon& mDaemon;
    bool mAllowed;
};

template <typename Integer>
void SetInteger(RecordingDaemon::Option& option, const char* type, Integer value)
{
    option.type = type;
    option.value = static_cast<uint64_t>(value);
}

void ReadFunctions(RecordingDaemon::Option& option, va_list& arguments)
{
    option.type = "functions";
    option.function = va_arg(arguments, void (*)());
    option.closure = va_arg(arguments, void*);
}

// Reads the arguments behind the number of one option. False: nothing more can be read.
bool ReadOption(RecordingDaemon::Option& option, va_list& arguments)
{
    switch (option.number) {
    case MHD_OPTION_END:
        option.type = "end";
        return false;
    case MHD_OPTION_CONNECTION_MEMORY_LIMIT:
        SetInteger(option, "size_t", va_arg(arguments, size_t));
        return true;
    case MHD_OPTION_CONNECTION_TIMEOUT:
    case MHD_OPTION_THREAD_POOL_SIZE:
    case MHD_OPTION_LISTEN_BACKLOG_SIZE:
        SetInteger(option, "unsigned int", va_arg(arguments, unsigned int));
        return true;
    case MHD_OPTION_STRICT_FOR_CLIENT:
        SetInteger(option, "int", va_arg(arguments, int));
        return true;
    case MHD_OPTION_SOCK_ADDR:
        option.type = "sockaddr";
        std::memcpy(&option.address, va_arg(arguments, const sockaddr*), sizeof option.address);
        return true;
    case MHD_OPTION_EXTERNAL_LOGGER:
    case MHD_OPTION_URI_LOG_CALLBACK:
    case MHD_OPTION_NOTIFY_COMPLETED:
        ReadFunctions(option, arguments);
        return true;
    default:
        ADD_FAILURE() << "option " << option.number << " is not one of the server's";
        option.type = "unknown";
        return false;
    }
}

}  // namespace

}  // namespace qv::tests

using qv::tests::Call;
using qv::tests::RecordingDaemon;

extern "C" {

const char* MHD_get_version(void)
{
    return "0.0.0 (fake)";
}

MHD_Result MHD_is_feature_supported(MHD_FEATURE feature)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_is_feature_supported", std::to_string(feature));
    return call.isAllowed() && call->supports(feature) ? MHD_YES : MHD_NO;
}

MHD_Daemon* MHD_start_daemon(unsigned int flags, uint16_t port, MHD_AcceptPolicyCallback apc,
                             void* apc_cls, MHD_AccessHandlerCallback dh, void* dh_cls, ...)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_start_daemon", "");
    RecordingDaemon::Start start;
    start.flags = flags;
    start.port = port;
    start.accept = apc;
    start.acceptClosure = apc_cls;
    start.handler = dh;
    start.handlerClosure = dh_cls;

    va_list arguments;
    va_start(arguments, dh_cls);
    for (bool more = true; more;) {
        RecordingDaemon::Option option;
        option.number = va_arg(arguments, int);
        more = qv::tests::ReadOption(option, arguments);
        start.options.push_back(option);
    }
    va_end(arguments);
    return call->takeStart(std::move(start), !call.isAllowed());
}

void MHD_stop_daemon(MHD_Daemon* daemon)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_stop_daemon", "");
    call->takeStop(daemon);
}

MHD_Result MHD_add_connection(MHD_Daemon*, MHD_socket client, const sockaddr*, socklen_t)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_add_connection", std::to_string(client));
    return call.isAllowed() ? MHD_YES : MHD_NO;
}

void MHD_suspend_connection(MHD_Connection*)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_suspend_connection", "");
}

void MHD_resume_connection(MHD_Connection*)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_resume_connection", "");
}

const char* MHD_lookup_connection_value(MHD_Connection* connection, MHD_ValueKind kind,
                                        const char* key)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_lookup_connection_value", std::to_string(kind) + " " + key);
    if (!call.isAllowed())
        return nullptr;
    for (const auto& value : connection->values)
        if ((value.kind & kind) != 0 && value.name && strcasecmp(value.name->c_str(), key) == 0)
            return Text(value.value);
    return nullptr;
}

int MHD_get_connection_values(MHD_Connection* connection, MHD_ValueKind kind,
                              MHD_KeyValueIterator iterator, void* iterator_cls)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_get_connection_values", std::to_string(kind));
    if (!call.isAllowed())
        return 0;
    int count = 0;
    for (const auto& value : connection->values) {
        if ((value.kind & kind) == 0)
            continue;
        ++count;
        // The daemon passes memory that it frees after the request, and so does the fake.
        const auto name = value.name;
        const auto text = value.value;
        const qv::tests::LibrarysOwn librarys;
        if (iterator(iterator_cls, value.kind, Text(name), Text(text)) != MHD_YES) {
            call->takeWalkStopped();
            break;
        }
    }
    return count;
}

// Of strict mode, whose positions a fake does not have.
int MHD_get_connection_values_n(MHD_Connection*, MHD_ValueKind kind, MHD_KeyValueIteratorN, void*)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_get_connection_values_n", std::to_string(kind));
    return 0;
}

MHD_Result MHD_run(MHD_Daemon*)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_run", "");
    return call.isAllowed() ? MHD_YES : MHD_NO;
}

const MHD_ConnectionInfo* MHD_get_connection_info(MHD_Connection* connection,
                                                  MHD_ConnectionInfoType info_type, ...)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_get_connection_info", std::to_string(info_type));
    if (!call.isAllowed() || !connection->hasInfo)
        return nullptr;
    if (info_type == MHD_CONNECTION_INFO_DAEMON) {
        connection->info.daemon = &connection->daemon;
        return &connection->info;
    }
    if (info_type != MHD_CONNECTION_INFO_CLIENT_ADDRESS) {
        ADD_FAILURE() << "information " << info_type << " is not one the library needs";
        return nullptr;
    }
    connection->info.client_addr =
        connection->hasClient ? reinterpret_cast<sockaddr*>(&connection->client) : nullptr;
    return &connection->info;
}

const MHD_DaemonInfo* MHD_get_daemon_info(MHD_Daemon* daemon, MHD_DaemonInfoType info_type, ...)
{
    const qv::tests::TestsOwn own;
    static thread_local MHD_DaemonInfo info;
    const Call call("MHD_get_daemon_info", std::to_string(info_type));
    if (!call.isAllowed())
        return nullptr;
    if (info_type != MHD_DAEMON_INFO_LISTEN_FD) {
        ADD_FAILURE() << "information " << info_type << " is not one the library needs";
        return nullptr;
    }
    info.listen_fd = daemon->listener;
    return &info;
}

MHD_Response* MHD_create_response_from_buffer(size_t size, void* buffer,
                                              MHD_ResponseMemoryMode mode)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_create_response_from_buffer", std::to_string(size) + " " + ModeName(mode));
    if (!call.isAllowed())
        return nullptr;
    auto response = std::make_unique<MHD_Response>();
    response->kind = MHD_Response::Buffer;
    response->size = size;
    response->bodyAddress = buffer;
    response->mode = mode;
    if (size != 0)
        response->body.assign(static_cast<const char*>(buffer), size);
    return call->takeResponse(std::move(response));
}

MHD_Response* MHD_create_response_from_buffer_with_free_callback_cls(
    size_t size, void* buffer, MHD_ContentReaderFreeCallback crfc, void* crfc_cls)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_create_response_from_buffer_with_free_callback_cls", std::to_string(size));
    if (!call.isAllowed())
        return nullptr;
    auto response = std::make_unique<MHD_Response>();
    response->kind = MHD_Response::Buffer;
    response->size = size;
    response->bodyAddress = buffer;
    response->free = crfc;
    response->closure = crfc_cls;
    if (size != 0)
        response->body.assign(static_cast<const char*>(buffer), size);
    return call->takeResponse(std::move(response));
}

MHD_Result MHD_set_response_options(MHD_Response* response, MHD_ResponseFlags flags, ...)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_set_response_options", std::to_string(flags));
    if (!call.isAllowed() || !call->isUsable(response, "MHD_set_response_options"))
        return MHD_NO;
    call->takeFlags(response, flags);
    return MHD_YES;
}

MHD_Response* MHD_create_response_from_callback(uint64_t size, size_t block_size,
                                                MHD_ContentReaderCallback crc, void* crc_cls,
                                                MHD_ContentReaderFreeCallback crfc)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_create_response_from_callback",
                    (size == MHD_SIZE_UNKNOWN ? "unknown" : std::to_string(size)) + " " +
                        std::to_string(block_size));
    if (!call.isAllowed())
        return nullptr;
    auto response = std::make_unique<MHD_Response>();
    response->kind = MHD_Response::Callback;
    response->size = size;
    response->blockSize = block_size;
    response->reader = crc;
    response->closure = crc_cls;
    response->free = crfc;
    return call->takeResponse(std::move(response));
}

MHD_Response* MHD_create_response_for_upgrade(MHD_UpgradeHandler upgrade_handler,
                                              void* upgrade_handler_cls)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_create_response_for_upgrade", "");
    if (!call.isAllowed())
        return nullptr;
    auto response = std::make_unique<MHD_Response>();
    response->kind = MHD_Response::Upgrade;
    response->upgrade = upgrade_handler;
    response->closure = upgrade_handler_cls;
    return call->takeResponse(std::move(response));
}

MHD_Result MHD_add_response_header(MHD_Response* response, const char* header, const char* content)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_add_response_header", std::string(header) + ": " + content);
    // The real one refuses a null response and an empty value.
    if (!call.isAllowed() || response == nullptr || *content == '\0')
        return MHD_NO;
    if (!call->isUsable(response, "MHD_add_response_header"))
        return MHD_NO;
    call->takeHeader(response, header, content);
    return MHD_YES;
}

MHD_Result MHD_queue_response(MHD_Connection* connection, unsigned int status_code,
                              MHD_Response* response)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_queue_response", std::to_string(status_code));
    if (response == nullptr || !call->isUsable(response, "MHD_queue_response"))
        return MHD_NO;
    call->takeQueued(connection, status_code, response);
    if (!call.isAllowed())
        return MHD_NO;
    call->takeHeld(response);
    return MHD_YES;
}

void MHD_destroy_response(MHD_Response* response)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_destroy_response", "");
    if (response != nullptr && call->isUsable(response, "MHD_destroy_response"))
        call->takeDestroyed(response);
}

MHD_Result MHD_upgrade_action(MHD_UpgradeResponseHandle* urh, MHD_UpgradeAction action, ...)
{
    const qv::tests::TestsOwn own;
    const Call call("MHD_upgrade_action", std::to_string(action));
    if (action == MHD_UPGRADE_ACTION_CLOSE)
        call->takeClosed(urh);
    return call.isAllowed() ? MHD_YES : MHD_NO;
}
}

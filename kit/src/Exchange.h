// A request of the library with its response, for as long as anybody uses it.
#ifndef WENDREL_KIT_SRC_EXCHANGE_H
#define WENDREL_KIT_SRC_EXCHANGE_H

#include "BodyDelivery.h"
#include "Compressor.h"
#include "DeadlineQueue.h"
#include "ErrorBody.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/MemoryAccount.h>
#include <Wendrel/kit/Request.h>
#include <Wendrel/kit/Router.h>
#include <Wendrel/kit/websocket/Handshake.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

namespace qv::kit
{

class ServerCore;

// Used by the daemon until it is completed, by its handler, by a deferred response or stream, and
// by its deadline; each is counted. The last of them deletes it.
class Exchange : public HttpBaseRequest, private HttpWaitListener
{
public:
    // Who responds: the first that claims the response.
    enum class By : uint8_t {
        Nobody,
        Application,
        Server,  // a refusal, or a response that the application has not given
        Deadline,
        Aborted  // nobody any more
    };

    explicit Exchange(ServerCore& core);
    // Called by `destroy` only.
    ~Exchange() override;

    void retain() { ++mUsers; }
    // Any thread that holds no mutex of the request.
    void release();
    // Waits for the mutex under which the request has been completed. Any thread.
    static void destroy(Exchange& exchange);
    // The daemon has completed the request: tells the application, or only deletes it. Any thread.
    static void end(Exchange& exchange);
    // Whether the application is told.
    bool isReported() const { return mIsReported; }

    ServerCore& core() { return mCore; }
    std::string routeName() const;
    // A line that names the route. Any thread; nothing is thrown.
    void log(std::string_view text, std::string_view detail = std::string_view()) const noexcept;

    // The daemon thread.
    void begin();
    // A worker, or the daemon thread: calls the handler and sees to it that there is a response.
    void serve();
    // The thread of the deadlines.
    void expire(int status);

    struct Response
    {
        ResponseHead head;
        int status = 200;
        const ContentType* type = nullptr;
        std::unique_ptr<BodySource> source;
        bool isStream = false;  // the application writes it later
        bool isFile = false;    // a whole file
        bool isKnown = false;   // the client has it: 304, with the head of this response

        void setType();
    };
    // Any thread. False when there is a response already, or none can be sent. The source is taken
    // out of `response` unless another response is the one to be sent.
    bool respond(By by, Response& response);
    bool respondError(By by, ResponseHead&& head, int status, const std::string& message);
    bool isOpen() const { return mBy == By::Nobody && !getResponseDevice().hasDeviceError(); }
    bool hasNoBody(int status) const;
    // By the application.
    bool hasResponse() const { return mBy == By::Application; }
    // The deferred response is destroyed.
    void endDeferred();

    // Any thread.
    void setGoneCallback(std::function<void()> callback);
    void dropGoneCallback();
    void deliverBody(std::function<void(std::string_view)> onPiece,
                     std::function<void()> onComplete);
    bool isGone() const { return mIsGone; }
    void setDeadline(std::chrono::milliseconds limit, int status, DeadlineQueue::By by);

    // The handler's thread.
    const std::string& pathParameter(std::string_view name);
    const std::string& body();
    const Form& form(std::string_view contentType, const FormLimits& limits);
    size_t readBody(char* buffer, size_t size);
    std::string readAll(uint64_t limitBytes) { return readAll(limitBytes, false); }
    int64_t declaredBodyBytes() const;
    bool startStream(ResponseHead&& head, const ContentType& type, int status);
    bool write(std::string_view data);
    bool flush();
    bool finish();
    // Calls `accept` when the handshake is right.
    static void serveWebSocket(Request& request,
                               const std::shared_ptr<const websocket::WebSocketOptions>& options,
                               const WebSocketHandler& accept);
    void attach(const std::type_info& type, std::shared_ptr<const void> value);
    const void* findAttached(const std::type_info& type) const;
    // A body of one response, counted within the memory budget until it is destroyed. Null when the
    // budget is used up: the request has been refused with 503.
    std::shared_ptr<const std::string> holdReply(std::string&& body);
    void noteDeferred() { mIsDeferred = true; }

private:
    friend class DeadlineQueue;
    friend class ServerCore;

    // As the library wants it. Not changed after the response has been announced.
    class Head : public HttpResponseInterface
    {
    public:
        void set(ResponseHead&& head, int status);
        const CookieMap& getCookies() override { return mData.cookies(); }
        const HeaderMap& getHeaders() override { return mData.headers(); }
        uint32_t getStatusCode() override { return mStatus; }
        int64_t getContentLength() override { return mData.contentLength(); }
        std::string describe() override { return std::to_string(mStatus); }

    private:
        ResponseHead mData;
        uint32_t mStatus = 200;
    };

    HttpResponseInterface& getResponse() override { return mHead; }
    HttpWaitListener& getWaitListener() override { return *this; }
    void onWaitingForData() override {}
    void onBodyComplete() override;
    void onBodyPaused(uint64_t queuedBytes) override;
    void onBodyReceived() override { continueDelivery(); }
    void onAborted(const std::string& reason) override;
    void onCompleted(int terminationCode) override;
    void onUpgraded(std::unique_ptr<UpgradedConnection> connection) override;

    // A session that is opened when the 101 has been sent.
    struct Upgrade
    {
        websocket::Agreement agreement;
        std::shared_ptr<websocket::SessionHandler> handler;
        std::shared_ptr<const websocket::WebSocketOptions> options;
    };

    // A response without a handler.
    struct Refusal
    {
        int status = 0;
        ResponseHead head;
        std::string message;
    };

    // Of a request with a hook before its handler. Used by the daemon until a worker runs hooks,
    // and again when both have arrived.
    struct Hooked
    {
        static constexpr uint8_t kHooksPassed = 1;
        static constexpr uint8_t kBodyComplete = 2;

        // True for the last of both, which goes on with the request.
        bool arrive(uint8_t part) { return arrived.fetch_or(part) != 0; }

        size_t next = 0;            // hook
        bool isPending = false;     // hooks are left for a worker
        bool isBeforeBody = false;  // which runs them while the body is received
        bool isRunning = false;
        bool awaitsBody = false;  // deferred: the limit of the response begins with its end
        std::atomic<uint8_t> arrived{0};
        ResponseHead head;  // for the handler
    };

    enum class HookRun : uint8_t { Passed, Ended, NeedsWorker };

    bool findRoute(Refusal& refusal);
    HookRun runHooks(bool isOnWorker);
    void beginWithHooks(bool isRouted, Refusal&& refusal);
    void serveWithHooks() noexcept;
    bool hasPendingHooks() const { return mHooked && mHooked->isPending; }
    void refuseInHook() const;
    bool callAfterHooks(ResponseHead& head, int status) noexcept;
    void callErrorHook(int status, const std::string& message, ErrorBody& body) noexcept;
    template <typename Action> void callApplication(const char* failure, const Action& action);
    void submit();
    void startClock();
    void beginBody();
    void refuse(By by, Refusal&& refusal);
    void refuseAfterBody(Refusal&& refusal);
    void refuseBusy(By by);
    void dispatch();
    bool hasUpload() const;
    uint64_t bodyLimit() const;
    template <typename Action> void guard(const Action& action) noexcept;

    const CompressionOptions* compression() const;
    Coding codingFor(ResponseHead& head, int status, int64_t length) const;
    Coding codingFor(Response& response) const;
    bool isKnown(const Response& response) const;
    bool isHeadOnly(const Response& response) const;
    bool isCodedWhole(const Response& response) const;
    void encode(Response& response);
    void applyCoding(Response& response, Coding coding);
    void becomeNotModified(Response& response) const;
    void fitNotModified(ResponseHead& head) const;
    static std::unique_ptr<BodySource> makeNoBody();
    void beginCoding(ResponseHead& head, int status);
    bool writeCoded(std::string_view data, Compressor::Step step);
    bool isSendable(By by, const Response& response);
    Response makeError(ResponseHead&& head, int status, const std::string& message);
    bool claim(By by);
    void reportClaimed(By by) const;
    void acceptUpgrade(ResponseHead&& head, std::unique_ptr<Upgrade> upgrade);
    bool publish(std::unique_ptr<BodySource> source) noexcept;
    bool publishSource(std::unique_ptr<BodySource> source);
    void publishFailure() noexcept;
    void breakOff() noexcept;
    void callHandler() noexcept;
    void endHandler();
    void fail(const HttpError& error);
    void continueDelivery() noexcept;
    void queueTurn() noexcept;
    void takeTurn() noexcept;
    bool deliverPiece(const BodyDelivery::Callbacks& callbacks);
    void holdBody(uint64_t bytes);
    void dropBody();
    std::string readAll(uint64_t limitBytes, bool isHeld);
    void failDelivery(const HttpError& error);
    void dropCallbacks(bool isGoneDropped);
    void report() const;
    void abandonStream(const char* why);
    void becomeGone();
    void callGone(const std::function<void()>& callback) const noexcept;

    ServerCore& mCore;
    const Route* mRoute = nullptr;
    std::atomic<uint32_t> mUsers{1};  // the daemon
    std::atomic<By> mBy{By::Nobody};
    std::atomic<bool> mIsGone{false};
    std::unique_ptr<Refusal> mRefusal;  // that follows the body; the daemon thread's
    bool mHasUpload = false;            // the daemon thread's until the handler runs
    bool mIsDispatched = false;         // the daemon thread's
    std::unique_ptr<Hooked> mHooked;    // set by the daemon thread; null: no hook
    Head mHead;
    std::unique_ptr<Upgrade> mUpgrade;  // set before the response is announced

    std::atomic<BodyDelivery*> mDelivery{nullptr};  // set once, owned

    // The handler's thread, and that of a turn.
    bool mIsDeferred = false;
    bool mHasBody = false;
    bool mIsStream = false;  // a worker writes the response
    bool mIsStreamEnded = false;
    bool mIsStreamDiscarded = false;
    uint64_t mWrittenBytes = 0;
    uint64_t mReadBytes = 0;
    std::unique_ptr<Compressor> mCompressor;  // of a stream; null: none
    std::string mBody;
    std::unique_ptr<const Form> mForm;
    MemoryAccount mMemory;  // counts both
    uint64_t mHeldBytes = 0;
    std::once_flag mRestMade;
    std::string mRest;  // of the path

    mutable qvMutex mGoneMutex;
    std::function<void()> mGoneCallback QV_GUARDED_BY(mGoneMutex);
    bool mIsGoneDropped QV_GUARDED_BY(mGoneMutex) = false;  // it is never called

    // Values are not removed: a hook of a deadline may read one while the handler goes on.
    using Attached = std::pair<const std::type_info*, std::shared_ptr<const void>>;
    std::vector<Attached> mAttached QV_GUARDED_BY(mGoneMutex);

    // Guarded by the mutex of the deadlines; the flag is also looked at without.
    std::atomic<bool> mHasDeadline{false};
    bool mHasOwnDeadline = false;  // the application has set or removed it
    DeadlineQueue::Entries::iterator mDeadline;

    // Set before the completion, by the daemon thread.
    const bool mIsReported;
    std::string mAbortReason;
    std::chrono::steady_clock::time_point mBegan;
    std::chrono::microseconds mDuration{0};

    Exchange* mNextOver = nullptr;
};

}  // namespace qv::kit

#endif

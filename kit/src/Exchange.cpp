// The way of a request: to its route, to its handler, to one response, to its end.

#include "Exchange.h"

#include "FormReader.h"
#include "HookTable.h"
#include "KitLog.h"
#include "RouteTable.h"
#include "ServerCore.h"

#include <Wendrel/kit/Middleware.h>

#include <qvSystem/Rollback.h>
#include <qvSystem/qvThread.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <new>
#include <stdexcept>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr int kNoContent = 204;
constexpr int kNotModified = 304;
constexpr int kBadRequest = 400;
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kContentTooLarge = 413;
constexpr int kServerError = 500;
constexpr int kNotImplemented = 501;
constexpr int kUnavailable = 503;
constexpr int kMinStatus = 200;
constexpr int kMaxStatus = 599;

constexpr const char* kRetryAfterSeconds = "1";
constexpr size_t kPieceBytes = 65536;
constexpr std::string_view kAbortedByStop = "DaemonShutdown";

// A smaller body of a response is not counted: the memory of its connection is larger.
constexpr size_t kMinHeldBytes = 16384;

// A body up to this size is received before a request without a route is refused: the connection
// can be used again.
constexpr int64_t kMaxBodyOfRefusalBytes = 65536;

bool isError(int status)
{
    return status >= kBadRequest && status <= kMaxStatus;
}

std::unique_ptr<BodySource> makeText(std::string&& text)
{
    return BodySource::fromString(std::make_shared<const std::string>(std::move(text)));
}

}  // namespace

void Exchange::Head::set(ResponseHead&& head, int status)
{
    mData = std::move(head);
    mStatus = static_cast<uint32_t>(status);
}

Exchange::Exchange(ServerCore& core) : mCore(core), mIsReported(core.reportsRequests())
{
    mCore.retain();
    if (mIsReported || mCore.metrics())
        mBegan = std::chrono::steady_clock::now();
}

Exchange::~Exchange()
{
    delete mDelivery.load();
    mCore.release();
}

void Exchange::release()
{
    if (--mUsers == 0)
        destroy(*this);
}

void Exchange::destroy(Exchange& exchange)
{
    // Takes the mutex that the daemon holds while it completes the request.
    static_cast<void>(exchange.isCompleted());
    delete &exchange;
}

std::string Exchange::routeName() const
{
    return mRoute ? mRoute->name()
                  : RequestTypeToString(getRequestType()) + " " + getOriginalFullUrl();
}

void Exchange::log(std::string_view text, std::string_view detail) const noexcept
{
    try {
        LogOfRoute(routeName(), text, detail);
    } catch (...) {
        // No memory for the name.
    }
}

// For callbacks of the library: an exception would end the process.
template <typename Action> void Exchange::guard(const Action& action) noexcept
{
    try {
        action();
    } catch (...) {
        // There is no memory.
        if (claim(By::Server)) {
            breakOff();
            becomeGone();
        }
    }
}

void Exchange::begin()
{
    guard([this] {
        Refusal refusal;
        const bool isRouted = findRoute(refusal);
        if (!mCore.hooks().before.empty() && !hasParseError())
            beginWithHooks(isRouted, std::move(refusal));
        else if (isRouted)
            beginBody();
        else
            refuseAfterBody(std::move(refusal));
    });
}

void Exchange::beginWithHooks(bool isRouted, Refusal&& refusal)
{
    const HookRun run = runHooks(false);
    if (run == HookRun::Ended) {
        mIsDispatched = true;
        mHooked->awaitsBody = mIsDeferred && hasUpload() && !(mRoute && mRoute->mIsStreaming);
        if (mIsDeferred && !mHooked->awaitsBody)
            startClock();
        return;
    }
    const bool needsWorker = run == HookRun::NeedsWorker;
    if (isRouted) {
        beginBody();
    } else if (needsWorker) {
        mHasUpload = hasUpload();
        mRefusal = std::make_unique<Refusal>(std::move(refusal));
    } else {
        refuseAfterBody(std::move(refusal));
    }
    // The hooks do not wait for the body. Without one they run right before the handler.
    if (!needsWorker || !mHasUpload || mIsDispatched || !isOpen())
        return;
    mHooked->isBeforeBody = true;
    submit();
}

// The hooks that are left, up to one that responds, or needs a worker.
Exchange::HookRun Exchange::runHooks(bool isOnWorker)
{
    const std::vector<HookTable::Before>& hooks = mCore.hooks().before;
    const std::string& path = getUrl().path();
    const auto isMatching = [&](const HookTable::Before& each) {
        return each.prefix.matches(path, getUrl().pathSegments());
    };
    if (!mHooked) {
        const auto first = std::find_if(hooks.begin(), hooks.end(), isMatching);
        if (first == hooks.end())
            return HookRun::Passed;
        mHooked = std::make_unique<Hooked>();
        mHooked->next = static_cast<size_t>(first - hooks.begin());
    }
    HookRun run = HookRun::Ended;
    mHooked->isRunning = true;
    const Rollback running([this] { mHooked->isRunning = false; });
    callApplication("the hook failed: ", [&] {
        Request request(*this);
        request.mHead = std::move(mHooked->head);
        for (size_t& at = mHooked->next; at < hooks.size(); ++at) {
            if (!isMatching(hooks[at]))
                continue;
            if (!isOnWorker && hooks[at].thread == HookThread::Worker) {
                mHooked->isPending = true;
                break;
            }
            hooks[at].hook(request);
            if (mIsDeferred || !isOpen())
                return;
        }
        mHooked->head = std::move(request.mHead);
        run = !isOnWorker && mHooked->isPending ? HookRun::NeedsWorker : HookRun::Passed;
    });
    return run;
}

// A worker.
void Exchange::serveWithHooks() noexcept
{
    guard([this] {
        if (runHooks(true) != HookRun::Passed)
            return;
        mHooked->isPending = false;
        if (mRefusal) {
            refuse(By::Server, std::move(*mRefusal));
        } else if ((!mHooked->isBeforeBody || mHooked->arrive(Hooked::kHooksPassed)) && isOpen()) {
            callHandler();
        }
    });
}

// The body has not been received, and there may be no route.
void Exchange::refuseInHook() const
{
    if (mHooked && mHooked->isRunning)
        throw std::logic_error("a hook neither reads the body nor starts a stream");
}

// Of a response that has been claimed. False: it is 500.
bool Exchange::callAfterHooks(ResponseHead& head, int status) noexcept
{
    constexpr const char* kWhat = "the hook after the handler failed: ";
    const std::vector<HookTable::After>& hooks = mCore.hooks().after;
    if (hooks.empty())
        return true;
    try {
        const Request request(*this);
        static const std::vector<std::string> kNoSegments;
        const bool hasPath = !hasParseError();
        const std::string_view path = hasPath ? getUrl().path() : std::string_view();
        const std::vector<std::string>& segments = hasPath ? getUrl().pathSegments() : kNoSegments;
        const int64_t length = head.contentLength();
        for (const HookTable::After& each : hooks) {
            if (each.prefix.matches(path, segments))
                each.hook(request, status, head);
        }
        head.setContentLength(length);
        if (head.error().empty())
            return true;
        log(head.error());
    } catch (const std::exception& error) {
        log(kWhat, error.what());
    } catch (...) {
        log(kWhat, kOtherException);
    }
    return false;
}

void Exchange::callErrorHook(int status, const std::string& message, ErrorBody& body) noexcept
{
    constexpr const char* kWhat = "the hook onError failed: ";
    try {
        const Request request(*this);
        ErrorResponse response{status, message, body.text, body.type};
        mCore.hooks().onError(request, response);
        ResponseHead checked;
        checked.setHeader("Content-Type", response.type.value());
        if (checked.error().empty())
            body = {std::move(response.body), std::move(response.type)};
        else
            log(kWhat, checked.error());
    } catch (const std::exception& error) {
        log(kWhat, error.what());
    } catch (...) {
        log(kWhat, kOtherException);
    }
}

void Exchange::attach(const std::type_info& type, std::shared_ptr<const void> value)
{
    const qvMutexLocker locker(&mGoneMutex);
    mAttached.emplace_back(&type, std::move(value));
}

// The newest of the type.
const void* Exchange::findAttached(const std::type_info& type) const
{
    const qvMutexLocker locker(&mGoneMutex);
    const auto found = std::find_if(mAttached.rbegin(), mAttached.rend(),
                                    [&](const Attached& each) { return *each.first == type; });
    return found == mAttached.rend() ? nullptr : found->second.get();
}

bool Exchange::findRoute(Refusal& refusal)
{
    const RequestType type = getRequestType();
    if (hasParseError()) {
        refusal.status = type == UNKNOWN_HTTP_METHOD ? kNotImplemented : kBadRequest;
        refusal.message = getParseError();
        return false;
    }
    const RouteTable& routes = mCore.routes();
    const auto method = static_cast<Method>(type);
    if (method == Method::Options && getOriginalFullUrl() == "*") {
        refusal.status = kNoContent;
        refusal.head.setHeader("Allow", routes.allowOfAll());
        return false;
    }
    const RouteTable::Target* const target = routes.find(getUrl().pathSegments());
    if (!target) {
        refusal.status = kNotFound;
        return false;
    }
    mRoute = target->find(method);
    if (mRoute)
        return true;
    refusal.status = method == Method::Options ? kNoContent : kMethodNotAllowed;
    refusal.head.setHeader("Allow", target->allow);
    return false;
}

int64_t Exchange::declaredBodyBytes() const
{
    const std::list<std::string>* const values = getHeader("content-length");
    if (!values)
        return -1;
    const std::string& text = values->front();
    int64_t bytes = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), bytes);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    return isWhole && bytes >= 0 ? bytes : -1;
}

bool Exchange::hasUpload() const
{
    return declaredBodyBytes() > 0 || getHeader("transfer-encoding");
}

uint64_t Exchange::bodyLimit() const
{
    if (mRoute->mHasMaxBodyBytes)
        return mRoute->mMaxBodyBytes;
    return mRoute->mIsStreaming ? UINT64_MAX : mCore.maxBodyBytes();
}

void Exchange::beginBody()
{
    mHasUpload = hasUpload();
    if (!mHasUpload) {
        if (mRoute->mIsStreaming)
            dispatch();
        return;
    }
    const uint64_t limit = bodyLimit();
    const int64_t declared = declaredBodyBytes();
    if (declared > 0 && static_cast<uint64_t>(declared) > limit) {
        Refusal refusal;
        refusal.status = kContentTooLarge;
        refuse(By::Server, std::move(refusal));
    } else if (mRoute->mIsStreaming) {
        dispatch();
    } else {
        // One byte more than allowed: the queue is full when the body is too large.
        getReceiveDevice().setQueueLimit(limit == UINT64_MAX ? 0 : limit + 1);
    }
}

void Exchange::onBodyComplete()
{
    // Of a streaming route, or deferred by a hook.
    if (mIsDispatched) {
        if (mHooked && mHooked->awaitsBody)
            guard([this] { startClock(); });
        continueDelivery();
        return;
    }
    // The worker goes on when the hooks have passed, for which the limit holds, too.
    if (mHooked && mHooked->isBeforeBody) {
        guard([this] { startClock(); });
        if (!mHooked->arrive(Hooked::kBodyComplete))
            return;
    }
    guard([this] {
        if (mRefusal && !hasPendingHooks())
            refuse(By::Server, std::move(*mRefusal));
        else if ((mRoute || hasPendingHooks()) && isOpen())
            dispatch();
    });
}

// The handler waits for the whole body, which cannot be received.
void Exchange::onBodyPaused(uint64_t queuedBytes)
{
    // Nobody reads the body of a request that a hook has deferred.
    if (mIsDispatched && mHooked && mHooked->awaitsBody)
        getReceiveDevice().discardReceived();
    if (mIsDispatched || !isOpen())
        return;
    getReceiveDevice().discardReceived();
    // A worker refuses it.
    if (!mRoute && mHooked && mHooked->isBeforeBody)
        return;
    guard([&] {
        if (mRefusal) {
            refuse(By::Server, std::move(*mRefusal));
        } else if (queuedBytes > bodyLimit()) {
            Refusal refusal;
            refusal.status = kContentTooLarge;
            refuse(By::Server, std::move(refusal));
        } else {
            refuseBusy(By::Server);
        }
    });
}

void Exchange::refuse(By by, Refusal&& refusal)
{
    if (isError(refusal.status)) {
        respondError(by, std::move(refusal.head), refusal.status, refusal.message);
        return;
    }
    Response response;
    response.head = std::move(refusal.head);
    response.status = refusal.status;
    response.source = makeText(std::string());
    respond(by, response);
}

void Exchange::refuseAfterBody(Refusal&& refusal)
{
    const int64_t declared = declaredBodyBytes();
    const bool isShort = declared > 0 && declared <= kMaxBodyOfRefusalBytes;
    if (isShort && !hasParseError() && !getHeader("expect") && !getHeader("transfer-encoding"))
        mRefusal = std::make_unique<Refusal>(std::move(refusal));
    else
        refuse(By::Server, std::move(refusal));
}

void Exchange::refuseBusy(By by)
{
    Refusal refusal;
    refusal.status = kUnavailable;
    refusal.head.setHeader("Retry-After", kRetryAfterSeconds);
    refuse(by, std::move(refusal));
}

void Exchange::dispatch()
{
    mIsDispatched = true;
    if (!isOpen())
        return;
    startClock();
    if (hasPendingHooks() || !mRoute->mIsNonBlocking) {
        submit();
    } else {
        retain();
        serve();
    }
}

void Exchange::startClock()
{
    if (mRoute && mRoute->mResponseTimeout.count() > 0)
        setDeadline(mRoute->mResponseTimeout, kUnavailable, DeadlineQueue::By::Route);
}

void Exchange::submit()
{
    retain();
    Rollback retained([this] { release(); });  // without memory for the queue, too
    if (mCore.workers().submit(*this))
        retained.commit();
    else
        refuseBusy(By::Server);
}

// The one place where a handler is called.
void Exchange::serve()
{
    if (isOpen()) {
        if (hasPendingHooks())
            serveWithHooks();
        else
            callHandler();
    }
    release();
}

// For functions of the application that respond.
template <typename Action> void Exchange::callApplication(const char* failure, const Action& action)
{
    try {
        action();
    } catch (const HttpError& error) {
        if (mIsStream)
            log(failure, std::to_string(error.status()) + ' ' + error.what());
        fail(error);
    } catch (const std::exception& error) {
        log(failure, error.what());
        fail(HttpError(kServerError));
    } catch (...) {
        log(failure, kOtherException);
        fail(HttpError(kServerError));
    }
}

void Exchange::callHandler() noexcept
{
    bool isEnded = false;
    guard([&] {
        callApplication("the handler failed: ", [this] {
            {
                Request request(*this);
                if (mHooked)
                    request.mHead = std::move(mHooked->head);
                mRoute->mHandler(request);
            }
            endHandler();
        });
        isEnded = true;
    });
    if (!isEnded && mIsStream)
        abandonStream("no memory");
    dropBody();
    mCompressor.reset();
    // A deferred response may wait for long.
    if (mIsDeferred && !mRoute->mIsStreaming && mHasUpload)
        getReceiveDevice().discardReceived();
    if (mIsStream && !mIsStreamDiscarded)
        workerThreadStopHandling(std::string());
}

void Exchange::endHandler()
{
    if (mIsStream) {
        finish();
    } else if (!mIsDeferred && isOpen()) {
        log("the handler has not responded");
        fail(HttpError(kServerError));
    }
}

void Exchange::fail(const HttpError& error)
{
    if (mIsStream)
        abandonStream("handler failed");
    else if (!mIsDeferred)
        respondError(By::Server, error.head(), error.status(), error.what());
}

void Exchange::deliverBody(std::function<void(std::string_view)> onPiece,
                           std::function<void()> onComplete)
{
    if (!mRoute || !mRoute->mIsStreaming)
        throw std::logic_error("onBody in a route that is not streaming");
    auto delivery = std::make_unique<BodyDelivery>(std::make_shared<BodyDelivery::Callbacks>(
        BodyDelivery::Callbacks{std::move(onPiece), std::move(onComplete)}));
    BodyDelivery* none = nullptr;
    if (!mDelivery.compare_exchange_strong(none, delivery.get()))
        throw std::logic_error("onBody after another onBody");
    static_cast<void>(delivery.release());
    // A response since then has found no callbacks.
    if (isOpen())
        continueDelivery();
    else
        dropCallbacks(false);
}

void Exchange::continueDelivery() noexcept
{
    BodyDelivery* const delivery = mDelivery;
    if (delivery && delivery->notify()) {
        retain();
        queueTurn();
    }
}

// Releases the request when the turns are over. Without memory for one the request ends.
void Exchange::queueTurn() noexcept
{
    bool isQueued = false;
    guard([&] { isQueued = mCore.workers().run([this] { takeTurn(); }); });
    if (isQueued)
        return;
    dropCallbacks(false);
    release();
}

// One piece for each turn: uploads that are faster than their callbacks share the workers.
void Exchange::takeTurn() noexcept
{
    BodyDelivery& delivery = *mDelivery;
    // Until the end of the turn: they may hold the deferred response.
    const BodyDelivery::Pointer callbacks = delivery.callbacks();
    bool hasMore = false;
    guard([&] {
        constexpr const char* kWhat = "the callback onBody failed: ";
        try {
            hasMore = callbacks && isOpen() && deliverPiece(*callbacks);
        } catch (const HttpError& error) {
            failDelivery(error);
        } catch (const std::exception& error) {
            log(kWhat, error.what());
            failDelivery(HttpError(kServerError));
        } catch (...) {
            log(kWhat, kOtherException);
            failDelivery(HttpError(kServerError));
        }
    });
    if (delivery.endTurn(hasMore))
        queueTurn();
    else
        release();
}

// Whether there may be another piece already.
bool Exchange::deliverPiece(const BodyDelivery::Callbacks& callbacks)
{
    HttpReceiveDevice& device = getReceiveDevice();
    std::array<char, kPieceBytes> piece;
    const size_t size = device.readReceived(piece.data(), piece.size());
    mReadBytes += size;
    if (mReadBytes > bodyLimit())
        throw HttpError(kContentTooLarge);
    if (size != 0 && callbacks.onPiece)
        callbacks.onPiece({piece.data(), size});
    if (!device.atEnd() || device.hasDeviceError())
        return size == piece.size();
    static_cast<void>(mDelivery.load()->take());
    if (isOpen() && callbacks.onComplete)
        callbacks.onComplete();
    return false;
}

void Exchange::failDelivery(const HttpError& error)
{
    if (respondError(By::Server, error.head(), error.status(), error.what()))
        becomeGone();
    dropCallbacks(false);
}

// The callbacks are destroyed at the end: they may hold the deferred response.
void Exchange::dropCallbacks(bool isGoneDropped)
{
    BodyDelivery::Pointer body;
    if (BodyDelivery* const delivery = mDelivery)
        body = delivery->take();
    if (isGoneDropped)
        dropGoneCallback();
}

void Exchange::expire(int status)
{
    guard([&] {
        Refusal refusal;
        refusal.status = status == kNoContent || status == kNotModified || isError(status)
                             ? status
                             : kServerError;
        refuse(By::Deadline, std::move(refusal));
    });
    if (mBy == By::Deadline)
        becomeGone();
}

void Exchange::endDeferred()
{
    // Otherwise an end of the request that another thread has begun would still call them.
    if (mBy != By::Application)
        dropCallbacks(true);
    if (!isOpen())
        return;
    guard([this] {
        if (respondError(By::Server, ResponseHead(), kServerError, std::string()))
            log("the deferred response was destroyed without a response");
    });
}

// A body whose length only the head knows, or nobody: it is not sent.
std::unique_ptr<BodySource> Exchange::makeNoBody()
{
    return BodySource::fromCallback([](uint64_t, char*, size_t) { return BodyRead{BodyRead::End}; },
                                    BodyResumer());
}

bool Exchange::hasNoBody(int status) const
{
    return getRequestType() == HEAD || status == kNoContent || status == kNotModified;
}

bool Exchange::claim(By by)
{
    By expected = By::Nobody;
    if (!mBy.compare_exchange_strong(expected, by))
        return false;
    mCore.deadlines().remove(*this);
    return true;
}

void Exchange::reportClaimed(By by) const
{
    if (by == By::Application && mBy == By::Application)
        log("a second response was discarded");
}

// A response that is not possible becomes 500.
bool Exchange::isSendable(By by, const Response& response)
{
    if (!response.head.error().empty())
        log(response.head.error());
    else if (response.status < kMinStatus || response.status > kMaxStatus)
        log("impossible status ", std::to_string(response.status));
    else if (!response.source)
        log("the body source is null");
    else
        return true;
    respondError(by, ResponseHead(), kServerError, std::string());
    return false;
}

void Exchange::Response::setType()
{
    if (!type || type->value().empty())
        return;
    // The type that is used unless another one is given does not replace a header.
    static const std::string defaultType = ContentType::text().value();
    if (type->value() != defaultType || head.header("Content-Type").empty())
        head.setHeader("Content-Type", type->value());
}

bool Exchange::respond(By by, Response& response)
{
    response.setType();
    if (!isSendable(by, response))
        return false;
    encode(response);
    if (!response.isStream) {
        const bool isForHead = hasNoBody(response.status) && response.source->getLength() == 0 &&
                               response.head.contentLength() >= 0;
        if (isForHead)
            response.source = makeNoBody();
        else
            response.head.setContentLength(-1);
    }
    if (!claim(by)) {
        reportClaimed(by);
        return false;
    }
    bool isSent = callAfterHooks(response.head, response.status);
    if (isSent) {
        mHead.set(std::move(response.head), response.status);
        isSent = publish(std::move(response.source));
    } else {
        publishFailure();
    }
    // Of a deferred response: nobody else calls this for the application.
    if (by == By::Application && mIsDeferred)
        dropCallbacks(!response.isStream);
    return isSent;
}

// One that is larger than the free memory, but begins within it, is sent: it is there already.
std::shared_ptr<const std::string> Exchange::holdReply(std::string&& body)
{
    struct Held
    {
        ~Held() { memory.credit(heldBytes); }
        std::string text;
        MemoryAccount memory;
        uint64_t heldBytes = 0;
    };
    if (body.size() < kMinHeldBytes)
        return std::make_shared<const std::string>(std::move(body));
    const auto held = std::make_shared<Held>();
    held->memory = MemoryAccount::of(*this);
    if (!held->memory.hasSpace(1)) {
        refuseBusy(By::Application);
        return nullptr;
    }
    held->memory.chargeAlways(body.size());
    held->heldBytes = body.size();
    held->text = std::move(body);
    return {held, &held->text};
}

bool Exchange::respondError(By by, ResponseHead&& head, int status, const std::string& message)
{
    Response response = makeError(std::move(head), status, message);
    return respond(by, response);
}

Exchange::Response Exchange::makeError(ResponseHead&& head, int status, const std::string& message)
{
    const int sent = isError(status) ? status : kServerError;
    const std::string* const accept = getHeaders().findLine("accept");
    ErrorBody body = makeErrorBody(accept ? *accept : std::string_view(), sent, message);
    if (mCore.hooks().onError)
        callErrorHook(sent, message, body);
    Response response;
    response.head = std::move(head);
    response.head.addHeader("Vary", "Accept");
    response.head.setHeader("Content-Type", body.type.value());
    response.status = sent;
    response.source = makeText(std::move(body.text));
    return response;
}

// In place of a response that has been claimed.
void Exchange::publishFailure() noexcept
{
    try {
        Response response = makeError(ResponseHead(), kServerError, std::string());
        mHead.set(std::move(response.head), response.status);
        publishSource(std::move(response.source));
    } catch (...) {
        breakOff();
    }
}

bool Exchange::publish(std::unique_ptr<BodySource> source) noexcept
{
    try {
        return publishSource(std::move(source));
    } catch (...) {
        breakOff();
        return false;
    }
}

bool Exchange::publishSource(std::unique_ptr<BodySource> source)
{
    HttpResponseDevice& device = getResponseDevice();
    bool isTaken = device.setBodySource(std::move(source));
    if (!isTaken && !device.hasDeviceError()) {
        log("the body source was refused");
        ErrorBody body = makeErrorBody(std::string_view(), kServerError, std::string());
        ResponseHead head;
        head.setHeader("Content-Type", body.type.value());
        mHead.set(std::move(head), kServerError);
        device.setBodySource(makeText(std::move(body.text)));
    }
    return device.setResponseReady() && isTaken;
}

// The library sends its own 500, or closes the connection.
void Exchange::breakOff() noexcept
{
    try {
        getResponseDevice().setDeviceError("no memory");
        getResponseDevice().setResponseReady();
    } catch (...) {
        // A text of this size needs no memory.
    }
}

void Exchange::onAborted(const std::string& reason)
{
    // The reasons are short enough for a text without an allocation.
    if (mIsReported || mCore.metrics())
        mAbortReason = reason;
    if (reason == kAbortedByStop)
        mCore.countAbortByStop();
    claim(By::Aborted);
    becomeGone();
}

// With the mutex of the response device held.
void Exchange::onCompleted(int)
{
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    mCore.completed();
    Metrics* const metrics = mCore.metrics();
    if (mIsReported || metrics)
        mDuration = duration_cast<microseconds>(std::chrono::steady_clock::now() - mBegan);
    if (metrics) {
        metrics->count({mRoute ? mRoute->mNumber : 0, getResponseStatus(), mDuration,
                        getResponseDevice().getSentBytes(), getReceiveDevice().getReceivedBytes(),
                        mAbortReason});
    }
    // The report uses the request until its end.
    if (mIsReported || --mUsers == 0)
        mCore.endLater(*this);
}

void Exchange::end(Exchange& exchange)
{
    if (!exchange.mIsReported) {
        destroy(exchange);
        return;
    }
    try {
        exchange.report();
    } catch (const std::bad_alloc&) {
        // The request is not reported.
    }
    exchange.release();
}

void Exchange::report() const
{
    CompletedRequest over;
    over.method = RequestTypeToString(getRequestType());
    over.target = getOriginalFullUrl();
    if (mRoute)
        over.route = mRoute->name();
    over.clientAddress = getClientAddress();
    over.status = getResponseStatus();
    over.sentBytes = getResponseDevice().getSentBytes();
    over.receivedBytes = getReceiveDevice().getReceivedBytes();
    over.duration = mDuration;
    over.abortReason = mAbortReason;
    if (const std::string* const line = getHeaders().findLine("referer"))
        over.referer = *line;
    if (const std::string* const line = getHeaders().findLine("user-agent"))
        over.userAgent = *line;
    if (const auto* const id = static_cast<const RequestId*>(findAttached(typeid(RequestId))))
        over.requestId = id->text;
    const void* const user = findAttached(typeid(AuthenticatedUser));
    if (user)
        over.user = static_cast<const AuthenticatedUser*>(user)->name;
    mCore.report(over);
}

void Exchange::becomeGone()
{
    std::function<void()> callback;
    {
        const qvMutexLocker locker(&mGoneMutex);
        if (mIsGone)
            return;
        mIsGone = true;
        callback.swap(mGoneCallback);
    }
    if (callback)
        callGone(callback);
    dropCallbacks(false);
}

void Exchange::callGone(const std::function<void()>& callback) const noexcept
{
    callLogged("the callback onGone failed: ", callback,
               [this](const char* text, std::string_view detail) { log(text, detail); });
}

void Exchange::setGoneCallback(std::function<void()> callback)
{
    {
        const qvMutexLocker locker(&mGoneMutex);
        // It may hold the response that holds this request.
        if (mIsGoneDropped)
            return;
        if (!mIsGone) {
            callback.swap(mGoneCallback);
            return;
        }
    }
    if (callback)
        callGone(callback);
}

// The objects that the callback holds are released without the mutex.
void Exchange::dropGoneCallback()
{
    std::function<void()> dropped;
    const qvMutexLocker locker(&mGoneMutex);
    mIsGoneDropped = true;
    dropped.swap(mGoneCallback);
}

void Exchange::setDeadline(std::chrono::milliseconds limit, int status, DeadlineQueue::By by)
{
    constexpr std::chrono::milliseconds kMaxLimit = std::chrono::hours(24 * 365);
    DeadlineQueue& deadlines = mCore.deadlines();
    if (limit.count() <= 0) {
        deadlines.setNone(*this);
        return;
    }
    deadlines.set(*this, DeadlineQueue::Clock::now() + std::min(limit, kMaxLimit), status, by);
    // A response since then has found no deadline.
    if (mBy != By::Nobody)
        deadlines.remove(*this);
}

const std::string& Exchange::pathParameter(std::string_view name)
{
    if (!mRoute)
        throw std::logic_error("no route: no path parameter \"" + std::string(name) + "\"");
    for (const Route::Parameter& parameter : mRoute->mParameters) {
        if (parameter.name != name)
            continue;
        const std::vector<std::string>& path = getUrl().pathSegments();
        if (!parameter.isRest)
            return path[parameter.segment];
        std::call_once(mRestMade, [&] {
            std::string rest;
            for (size_t at = parameter.segment; at < path.size(); ++at)
                rest.append(at == parameter.segment ? "" : "/").append(path[at]);
            mRest = std::move(rest);
        });
        return mRest;
    }
    throw std::logic_error("the route has no path parameter \"" + std::string(name) + "\"");
}

const std::string& Exchange::body()
{
    refuseInHook();
    if (!mHasBody) {
        const uint64_t limit =
            mRoute->mHasMaxBodyBytes ? mRoute->mMaxBodyBytes : mCore.maxBodyBytes();
        mBody = readAll(limit, true);
        mHasBody = true;
    }
    return mBody;
}

const Form& Exchange::form(std::string_view contentType, const FormLimits& limits)
{
    if (!mForm) {
        const std::string& text = body();
        holdBody(text.size());
        mForm = std::make_unique<const Form>(FormReader::read(contentType, text, limits));
    }
    return *mForm;
}

// Bytes that have been received within the budget stay in it. New ones of a slow client are refused
// when it is used up.
void Exchange::holdBody(uint64_t bytes)
{
    if (mHeldBytes == 0)
        mMemory = MemoryAccount::of(*this);
    if (mRoute->mIsStreaming && !mMemory.hasSpace(std::min<uint64_t>(bytes, 1)))
        throw HttpError(HttpError(kUnavailable).setHeader("Retry-After", kRetryAfterSeconds));
    mMemory.chargeAlways(bytes);
    mHeldBytes += bytes;
}

void Exchange::dropBody()
{
    std::string().swap(mBody);
    mForm.reset();
    if (mHeldBytes != 0)
        mMemory.credit(std::exchange(mHeldBytes, 0));
}

size_t Exchange::readBody(char* buffer, size_t size)
{
    refuseInHook();
    HttpReceiveDevice& device = getReceiveDevice();
    const size_t got = device.readBytes(buffer, size);
    if (got != size && device.hasDeviceError())
        throw HttpError(kBadRequest, "the body has not been received");
    mReadBytes += got;
    if (mReadBytes > bodyLimit())
        throw HttpError(kContentTooLarge);
    return got;
}

std::string Exchange::readAll(uint64_t limitBytes, bool isHeld)
{
    const int64_t declared = declaredBodyBytes();
    if (declared > 0 && static_cast<uint64_t>(declared) > mReadBytes &&
        static_cast<uint64_t>(declared) - mReadBytes > limitBytes)
        throw HttpError(kContentTooLarge);
    std::string text;
    std::array<char, kPieceBytes> piece;
    for (;;) {
        const size_t got = readBody(piece.data(), piece.size());
        if (isHeld)
            holdBody(got);
        text.append(piece.data(), got);
        if (text.size() > limitBytes)
            throw HttpError(kContentTooLarge);
        if (got != piece.size())
            return text;
    }
}

bool Exchange::startStream(ResponseHead&& head, const ContentType& type, int status)
{
    refuseInHook();
    if (mRoute->mIsNonBlocking) {
        log("startStream refused: the route is nonBlocking");
        return false;
    }
    const bool isDiscarded = hasNoBody(status);
    Response response;
    response.head = std::move(head);
    response.status = status;
    response.type = &type;
    response.isStream = true;
    response.source = makeNoBody();
    if (isDiscarded) {
        if (!respond(By::Application, response))
            return false;
        mIsStream = mIsStreamDiscarded = true;
        return true;
    }
    response.setType();
    if (!isSendable(By::Application, response))
        return false;
    beginCoding(response.head, status);
    const std::string thread = qvThread::CurrentThreadId();
    if (!claim(By::Application)) {
        reportClaimed(By::Application);
        return false;
    }
    if (!callAfterHooks(response.head, status)) {
        publishFailure();
        return false;
    }
    mIsStream = true;
    mHead.set(std::move(response.head), status);
    workerThreadStartHandling(thread);
    return getResponseDevice().setResponseReady() && !getResponseDevice().hasDeviceError();
}

bool Exchange::write(std::string_view data)
{
    if (!mIsStream) {
        log("write refused: startStream has not been called");
        return false;
    }
    HttpResponseDevice& device = getResponseDevice();
    if (mIsStreamDiscarded || mIsStreamEnded)
        return !mIsStreamEnded && !device.hasDeviceError();
    const int64_t declared = mHead.getContentLength();
    if (declared >= 0 && data.size() > static_cast<uint64_t>(declared) - mWrittenBytes)
        return false;
    // In pieces, each of which waits for space: data of any size takes constant memory.
    while (!data.empty()) {
        const size_t piece = std::min(data.size(), kPieceBytes);
        if (mCompressor) {
            if (!writeCoded(data.substr(0, piece), Compressor::Step::Continue))
                return false;
        } else if (device.writeBytes(data.data(), piece) != piece) {
            return false;
        }
        mWrittenBytes += piece;
        data.remove_prefix(piece);
    }
    return !device.hasDeviceError();
}

bool Exchange::flush()
{
    HttpResponseDevice& device = getResponseDevice();
    if (!mIsStream || mIsStreamEnded)
        return false;
    if (mCompressor && !writeCoded({}, Compressor::Step::Flush))
        return false;
    if (!mIsStreamDiscarded)
        device.flush();
    return !device.hasDeviceError();
}

bool Exchange::finish()
{
    HttpResponseDevice& device = getResponseDevice();
    if (!mIsStream || mIsStreamEnded)
        return false;
    if (!mIsStreamDiscarded) {
        const int64_t declared = mHead.getContentLength();
        if (declared >= 0 && mWrittenBytes != static_cast<uint64_t>(declared)) {
            if (!device.hasDeviceError())
                log("the body is shorter than declared");
            abandonStream("body too short");
            return false;
        }
        if (mCompressor && !writeCoded({}, Compressor::Step::End))
            return false;
        device.endSending();
    }
    mIsStreamEnded = true;
    return !device.hasDeviceError();
}

// The client finds the connection closed in the middle of the body. A reason of this size needs no
// memory.
void Exchange::abandonStream(const char* why)
{
    if (mIsStreamEnded)
        return;
    mIsStreamEnded = true;
    if (!mIsStreamDiscarded)
        getResponseDevice().setDeviceError(why);
}

}  // namespace qv::kit

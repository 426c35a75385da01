// A session: sending, receiving, and the end of the connection.

#include "websocket/Connection.h"

#include "src/KitLog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace qv::kit::websocket
{
namespace
{

// Received from one connection before others get their turn.
constexpr size_t kMaxTurnBytes = 1048576;
// Small messages are collected up to this size.
constexpr size_t kMaxOutBytes = 65536;
// From here on a message is sent from the caller's memory.
constexpr size_t kMinUncopiedBytes = 16384;
// Frames of one call.
constexpr size_t kMaxFramesAtOnce = 64;
constexpr size_t kMaxTakenBytes = 262144;
// Memory that a loop keeps for the next message.
constexpr size_t kMaxKeptBytes = 4194304;
constexpr size_t kMaxKeptFrames = 16;
// Unused memory of an unfinished message is given back after this time: most messages are complete
// before, and memory that is given back and taken again costs more than a copy.
constexpr int64_t kShrinkDelayMs = 100;
// Smaller messages do not depend on the budget while nothing else waits: otherwise peers that do
// not read would make the server close all others.
constexpr size_t kMaxUnbudgetedBytes = 4096;
// Until a refused message is tried again for which the budget had no space.
constexpr int64_t kBudgetRetryMs = 64;
// Callbacks of one task of the executor.
constexpr size_t kMaxNoticesAtOnce = 16;

constexpr const char* kQueueIsFull = "the send queue is full";
constexpr std::string_view kException = "exception in a WebSocket callback: ";
constexpr std::string_view kEnded = "a WebSocket session was ended: ";
constexpr const char* kUnknownException = "unknown exception";

// The connection whose callback runs on this thread, when it is the thread of its loop.
thread_local const Connection* tCurrent = nullptr;

ssize_t sendParts(int descriptor, iovec* parts, size_t count)
{
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    ssize_t sent = 0;
    do
        sent = ::sendmsg(descriptor, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (sent < 0 && errno == EINTR);
    return sent;
}

iovec part(const uint8_t* bytes, size_t size)
{
    return {const_cast<uint8_t*>(bytes), size};
}

// A queue of which the first elements have been used.
void compact(std::vector<OutFrame>& frames, size_t& begin)
{
    if (begin == frames.size()) {
        frames.clear();
        begin = 0;
        if (frames.capacity() > kMaxKeptFrames)
            frames.shrink_to_fit();
    } else if (begin >= kMaxFramesAtOnce && 2 * begin >= frames.size()) {
        frames.erase(frames.begin(), frames.begin() + static_cast<ptrdiff_t>(begin));
        begin = 0;
    }
}

}  // namespace

Connection::Connection(std::shared_ptr<Loop> loop, std::shared_ptr<Membership> membership,
                       std::unique_ptr<UpgradedConnection> socket, const Agreement& agreement,
                       std::shared_ptr<SessionHandler> handler,
                       std::shared_ptr<const WebSocketOptions> options)
    : mLoop(std::move(loop)), mMembership(std::move(membership)), mOptions(std::move(options)),
      mDeflate(agreement.deflate), mSubprotocol(agreement.subprotocol),
      mPeerAddress(socket->getPeerAddress()), mHandler(std::move(handler)),
      mSocket(std::move(socket)),
      mParser(mOptions->maxMessageBytes, mDeflate.isEnabled, &mMembership->budget,
              mDeflate.clientNoContextTakeover ? &mLoop->mInflaters : nullptr)
{
    if (mOptions->executor)
        mStrand = std::make_unique<Strand>(mOptions->maxMessageBytes, mMembership->budget);
}

Connection::~Connection() = default;

SendResult Connection::sendText(std::string_view text)
{
    return sendMessage(Opcode::Text, BinaryView(text));
}

SendResult Connection::sendBinary(BinaryView bytes)
{
    return sendMessage(Opcode::Binary, bytes);
}

SendResult Connection::sendMessage(Opcode opcode, BinaryView payload)
{
    if (!mDeflate.isEnabled || payload.size() < mOptions->minDeflateBytes)
        return put(opcode, false, payload, true);
    if (!mDeflate.serverNoContextTakeover)
        return sendWithContext(opcode, payload);
    Buffer& compressed = compressedOfThread();
    Deflater& deflater = deflaterOfThread(mDeflate.serverMaxWindowBits, mOptions->compressionLevel,
                                          mOptions->compressionMemoryLevel);
    if (!deflater.compress(payload, compressed))
        return put(opcode, false, payload, true);
    return put(opcode, true, {compressed.data(), compressed.size()}, true);
}

// Compressed in the order of the queue, and never dropped: later messages refer to it.
SendResult Connection::sendWithContext(Opcode opcode, BinaryView payload)
{
    bool isWakeNeeded = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        size_t charged = payload.size() + kMaxServerHeaderBytes;
        const SendResult result = makeSpace(charged);
        if (result != SendResult::Queued)
            return result;
        try {
            OutFrame frame = compressWithContext(opcode, payload);
            mMembership->budget.credit(charged - frame.size);
            charged = frame.size;
            isWakeNeeded = push(std::move(frame));
        } catch (...) {
            mMembership->budget.credit(charged);
            // The message that the compressor knows is not sent.
            if (mDeflater)
                mDeflater->reset();
            throw;
        }
    }
    wakeIf(isWakeNeeded);
    return SendResult::Queued;
}

// Under mMutex.
OutFrame Connection::compressWithContext(Opcode opcode, BinaryView payload)
{
    if (!mDeflater || !mDeflater->isValid()) {
        mDeflater =
            std::make_unique<Deflater>(mDeflate.serverMaxWindowBits, mOptions->compressionLevel,
                                       mOptions->compressionMemoryLevel);
    }
    Buffer& compressed = compressedOfThread();
    const bool isShorter = mDeflater->compress(payload, compressed);
    if (isShorter)
        payload = {compressed.data(), compressed.size()};
    else
        mDeflater->reset();
    return makeFrame(opcode, isShorter, payload, false);
}

SendResult Connection::send(const PreparedMessage& message)
{
    bool isCompressed = false;
    OutFrame frame = message.mForms->get(mDeflate, *mOptions, isCompressed);
    bool isWakeNeeded = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const SendResult result = makeSpace(frame.size);
        if (result != SendResult::Queued)
            return result;
        // The peer's window has the shared message now, this compressor has not.
        if (isCompressed && mDeflater)
            mDeflater->reset();
        isWakeNeeded = pushCharged(std::move(frame));
    }
    wakeIf(isWakeNeeded);
    return SendResult::Queued;
}

SendResult Connection::ping(std::string_view payload)
{
    return put(Opcode::Ping, false, BinaryView(payload.substr(0, kMaxControlBytes)), false);
}

SendResult Connection::put(Opcode opcode, bool rsv1, BinaryView payload, bool isDroppable)
{
    if (tCurrent != this)
        return enqueue(makeFrame(opcode, rsv1, payload, isDroppable));
    uint8_t header[kMaxServerHeaderBytes];
    const size_t headerSize = writeFrameHeader(header, opcode, rsv1, payload.size());
    bool isFirst = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mIsCloseQueued)
            return SendResult::Closed;
        isFirst = mQueueBegin == mQueue.size() && mSending.empty();
    }
    if (!isFirst)
        return enqueue(makeFrame(opcode, rsv1, payload, isDroppable));
    sendNow(header, headerSize, payload);
    return SendResult::Queued;
}

SendResult Connection::enqueue(OutFrame frame)
{
    bool isWakeNeeded = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const SendResult result = makeSpace(frame.size);
        if (result != SendResult::Queued)
            return result;
        isWakeNeeded = pushCharged(std::move(frame));
    }
    wakeIf(isWakeNeeded);
    return SendResult::Queued;
}

// Charges the bytes of a new frame, or follows the policy. Under mMutex.
SendResult Connection::makeSpace(size_t bytes)
{
    if (mIsCloseQueued)
        return SendResult::Closed;
    Budget& budget = mMembership->budget;
    const size_t buffered = mBufferedBytes;
    if ((buffered == 0 || buffered + bytes <= mOptions->sendQueueBytes) && budget.charge(bytes))
        return SendResult::Queued;
    if (buffered == 0 && bytes <= kMaxUnbudgetedBytes) {
        budget.chargeAlways(bytes);
        return SendResult::Queued;
    }
    switch (mOptions->queuePolicy) {
    case QueuePolicy::DropNewest:
        return SendResult::Dropped;
    case QueuePolicy::Refuse:
        return refuse(bytes);
    case QueuePolicy::DropOldest:
        return dropOldest(bytes) ? SendResult::Queued : SendResult::Dropped;
    default:
        overflow();
        return SendResult::Closed;
    }
}

// The caller waits for `onDrained`, even if the loop then sends everything without blocking, or has
// nothing to send. Under mMutex.
SendResult Connection::refuse(size_t bytes) noexcept
{
    if (bytes > kMaxUnbudgetedBytes && !mMembership->budget.canEverTake(bytes))
        return SendResult::Dropped;
    const size_t refused = mRefusedBytes;
    if (refused == 0 || bytes < refused)
        mRefusedBytes = bytes;
    if (refused == 0)
        wakeIf(schedule());
    return SendResult::Full;
}

// Nothing is dropped when that would not be enough: the charges of dropped frames serve the new
// one, and what they lack is charged before. Under mMutex.
bool Connection::dropOldest(size_t bytes)
{
    const size_t limit = mOptions->sendQueueBytes;
    const size_t kept = mBufferedBytes - mDroppableBytes;
    if (kept != 0 && kept + bytes > limit)
        return false;
    Budget& budget = mMembership->budget;
    size_t charged = bytes - std::min(bytes, mDroppableBytes);
    if (!budget.charge(charged))
        return false;
    if (budget.charge(bytes - charged))
        charged = bytes;
    for (size_t i = mQueueBegin;
         i < mQueue.size() && (charged < bytes || mBufferedBytes + bytes > limit); ++i)
        charged += dropFrame(mQueue[i], bytes - charged);
    while (mQueueBegin < mQueue.size() && mQueue[mQueueBegin].size == 0)
        ++mQueueBegin;
    compact(mQueue, mQueueBegin);
    return true;
}

// Leaves an empty frame, unless the frame must be sent. Up to `wantedBytes` of its bytes stay
// charged; returns how many. Under mMutex.
size_t Connection::dropFrame(OutFrame& frame, size_t wantedBytes)
{
    if (!frame.isDroppable)
        return 0;
    const size_t kept = std::min(frame.size, wantedBytes);
    mBufferedBytes -= frame.size;
    mDroppableBytes -= frame.size;
    mMembership->budget.credit(frame.size - kept);
    frame = {};
    return kept;
}

// The messages that wait are dropped, so that the close frame leaves soon. Under mMutex.
void Connection::overflow() noexcept
{
    for (size_t i = mQueueBegin; i < mQueue.size(); ++i)
        dropFrame(mQueue[i], 0);
    mIsOverflown = true;
    try {
        wakeIf(pushClose(closecode::kTryAgainLater, kQueueIsFull));
    } catch (const std::bad_alloc&) {
        mIsAborted = true;
        wakeIf(schedule());
    }
    mIsCloseQueued = true;
}

bool Connection::close(uint16_t code, std::string_view reason)
{
    return isCloseCode(code) && queueClose(code, reason);
}

bool Connection::queueClose(uint16_t code, std::string_view reason)
{
    bool isWakeNeeded = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mIsCloseQueued)
            return false;
        isWakeNeeded = pushClose(code, reason);
        mIsCloseQueued = true;
    }
    wakeIf(isWakeNeeded);
    return true;
}

void Connection::abort()
{
    bool isWakeNeeded = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsAborted = true;
        mIsCloseQueued = true;
        isWakeNeeded = schedule();
    }
    wakeIf(isWakeNeeded);
}

size_t Connection::bufferedBytes() const
{
    return mBufferedBytes + (tCurrent == this ? mLoop->mOut.size() : 0);
}

void Connection::begin() noexcept
{
    bool isWakeNeeded = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        isWakeNeeded = schedule();
    }
    wakeIf(isWakeNeeded);
}

// A frame whose bytes have been charged. True: wake the loop. Under mMutex.
bool Connection::push(OutFrame frame)
{
    const size_t size = frame.size;
    const size_t droppable = frame.isDroppable ? size : 0;
    mQueue.push_back(std::move(frame));
    mBufferedBytes += size;
    mDroppableBytes += droppable;
    return schedule();
}

// The same; gives the charge back when there is no memory. Under mMutex.
bool Connection::pushCharged(OutFrame frame)
{
    const size_t size = frame.size;
    try {
        return push(std::move(frame));
    } catch (...) {
        mMembership->budget.credit(size);
        throw;
    }
}

// The close frame may exceed the budget. Under mMutex.
bool Connection::pushClose(uint16_t code, std::string_view reason)
{
    const std::string payload = makeClosePayload(code, reason);
    OutFrame frame = makeFrame(Opcode::Close, false, BinaryView(payload), false);
    mMembership->budget.chargeAlways(frame.size);
    return pushCharged(std::move(frame));
}

// Nothing is pushed after the end: the loop may have ended. Under mMutex.
bool Connection::schedule() noexcept
{
    if (mHasEnded || mIsScheduled)
        return false;
    mIsScheduled = true;
    mSelf = shared_from_this();
    return mLoop->push(*this);
}

void Connection::wakeIf(bool isNeeded) noexcept
{
    if (isNeeded)
        mLoop->wake();
}

std::shared_ptr<Connection> Connection::takeScheduled() noexcept
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsScheduled = false;
    return std::move(mSelf);
}

// One turn on the loop. What goes wrong in it, for want of memory, ends this connection only.
template <typename Turn> void Connection::perform(Turn turn) noexcept
{
    try {
        turn();
        return;
    } catch (const std::exception& error) {
        LogOfRoute(mOptions->name, kEnded, error.what());
    } catch (...) {
        LogOfRoute(mOptions->name, kEnded, kUnknownException);
    }
    tCurrent = nullptr;
    lose("no memory");
}

void Connection::start()
{
    mLoop->add(shared_from_this());
    mState = State::Open;
    mReceivedMs = mPingedMs = mLoop->mNowMs;
    const int descriptor = mSocket->getDescriptor();
    const int on = 1;
    // Fails for a Unix socket, which needs it not.
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    epoll_event event{};
    mEvents = event.events = EPOLLIN;
    event.data.ptr = this;
    const bool isWatched = epoll_ctl(mLoop->mEpoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
    std::string received = mSocket->takeReceivedBytes();
    tCurrent = this;
    notify({.kind = Notice::Kind::Open});
    if (!isWatched) {
        lose("no memory to watch the connection");
    } else if (!received.empty()) {
        mParser.feed(reinterpret_cast<uint8_t*>(received.data()), received.size());
        handleReceived();
        endReceiving();
    }
    tCurrent = nullptr;
    if (mLoop->mIsDraining)
        closeForShutDown();
    settle();
}

void Connection::onReady() noexcept
{
    perform([this] { ready(); });
}

void Connection::ready()
{
    if (mState == State::Ended)
        return;
    if (mState == State::New)
        start();
    bool isAborted = false;
    bool isOverflown = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        isAborted = mIsAborted;
        isOverflown = mIsOverflown;
    }
    if (mState == State::Ended)
        return;
    if (isAborted)
        lose("aborted by the application");
    else if (isOverflown)
        fail(closecode::kTryAgainLater, kQueueIsFull);
    if (hasInputToHandle())
        receive();
    settle();
}

void Connection::onEvents(uint32_t events) noexcept
{
    perform([this, events] {
        if ((events & EPOLLOUT) != 0)
            mIsBlocked = false;
        if (mState == State::Draining || mHasFailed || mHasPeerClose)
            discardReceived();
        else if ((events & EPOLLIN) != 0)
            receive();
        else if ((events & (EPOLLERR | EPOLLHUP)) != 0)
            lose("the connection was reset");
        settle();
    });
}

void Connection::receive()
{
    if (!mParser.isInMessage())
        mParser.buffer().swap(mLoop->mReusable);
    mParser.beginTurn();
    tCurrent = this;
    if (!mParser.isPaused() || handleReceived())
        receiveMore();
    endReceiving();
    tCurrent = nullptr;
    if (mParser.isInMessage()) {
        if (mShrinkMs == 0 && mParser.buffer().isOversized())
            mShrinkMs = mLoop->mNowMs + kShrinkDelayMs;
        return;
    }
    mShrinkMs = 0;
    // The loop keeps the larger one of its buffer and that of the message, unless others need it.
    Buffer& own = mParser.buffer();
    own.clear();
    if (own.capacity() > mLoop->mReusable.capacity())
        own.swap(mLoop->mReusable);
    own.release();
    const size_t kept = mLoop->mReusable.capacity();
    if (kept > kMaxKeptBytes || !mMembership->budget.hasSpace(kept))
        mLoop->mReusable.release();
}

// One reception is enough, unless it has filled the memory: epoll reports the rest again.
void Connection::receiveMore()
{
    size_t size = 0;
    ssize_t received = 0;
    for (size_t turn = 0; turn < kMaxTurnBytes; turn += size) {
        uint8_t* const direct = mParser.directSpace(size);
        uint8_t* const space = direct ? direct : mLoop->mScratch.get();
        if (!direct)
            size = Loop::kScratchBytes;
        received = ::recv(mSocket->getDescriptor(), space, size, 0);
        if (received <= 0)
            break;
        mReceivedMs = mLoop->mNowMs;
        if (direct)
            mParser.receivedDirectly(static_cast<size_t>(received));
        else
            mParser.feed(space, static_cast<size_t>(received));
        if (!handleReceived() || static_cast<size_t>(received) < size)
            break;
    }
    if (received == 0)
        lose("the peer has closed the connection");
    else if (received < 0 && errno != EAGAIN && errno != EINTR)
        lose("the connection was reset");
}

// The memory of the input is another connection's then.
void Connection::endReceiving()
{
    if (!mParser.endTurn())
        handleViolation(closecode::kTryAgainLater, "no memory for the message");
}

// False when nothing more is to be received now.
bool Connection::handleReceived()
{
    using Event = MessageParser::Event;
    while (isReceiving() && !mHasFailed && !mHasPeerClose && !mIsLost) {
        const Event event = mParser.next();
        const BinaryView payload(mParser.payload(), mParser.payloadBytes());
        switch (event) {
        case Event::NeedsMore:
            return !isPaused();
        case Event::Text:
            notify({.kind = Notice::Kind::Text, .payload = payload});
            break;
        case Event::Binary:
            notify({.kind = Notice::Kind::Binary, .payload = payload});
            break;
        case Event::Ping:
            put(Opcode::Pong, false, payload, false);
            break;
        case Event::Pong:
            notify({.kind = Notice::Kind::Pong, .payload = payload});
            break;
        case Event::Close:
            handlePeerClose();
            break;
        case Event::Failed:
            handleViolation(mParser.failureCode(), mParser.failure());
            break;
        case Event::Paused:
            return false;
        }
    }
    return false;
}

void Connection::handlePeerClose()
{
    const CloseStatus status = readClosePayload(mParser.payload(), mParser.payloadBytes());
    if (status.failure != 0) {
        handleViolation(status.failure, "close frame is malformed");
        return;
    }
    mPeerReason = status.reason;
    mHasPeerClose = true;
    mCloseCode = status.code;
    closeAfterCallbacks(status.code, {});
}

void Connection::handleViolation(uint16_t code, const char* reason)
{
    if (noteFailure(code, reason))
        closeAfterCallbacks(code, reason);
}

// The messages before the end are responded to, even if their callbacks run later.
void Connection::closeAfterCallbacks(uint16_t code, std::string_view reason)
{
    if (mStrand && !mIsExecutorRefused)
        notify({.kind = Notice::Kind::End, .code = code, .payload = BinaryView(reason)});
    if (!mStrand || mIsExecutorRefused)
        queueClose(code, reason);
}

// The peer may send until it has received the close frame.
void Connection::discardReceived()
{
    for (size_t turn = 0; turn < kMaxTurnBytes; turn += Loop::kScratchBytes) {
        const ssize_t received =
            ::recv(mSocket->getDescriptor(), mLoop->mScratch.get(), Loop::kScratchBytes, 0);
        if (received == 0 || (received < 0 && errno != EAGAIN && errno != EINTR)) {
            lose("the peer has closed the connection");
            return;
        }
        if (received < static_cast<ssize_t>(Loop::kScratchBytes))
            return;
    }
}

// The first message of a turn, or one of several small ones.
void Connection::sendNow(const uint8_t* header, size_t headerBytes, BinaryView payload)
{
    Buffer& out = mLoop->mOut;
    if (!out.ensureSpace(headerBytes + kMinUncopiedBytes, kMaxOutBytes)) {
        lose("no memory to send");
        return;
    }
    out.append(header, headerBytes);
    if (payload.size() >= kMinUncopiedBytes) {
        sendOut(payload);
        return;
    }
    out.append(payload.data(), payload.size());
    if (out.size() >= kMaxOutBytes - kMinUncopiedBytes)
        sendOut({});
}

// Sends the collected bytes and `more`. The bytes that the socket does not take are copied.
void Connection::sendOut(BinaryView more)
{
    Buffer& out = mLoop->mOut;
    const size_t total = out.size() + more.size();
    if (total == 0)
        return;
    iovec parts[] = {part(out.data(), out.size()), part(more.data(), more.size())};
    const ssize_t result = mIsLost ? -1 : sendParts(mSocket->getDescriptor(), parts, 2);
    const bool isFull = result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (result < 0 && !isFull)
        mIsLost = true;
    const size_t sent = result > 0 ? static_cast<size_t>(result) : 0;
    if (sent < total && !mIsLost)
        keepUnsent(out, more, sent);
    out.clear();
}

// Without memory the connection is lost: part of a frame has been sent.
void Connection::keepUnsent(Buffer& out, BinaryView more, size_t sent)
{
    const size_t ofOut = std::min(sent, out.size());
    const size_t ofMore = sent - ofOut;
    const size_t size = out.size() + more.size() - sent;
    try {
        auto bytes = std::make_shared_for_overwrite<uint8_t[]>(size);
        std::copy(out.data() + ofOut, out.data() + out.size(), bytes.get());
        std::copy(more.begin() + ofMore, more.end(), bytes.get() + (out.size() - ofOut));
        mSending.push_back({std::move(bytes), size, false});
    } catch (const std::bad_alloc&) {
        lose("no memory to send");
        return;
    }
    // The bytes are counted, even if they exceed the budget.
    mMembership->budget.chargeAlways(size);
    mBufferedBytes += size;
    mIsBlocked = mHadToWait = true;
    mProgressMs = mLoop->mNowMs;
}

// Moves frames from the queue to those that are being sent.
bool Connection::takeQueued()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    size_t bytes = 0;
    while (mQueueBegin < mQueue.size() && mSending.size() < kMaxFramesAtOnce &&
           bytes < kMaxTakenBytes) {
        OutFrame frame = std::move(mQueue[mQueueBegin++]);
        mDroppableBytes -= frame.isDroppable ? frame.size : 0;
        bytes += frame.size;
        if (frame.size != 0)
            mSending.push_back(std::move(frame));
    }
    compact(mQueue, mQueueBegin);
    return !mSending.empty();
}

void Connection::flush()
{
    while (!mIsBlocked && !mIsLost && (!mSending.empty() || takeQueued())) {
        std::array<iovec, kMaxFramesAtOnce> parts;
        size_t count = 0;
        size_t total = 0;
        for (size_t i = mSendingBegin; i < mSending.size() && count < parts.size(); ++i) {
            const size_t skipped = i == mSendingBegin ? mSentOfFirst : 0;
            const OutFrame& frame = mSending[i];
            parts[count++] = part(frame.bytes.get() + skipped, frame.size - skipped);
            total += frame.size - skipped;
        }
        const ssize_t sent = sendParts(mSocket->getDescriptor(), parts.data(), count);
        if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            mIsLost = true;
            return;
        }
        removeSent(sent > 0 ? static_cast<size_t>(sent) : 0);
        if (sent > 0 || !mHadToWait)
            mProgressMs = mLoop->mNowMs;
        if (sent < static_cast<ssize_t>(total))
            mIsBlocked = mHadToWait = true;
    }
}

void Connection::removeSent(size_t bytes)
{
    mBufferedBytes -= bytes;
    mMembership->budget.credit(bytes);
    mSentOfFirst += bytes;
    while (mSendingBegin < mSending.size() && mSentOfFirst >= mSending[mSendingBegin].size) {
        mSentOfFirst -= mSending[mSendingBegin].size;
        mSending[mSendingBegin++].bytes.reset();
    }
    compact(mSending, mSendingBegin);
}

// False when the connection is lost.
bool Connection::sendWaiting()
{
    sendOut({});
    flush();
    if (mIsLost)
        lose("the connection was reset");
    return !mIsLost;
}

// After each turn: sends, moves on to the next state, and adjusts events and deadlines.
void Connection::settle()
{
    if (mState == State::Ended || !sendWaiting())
        return;
    // The flag is set after the bytes of the close frame have been counted: read in this order, it
    // is never seen without them.
    const bool isCloseQueued = mIsCloseQueued;
    const bool isAllSent = mSending.empty() && mBufferedBytes == 0;
    if (isAllSent && isCloseQueued && mState == State::Open) {
        mState = State::CloseSent;
        if (mCloseDeadlineMs == 0)
            mCloseDeadlineMs = mLoop->mNowMs + mOptions->closeTimeout.count();
    }
    if (mState == State::CloseSent && (mHasPeerClose || mHasFailed))
        drain();
    else if (isAllSent && mState == State::Open && isDrainedAwaited() && !notifyDrained())
        return;
    updateEvents();
    updateTimer();
    if (hasInputToHandle())
        begin();  // in the next turn
}

// After a refused message also the budget must have space for it: `updateTimer` sets the time to
// look again. A caller that is told Full from now on is owed another call; another turn follows for
// it.
bool Connection::isDrainedAwaited() noexcept
{
    if (mRefusedBytes == 0)
        return mHadToWait;
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mRefusedBytes > kMaxUnbudgetedBytes && !mMembership->budget.hasSpace(mRefusedBytes))
        return false;
    mRefusedBytes = 0;
    return true;
}

// Once in a turn: a callback that always finds a reason for another call would keep the loop. The
// frames that it queues have scheduled another turn. False when the connection is lost.
bool Connection::notifyDrained()
{
    mHadToWait = false;
    tCurrent = this;
    notify({.kind = Notice::Kind::Drained});
    tCurrent = nullptr;
    return sendWaiting();
}

bool Connection::isPaused() const
{
    if (mState == State::Draining || mHasFailed)
        return false;
    return mParser.isPaused() || isHeldBack();
}

// By messages that the peer or the executor has not taken.
bool Connection::isHeldBack() const
{
    return mBufferedBytes > mOptions->sendQueueBytes / 2 || (mStrand && mStrand->isFull());
}

// Input that has been received in an earlier turn.
bool Connection::hasInputToHandle() const
{
    return mParser.isPaused() && isReceiving() && !mHasFailed && !isHeldBack();
}

void Connection::updateEvents()
{
    if (mState == State::Ended)
        return;
    const uint32_t events =
        (isPaused() ? 0U : uint32_t{EPOLLIN}) | (mIsBlocked ? uint32_t{EPOLLOUT} : 0U);
    if (events == mEvents)
        return;
    // Silence does not count while nothing is received.
    if ((events & EPOLLIN) != 0 && (mEvents & EPOLLIN) == 0)
        mReceivedMs = mLoop->mNowMs;
    mEvents = events;
    epoll_event event{};
    event.events = events;
    event.data.ptr = this;
    if (epoll_ctl(mLoop->mEpoll, EPOLL_CTL_MOD, mSocket->getDescriptor(), &event) != 0)
        lose("no memory to watch the connection");
}

void Connection::updateTimer()
{
    if (mState == State::Ended)
        return;
    int64_t first = INT64_MAX;
    const auto add = [&first](int64_t fromMs, std::chrono::milliseconds after) {
        if (after.count() > 0)
            first = std::min(first, fromMs + after.count());
    };
    if (mCloseDeadlineMs != 0)
        first = mCloseDeadlineMs;
    if (mShrinkMs != 0)
        first = std::min(first, mShrinkMs);
    if (mRefusedBytes != 0 && mState == State::Open && mBufferedBytes == 0)
        first = std::min(first, mLoop->mNowMs + kBudgetRetryMs);
    if (mIsBlocked)
        add(mProgressMs, mOptions->sendTimeout);
    if (mState == State::Open && (mEvents & EPOLLIN) != 0) {
        add(mReceivedMs, mOptions->silenceTimeout);
        add(std::max(mReceivedMs, mPingedMs), mOptions->pingInterval);
    }
    if (first != INT64_MAX)
        mLoop->mTimers.set(*this, first);
}

void Connection::onTimer() noexcept
{
    perform([this] { checkDeadlines(); });
}

void Connection::checkDeadlines()
{
    const int64_t now = mLoop->mNowMs;
    const auto isOver = [now](int64_t fromMs, std::chrono::milliseconds after) {
        return after.count() > 0 && now >= fromMs + after.count();
    };
    if (mShrinkMs != 0 && now >= mShrinkMs) {
        mShrinkMs = 0;
        mParser.buffer().shrink();
    }
    const bool isListening = mState == State::Open && (mEvents & EPOLLIN) != 0;
    if (mCloseDeadlineMs != 0 && now >= mCloseDeadlineMs)
        lose("the close handshake took too long");
    else if (mIsBlocked && isOver(mProgressMs, mOptions->sendTimeout))
        lose("the peer receives nothing");
    else if (isListening && isOver(mReceivedMs, mOptions->silenceTimeout))
        lose("the peer is silent");
    else if (isListening && isOver(std::max(mReceivedMs, mPingedMs), mOptions->pingInterval)) {
        mPingedMs = now;
        put(Opcode::Ping, false, {}, false);
    }
    settle();
}

void Connection::closeForShutDown() noexcept
{
    perform([this] { queueClose(closecode::kGoingAway, "the server shuts down"); });
}

void Connection::endByDeadline() noexcept
{
    if (mState != State::Draining)
        mMembership->forced.fetch_add(1, std::memory_order_relaxed);
    lose("the server has shut down");
}

// Nothing more is received. False when the connection has ended already.
bool Connection::noteFailure(uint16_t code, const char* reason)
{
    if (mHasFailed || mState == State::Draining || mState == State::Ended)
        return false;
    mHasFailed = true;
    mCloseCode = code;
    mFailure = reason;
    mCloseDeadlineMs = mLoop->mNowMs + mOptions->closeTimeout.count();
    return true;
}

// The close frame follows the messages that wait.
void Connection::fail(uint16_t code, const char* reason)
{
    if (noteFailure(code, reason))
        queueClose(code, reason);
}

// `settle` ends the connection; until then a callback may run.
void Connection::lose(const char* reason) noexcept
{
    mIsLost = true;
    if (*mLoss == 0)
        mLoss = reason;
    if (tCurrent != this)
        finish();
}

// A reset would discard the close frame: the peer closes first, or the deadline passes.
void Connection::drain()
{
    mState = State::Draining;
    mCloseDeadlineMs = mLoop->mNowMs + mOptions->closeTimeout.count();
    ::shutdown(mSocket->getDescriptor(), SHUT_WR);
    mParser.release();
    notifyClosed();
}

void Connection::finish() noexcept
{
    if (mState == State::Ended)
        return;
    const std::shared_ptr<Connection> held = weak_from_this().lock();
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsCloseQueued = true;
        mHasEnded = true;
        mQueue = {};
        mQueueBegin = 0;
        mDroppableBytes = 0;
        mDeflater.reset();
        mMembership->budget.credit(mBufferedBytes.exchange(0));
    }
    mLoop->mOut.clear();
    mSending = {};
    notifyClosed();
    mState = State::Ended;
    mParser.release();
    epoll_ctl(mLoop->mEpoll, EPOLL_CTL_DEL, mSocket->getDescriptor(), nullptr);
    mSocket.reset();
    mLoop->remove(*this);
    leaveHalf();
}

// Needs no memory. The texts stay until the connection is destroyed.
void Connection::notifyClosed() noexcept
{
    if (std::exchange(mIsNotified, true))
        return;
    Notice notice{.kind = Notice::Kind::Close};
    if (mHasPeerClose || mHasFailed) {
        notice.code = mCloseCode;
        notice.payload = BinaryView(mHasFailed ? std::string_view(mFailure) : mPeerReason);
        notice.isClean = mHasPeerClose && !mHasFailed && mState == State::Draining;
    } else {
        notice.code = closecode::kAbnormal;
        notice.payload = BinaryView(std::string_view(mLoss));
    }
    notify(notice);
}

void Connection::notify(const Notice& notice)
{
    if (!mStrand) {
        call(notice);
        return;
    }
    if (!mStrand->add(notice))
        return;
    if (!mIsExecutorRefused) {
        if (submit())
            return;
        mIsExecutorRefused = true;
        mStrand->discardMessages();
    }
    runStrand();
    if (!mIsNotified)
        fail(closecode::kTryAgainLater, "the server is busy");
}

// An executor that throws refuses.
bool Connection::submit() noexcept
{
    try {
        return mOptions->executor([self = shared_from_this()] { self->runStrand(); });
    } catch (const std::exception& error) {
        LogOfRoute(mOptions->name, kException, error.what());
    } catch (...) {
        LogOfRoute(mOptions->name, kException, kUnknownException);
    }
    return false;
}

// Other tasks of the executor get their turn, unless it refuses to continue later.
void Connection::runStrand() noexcept
{
    const auto callOne = [this](const Notice& notice) { call(notice); };
    Strand::Result result = Strand::Result::HasMore;
    while (result == Strand::Result::HasMore) {
        result = mStrand->run(callOne, kMaxNoticesAtOnce);
        if (result == Strand::Result::HasMore && submit())
            return;
    }
    if (result == Strand::Result::HasSpace)
        begin();  // receives again
}

// The boundary to the application's code.
void Connection::call(const Notice& notice) noexcept
{
    try {
        callHandler(notice);
    } catch (const std::exception& error) {
        handleException(error.what());
    } catch (...) {
        handleException(kUnknownException);
    }
    if (notice.kind != Notice::Kind::Close)
        return;
    mHandler.reset();
    leaveHalf();
}

void Connection::handleException(const char* what) noexcept
{
    LogOfRoute(mOptions->name, kException, what);
    try {
        close(closecode::kInternalError, "internal error");
    } catch (...) {
        abort();  // no memory for a close frame
    }
}

void Connection::callHandler(const Notice& notice)
{
    switch (notice.kind) {
    case Notice::Kind::Open:
        mHandler->onOpen(shared_from_this());
        break;
    case Notice::Kind::Text:
        mHandler->onText(*this, notice.payload.asText());
        break;
    case Notice::Kind::Binary:
        mHandler->onBinary(*this, notice.payload);
        break;
    case Notice::Kind::Pong:
        mHandler->onPong(*this, notice.payload);
        break;
    case Notice::Kind::Drained:
        mHandler->onDrained(*this);
        break;
    case Notice::Kind::End:
        queueClose(notice.code, notice.payload.asText());
        break;
    case Notice::Kind::Close:
        mHandler->onClose(*this, notice.code, notice.payload.asText(), notice.isClean);
        break;
    }
}

void Connection::leaveHalf() noexcept
{
    if (--mHalves == 0)
        mMembership->leave();
}

}  // namespace qv::kit::websocket

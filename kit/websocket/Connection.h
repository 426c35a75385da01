// A session: one connection on its loop.
#ifndef WENDREL_KIT_WEBSOCKET_CONNECTION_H
#define WENDREL_KIT_WEBSOCKET_CONNECTION_H

#include "websocket/Loop.h"
#include "websocket/MessageParser.h"
#include "websocket/OutFrame.h"
#include "websocket/Strand.h"

#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/kit/websocket/Handshake.h>
#include <Wendrel/kit/websocket/Session.h>

#include <qvSystem/ThreadSafety.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qv::kit::websocket
{

// The operations of Session append to a queue and wake the loop, which alone uses the socket. A
// message sent inside a callback on the loop goes to the loop's output memory instead, which is
// sent when everything received has been handled; a large one is sent at once, without a copy.
class Connection final : public Session,
                         public TimerNode,
                         public std::enable_shared_from_this<Connection>
{
public:
    Connection(std::shared_ptr<Loop> loop, std::shared_ptr<Membership> membership,
               std::unique_ptr<UpgradedConnection> socket, const Agreement& agreement,
               std::shared_ptr<SessionHandler> handler,
               std::shared_ptr<const WebSocketOptions> options);
    ~Connection() override;

    // Any thread.
    SendResult sendText(std::string_view text) override;
    SendResult sendBinary(BinaryView bytes) override;
    SendResult send(const PreparedMessage& message) override;
    SendResult ping(std::string_view payload) override;
    bool close(uint16_t code, std::string_view reason) override;
    void abort() override;
    bool isOpen() const override { return !mIsCloseQueued; }
    size_t bufferedBytes() const override;
    const std::string& subprotocol() const override { return mSubprotocol; }
    const IpAddress& peerAddress() const override { return mPeerAddress; }
    // Pushes itself to its loop, which calls `onReady`.
    void begin() noexcept;

    // The loop's thread. Without memory they end the connection.
    std::shared_ptr<Connection> takeScheduled() noexcept;
    void onEvents(uint32_t events) noexcept;
    void onReady() noexcept;
    void onTimer() noexcept;
    void closeForShutDown() noexcept;
    void endByDeadline() noexcept;

private:
    friend class Loop;

    enum class State : uint8_t {
        New,        // not yet on its loop
        Open,       // the close frame has not been sent
        CloseSent,  // waits for the peer's close frame
        Draining,   // nothing more is sent; waits for the peer to end the connection
        Ended
    };

    // Any thread.
    SendResult sendMessage(Opcode opcode, BinaryView payload);
    SendResult sendWithContext(Opcode opcode, BinaryView payload);
    OutFrame compressWithContext(Opcode opcode, BinaryView payload);
    SendResult put(Opcode opcode, bool rsv1, BinaryView payload, bool isDroppable);
    SendResult enqueue(OutFrame frame);
    SendResult makeSpace(size_t bytes);
    SendResult refuse(size_t bytes) noexcept;
    bool dropOldest(size_t bytes);
    size_t dropFrame(OutFrame& frame, size_t wantedBytes);
    void overflow() noexcept;
    bool queueClose(uint16_t code, std::string_view reason);
    bool push(OutFrame frame);
    bool pushCharged(OutFrame frame);
    bool pushClose(uint16_t code, std::string_view reason);
    bool schedule() noexcept;
    void wakeIf(bool isNeeded) noexcept;

    // The loop's thread.
    template <typename Turn> void perform(Turn turn) noexcept;
    void start();
    void ready();
    void checkDeadlines();
    void receive();
    void receiveMore();
    bool handleReceived();
    void endReceiving();
    void handlePeerClose();
    void handleViolation(uint16_t code, const char* reason);
    void closeAfterCallbacks(uint16_t code, std::string_view reason);
    void discardReceived();
    void sendNow(const uint8_t* header, size_t headerBytes, BinaryView payload);
    void sendOut(BinaryView more);
    void keepUnsent(Buffer& out, BinaryView more, size_t sent);
    void flush();
    bool takeQueued();
    void removeSent(size_t bytes);
    bool sendWaiting();
    void settle();
    bool noteFailure(uint16_t code, const char* reason);
    void fail(uint16_t code, const char* reason);
    void lose(const char* reason) noexcept;
    void drain();
    void finish() noexcept;
    bool isReceiving() const { return mState == State::Open || mState == State::CloseSent; }
    bool isDrainedAwaited() noexcept;
    bool notifyDrained();
    bool isHeldBack() const;
    bool isPaused() const;
    bool hasInputToHandle() const;
    void updateEvents();
    void updateTimer();
    void notify(const Notice& notice);
    void notifyClosed() noexcept;
    void leaveHalf() noexcept;
    // The loop's thread, or the executor.
    void call(const Notice& notice) noexcept;
    void callHandler(const Notice& notice);
    void handleException(const char* what) noexcept;
    bool submit() noexcept;
    void runStrand() noexcept;

    const std::shared_ptr<Loop> mLoop;
    const std::shared_ptr<Membership> mMembership;
    const std::shared_ptr<const WebSocketOptions> mOptions;
    const DeflateParameters mDeflate;
    const std::string mSubprotocol;
    const IpAddress mPeerAddress;

    // Used by the callbacks. Dropped after the last one: the application's handler may own the
    // session.
    std::shared_ptr<SessionHandler> mHandler;

    mutable std::mutex mMutex;
    std::vector<OutFrame> mQueue;         // under mMutex, from mQueueBegin on
    size_t mQueueBegin = 0;               // under mMutex
    size_t mDroppableBytes = 0;           // of the queue; under mMutex
    std::unique_ptr<Deflater> mDeflater;  // with context; under mMutex
    std::atomic<size_t> mBufferedBytes{0};
    std::atomic<bool> mIsCloseQueued{false};  // changed under mMutex: nothing is queued after it
    // Changed under mMutex: of the smallest message that was refused since the last onDrained.
    std::atomic<size_t> mRefusedBytes{0};
    bool mIsOverflown = false;          // under mMutex
    bool mIsAborted = false;            // under mMutex
    bool mHasEnded = false;             // under mMutex: the loop does not know it any more
    bool mIsScheduled = false;          // under mMutex: it is in the list of its loop
    std::shared_ptr<Connection> mSelf;  // under mMutex: while it is in that list
    Connection* mNextReady = nullptr;   // of the list

    // The loop's thread.
    std::unique_ptr<UpgradedConnection> mSocket;  // null when it has ended
    MessageParser mParser;
    std::vector<OutFrame> mSending;  // taken from the queue
    size_t mSendingBegin = 0;
    size_t mSentOfFirst = 0;
    // In the loop's list.
    std::shared_ptr<Connection> mHeld;
    Connection* mPrevious = nullptr;
    Connection* mNext = nullptr;
    int64_t mReceivedMs = 0;
    int64_t mPingedMs = 0;
    int64_t mProgressMs = 0;       // of sending
    int64_t mCloseDeadlineMs = 0;  // 0: none
    int64_t mShrinkMs = 0;         // likewise: when the parser's buffer is to be shrunk
    const char* mLoss = "";        // why the connection was lost
    const char* mFailure = "";     // why the server has failed it
    std::string mPeerReason;       // of the peer's close frame
    uint16_t mCloseCode = 0;       // likewise, or of the failure
    uint32_t mEvents = 0;          // that epoll reports
    State mState = State::New;
    bool mIsBlocked = false;  // the socket takes no more
    bool mHadToWait = false;  // since the last onDrained
    bool mHasPeerClose = false;
    bool mHasFailed = false;
    bool mIsLost = false;
    bool mIsNotified = false;  // onClose is called or queued
    bool mIsExecutorRefused = false;
    std::unique_ptr<Strand> mStrand;  // null: callbacks run on the loop
    std::atomic<int> mHalves{2};      // the connection, and the callbacks
};

}  // namespace qv::kit::websocket

#endif

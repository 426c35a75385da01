// A secure connection between its client and its daemon: decrypts in one direction, encrypts in the
// other.
#ifndef WENDREL_LISTENER_TLSHOP_H
#define WENDREL_LISTENER_TLSHOP_H

#include "listener/ConnectionPlaces.h"
#include "listener/TlsDelivery.h"
#include "listener/TlsSession.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::impl
{

class TlsRelay;

// The daemon has one end of a socket pair; the hop has the other one and the session. An end of the
// client (close_notify) becomes an end of the pair when all bytes before it have been forwarded; a
// connection that is reset or cut off closes the pair at once. An end of the daemon becomes a
// close_notify when the last record has been sent, unless the daemon has cut a response.
class TlsHop : public std::enable_shared_from_this<TlsHop>
{
public:
    // Bytes that one direction forwards before other connections have their turn.
    static constexpr size_t kTurnBytes = 262144;

    // Least size of the buffer of `proceed`.
    static constexpr size_t kBufferBytes = 65536;

    // Deliveries that wait for their last record. Beyond: a response counts as sent at once.
    static constexpr size_t kMaxDeliveries = 64;

    // Takes over `pair`, which is non-blocking, and holds `place` until the client's connection is
    // closed.
    TlsHop(TlsRelay& relay, std::unique_ptr<TlsSession> session, int pair,
           std::shared_ptr<ConnectionPlace> place);
    ~TlsHop();
    TlsHop(const TlsHop&) = delete;
    TlsHop& operator=(const TlsHop&) = delete;

    const std::shared_ptr<const TlsConnection>& getInfo() const { return mInfo; }

    // Has the bytes that have arrived forwarded, and then the direction to the daemon ended. True
    // when it has ended. Any thread.
    bool endReading() noexcept;

    // The daemon closes its end within a response: the client gets a reset in place of a
    // close_notify. Any thread.
    void cutDown() { mIsCut = true; }

    // The client's connection has ended in another way than with close_notify, before the daemon's.
    // Any thread.
    bool hasLostClient() const { return mHasLostClient; }

    // Whether the client's direction has ended without a close_notify. Outlives the connection.
    static std::shared_ptr<const std::atomic<bool>> CutOff(std::shared_ptr<TlsHop> hop)
    {
        const std::atomic<bool>* const isCutOff = &hop->mIsCutOff;
        return {std::move(hop), isCutOff};
    }

    // Completes the delivery once everything that the daemon has sent has been handed to the
    // client's socket. `descriptor`: the daemon's end. Daemon thread. Sent at once without memory.
    TlsDelivered deliver(TlsDelivery&& delivery, int descriptor);

    // The connection has been upgraded: it is not the server's any more. Any thread.
    void release();

private:
    friend class TlsRelay;

    enum class State : uint8_t {
        Forwarding,
        Discarding,  // everything is sent; reads on until the client has seen it
        Over
    };

    // Below: relay thread.
    State proceed(std::vector<char>& buffer, bool halfClosedClients);
    State move(std::vector<char>& buffer, bool halfClosedClients);
    void takeDeliveries();
    void completeDeliveries();
    void endDeliveries(bool hasLost);
    bool mustCut();
    bool noteEvents(bool halfClosedClients);
    bool pumpUp(std::vector<char>& buffer);
    bool decrypt(std::vector<char>& buffer, size_t& filled);
    void forward(const char* bytes, size_t size);
    size_t sendToPair(const char* bytes, size_t size);
    bool flushUp();
    void endUp();
    bool pumpDown(std::vector<char>& buffer);
    bool encrypt(const char* bytes, size_t size);
    bool flushDown();
    bool endDown();
    State discard(std::vector<char>& buffer);
    bool closePair();
    void end();
    uint32_t wantedOfClient() const;
    uint32_t wantedOfPair() const;
    bool isFlushing() const
    {
        return ((mIsPairEnded || mIsPairClosed) && !mIsDownOver) || mDeliveryCount != 0;
    }
    bool isUnfinished() const;

    TlsRelay& mRelay;
    std::unique_ptr<TlsSession> mSession;  // null at the end
    const std::shared_ptr<const TlsConnection> mInfo;

    std::atomic<bool> mIsUpOver{false};
    std::atomic<bool> mIsEndWanted{false};
    std::atomic<bool> mIsReleased{false};
    std::atomic<bool> mIsCut{false};
    std::atomic<bool> mHasLostClient{false};
    std::atomic<bool> mIsCutOff{false};

    qvMutex mMutex;
    std::vector<TlsDelivery> mNewDeliveries QV_GUARDED_BY(mMutex);
    bool mIsClosed QV_GUARDED_BY(mMutex) = false;  // takes no delivery any more
    bool mHasLost QV_GUARDED_BY(mMutex) = false;   // with bytes of the daemon
    std::atomic<size_t> mDeliveryCount{0};         // all that are not completed
    std::atomic<bool> mHasNewDeliveries{false};

    std::shared_ptr<ConnectionPlace> mPlace;
    std::vector<TlsDelivery> mDeliveries;  // in the order of their ends
    uint64_t mTakenBytes = 0;              // from the daemon
    uint64_t mHandedBytes = 0;             // of these, to the client's socket
    int mPair;
    std::string mUp;     // decrypted, not taken by the daemon's socket yet
    size_t mUpSent = 0;  // of it
    std::string mDown;   // not encrypted yet
    size_t mDownSent = 0;
    uint64_t mDiscardedBytes = 0;
    int64_t mDiscardUntilMs = 0;
    uint32_t mClientEvents = 0;  // reported and not handled
    uint32_t mPairEvents = 0;
    uint32_t mClientMask = 0;  // asked for
    uint32_t mPairMask = 0;
    bool mMayRead = true;          // from the session: its bytes are not reported
    bool mHasSeenEnd = false;      // of the client's direction, behind bytes that are not read
    bool mIsUpClosing = false;     // the client has ended; mUp comes first
    bool mReadWantsWrite = false;  // OpenSSL has to send before it reads on
    bool mIsDownBlocked = false;   // the client's socket is full
    bool mIsPairEnded = false;     // nothing more comes from the daemon
    bool mIsPairClosed = false;    // nor is anything taken
    bool mIsPairReadable = false;
    bool mIsDownOver = false;  // close_notify has been sent
    bool mIsClientHungUp = false;
    bool mHasFailed = false;  // the daemon cannot be told the client's end
    bool mHasMore = false;    // its turn was over first

    // Of the relay.
    std::shared_ptr<TlsHop> mNextRemoved;
    bool mIsQueued = false;
    bool mIsWatchingClient = false;
    bool mIsClientWatchOver = false;
    bool mIsWatchingPair = false;
    bool mIsPairWatchOver = false;
    std::atomic<bool> mIsCounted{true};  // among the unfinished
    bool mIsCountedFlushing = false;
    bool mIsCountedUnseen = false;
    bool mIsCountedDiscarding = false;
    State mState = State::Forwarding;
};

}  // namespace qv::impl

#endif

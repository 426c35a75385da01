/// A connection that an upgrade has handed from the server to the application.
#ifndef WENDREL_UPGRADEDCONNECTION_H
#define WENDREL_UPGRADEDCONNECTION_H

#include <Wendrel/Export.h>

#include <qvSystem/IpAddress.h>

#include <atomic>
#include <memory>
#include <string>

namespace qv
{

/// Owner of the descriptor of an upgraded connection; see `HttpBaseRequest::onUpgraded`.
///
/// The descriptor is a stream socket, non-blocking and close-on-exec. The server does not read it,
/// write it, watch it or end it any more, and none of its deadlines apply, except the timeout of
/// unacknowledged data (`ServerOptions::sendTimeout`), which is an option of the socket.
///
/// The object is the application's; it may outlive the request, the server and its threads. Not
/// thread-safe: one thread at a time.
class WENDREL_EXPORT UpgradedConnection
{
public:
    /// Takes the ownership of `descriptor`. `receivedBytes`: what the peer has sent behind its
    /// handshake. `place` is kept until the object is destroyed. Called by the server; an
    /// application's tests may use one end of a socket pair.
    UpgradedConnection(int descriptor, std::string receivedBytes, const IpAddress& peerAddress,
                       std::shared_ptr<void> place);

    /// Leaves `other` without descriptor, received bytes and place.
    UpgradedConnection(UpgradedConnection&& other) noexcept;
    /// Closes its own descriptor and gives up its own place.
    UpgradedConnection& operator=(UpgradedConnection&& other) noexcept;
    UpgradedConnection(const UpgradedConnection&) = delete;
    UpgradedConnection& operator=(const UpgradedConnection&) = delete;

    /// Closes the descriptor, unless it was taken, and gives up the place.
    ~UpgradedConnection();

    /// The descriptor, which stays this object's; -1 when it was taken.
    int getDescriptor() const { return mDescriptor; }

    /// The descriptor, to be closed by the caller; -1 when it was taken before.
    [[nodiscard]] int takeDescriptor();

    /// Bytes that the peer has sent behind its handshake and that the server has read with it; at
    /// most `ServerOptions::connectionMemoryBytes`. They come before everything that is read from
    /// the descriptor: process them first, without waiting for the descriptor.
    const std::string& getReceivedBytes() const { return mReceivedBytes; }

    /// The same, moved out.
    [[nodiscard]] std::string takeReceivedBytes();

    /// As `HttpBaseRequest::getClientAddress`.
    const IpAddress& getPeerAddress() const { return mPeerAddress; }

    /// The place of the connection among `ServerOptions::maxConnections` and
    /// `maxConnectionsPerAddress`. It is given up when the last copy is destroyed: keep it with a
    /// taken descriptor, so that the connection is counted as long as it is open. Null when it was
    /// taken before. Any thread may destroy it, also after the server has been destroyed.
    [[nodiscard]] std::shared_ptr<void> takePlace();

    /// As the first constructor. `isCutOff` is read by the operation of that name; null: never.
    UpgradedConnection(int descriptor, std::string receivedBytes, const IpAddress& peerAddress,
                       std::shared_ptr<void> place,
                       std::shared_ptr<const std::atomic<bool>> isCutOff);

    /// Over TLS the descriptor has no error to report: ask here at the end of the stream.
    /// True when the peer's connection has ended without a close_notify, so that bytes that it has
    /// sent may be missing; false for plain connections, where the read fails after a reset. Also
    /// after the descriptor was taken. Any thread.
    bool isCutOff() const { return mIsCutOff && *mIsCutOff; }

private:
    int mDescriptor;
    std::string mReceivedBytes;
    IpAddress mPeerAddress;
    std::shared_ptr<void> mPlace;
    std::shared_ptr<const std::atomic<bool>> mIsCutOff;
};

}  // namespace qv

#endif

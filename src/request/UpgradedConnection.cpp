// The owner of the descriptor of an upgraded connection.

#include <Wendrel/UpgradedConnection.h>

#include <unistd.h>

#include <utility>

namespace qv
{

UpgradedConnection::UpgradedConnection(int descriptor, std::string receivedBytes,
                                       const IpAddress& peerAddress, std::shared_ptr<void> place)
    : mDescriptor(descriptor), mReceivedBytes(std::move(receivedBytes)), mPeerAddress(peerAddress),
      mPlace(std::move(place))
{}

UpgradedConnection::UpgradedConnection(UpgradedConnection&& other) noexcept
    : mDescriptor(other.takeDescriptor()), mReceivedBytes(other.takeReceivedBytes()),
      mPeerAddress(other.mPeerAddress), mPlace(other.takePlace())
{}

UpgradedConnection& UpgradedConnection::operator=(UpgradedConnection&& other) noexcept
{
    UpgradedConnection taken(std::move(other));
    std::swap(mDescriptor, taken.mDescriptor);
    std::swap(mReceivedBytes, taken.mReceivedBytes);
    std::swap(mPeerAddress, taken.mPeerAddress);
    std::swap(mPlace, taken.mPlace);
    return *this;
}

// The place last: it may be given to another connection at once.
UpgradedConnection::~UpgradedConnection()
{
    if (mDescriptor >= 0)
        close(mDescriptor);
}

int UpgradedConnection::takeDescriptor()
{
    return std::exchange(mDescriptor, -1);
}

std::string UpgradedConnection::takeReceivedBytes()
{
    return std::exchange(mReceivedBytes, std::string());
}

std::shared_ptr<void> UpgradedConnection::takePlace()
{
    return std::exchange(mPlace, nullptr);
}

}  // namespace qv

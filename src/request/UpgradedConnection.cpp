// The owner of the descriptor of an upgraded connection.

#include <Wendrel/UpgradedConnection.h>

#include <unistd.h>

#include <utility>

namespace qv
{

UpgradedConnection::UpgradedConnection(int descriptor, std::string receivedBytes,
                                       const IpAddress& peerAddress, std::shared_ptr<void> place)
    : UpgradedConnection(descriptor, std::move(receivedBytes), peerAddress, std::move(place),
                         nullptr)
{}

UpgradedConnection::UpgradedConnection(int descriptor, std::string receivedBytes,
                                       const IpAddress& peerAddress, std::shared_ptr<void> place,
                                       std::shared_ptr<const std::atomic<bool>> isCutOff)
    : mDescriptor(descriptor), mReceivedBytes(std::move(receivedBytes)), mPeerAddress(peerAddress),
      mPlace(std::move(place)), mIsCutOff(std::move(isCutOff))
{}

UpgradedConnection::UpgradedConnection(UpgradedConnection&& other) noexcept
    : mDescriptor(other.takeDescriptor()), mReceivedBytes(other.takeReceivedBytes()),
      mPeerAddress(other.mPeerAddress), mPlace(other.takePlace()),
      mIsCutOff(std::move(other.mIsCutOff))
{}

UpgradedConnection& UpgradedConnection::operator=(UpgradedConnection&& other) noexcept
{
    UpgradedConnection taken(std::move(other));
    std::swap(mDescriptor, taken.mDescriptor);
    std::swap(mReceivedBytes, taken.mReceivedBytes);
    std::swap(mPeerAddress, taken.mPeerAddress);
    std::swap(mPlace, taken.mPlace);
    std::swap(mIsCutOff, taken.mIsCutOff);
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

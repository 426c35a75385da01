// Counts of connections.

#include "listener/ConnectionPlaces.h"

#include <utility>

namespace qv::impl
{

ConnectionPlaces::ConnectionPlaces(size_t maxConnections, size_t maxPerAddress)
    : mMaxConnections(maxConnections), mMaxPerAddress(maxPerAddress)
{}

ConnectionPlace ConnectionPlaces::take(const IpAddress& host)
{
    if (mCount >= mMaxConnections || !countHost(host))
        return ConnectionPlace();
    ++mCount;
    return ConnectionPlace(shared_from_this(), host);
}

// False when the address has as many connections as it may have.
bool ConnectionPlaces::countHost(const IpAddress& host)
{
    if (mMaxPerAddress == 0 || !host.isValid())
        return true;
    const qvMutexLocker locker(&mMutex);
    size_t& count = mHosts[host];
    if (count >= mMaxPerAddress)
        return false;
    ++count;
    return true;
}

void ConnectionPlaces::release(const IpAddress& host)
{
    --mCount;
    if (mMaxPerAddress == 0 || !host.isValid())
        return;
    const qvMutexLocker locker(&mMutex);
    const auto found = mHosts.find(host);
    if (found != mHosts.end() && --found->second == 0)
        mHosts.erase(found);
}

ConnectionPlace::ConnectionPlace(std::shared_ptr<ConnectionPlaces> places, const IpAddress& host)
    : mPlaces(std::move(places)), mHost(host)
{}

ConnectionPlace::~ConnectionPlace()
{
    giveUp();
}

ConnectionPlace& ConnectionPlace::operator=(ConnectionPlace&& other) noexcept
{
    if (this != &other) {
        giveUp();
        mPlaces = std::move(other.mPlaces);
        mHost = other.mHost;
    }
    return *this;
}

void ConnectionPlace::giveUp()
{
    if (const std::shared_ptr<ConnectionPlaces> places = std::exchange(mPlaces, nullptr))
        places->release(mHost);
}

}  // namespace qv::impl

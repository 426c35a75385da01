// The places for connections: how many there are, in all and for each address.
#ifndef WENDREL_LISTENER_CONNECTIONPLACES_H
#define WENDREL_LISTENER_CONNECTIONPLACES_H

#include <qvSystem/IpAddress.h>
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>

namespace qv::impl
{

class ConnectionPlace;

// Held by the listener and by each place: an upgraded connection may outlive the server.
class ConnectionPlaces : public std::enable_shared_from_this<ConnectionPlaces>
{
public:
    // `maxPerAddress` 0: no limit.
    ConnectionPlaces(size_t maxConnections, size_t maxPerAddress);

    // No place when there are as many connections as there may be, in all or of `host`, an address
    // without a port. One thread at a time.
    ConnectionPlace take(const IpAddress& host);

    // Places that are taken. Any thread, no lock.
    size_t getCount() const { return mCount; }

private:
    friend class ConnectionPlace;

    bool countHost(const IpAddress& host);
    void release(const IpAddress& host);

    const size_t mMaxConnections;
    const size_t mMaxPerAddress;
    std::atomic<size_t> mCount{0};

    qvMutex mMutex;
    std::map<IpAddress, size_t> mHosts QV_GUARDED_BY(mMutex);  // places of each address
};

// A place, given up with the object. Any thread, one at a time.
class ConnectionPlace
{
public:
    ConnectionPlace() = default;
    ConnectionPlace(ConnectionPlace&& other) noexcept = default;
    ConnectionPlace& operator=(ConnectionPlace&& other) noexcept;
    ConnectionPlace(const ConnectionPlace&) = delete;
    ConnectionPlace& operator=(const ConnectionPlace&) = delete;
    ~ConnectionPlace();

    explicit operator bool() const { return mPlaces != nullptr; }

    void giveUp();

private:
    friend class ConnectionPlaces;

    ConnectionPlace(std::shared_ptr<ConnectionPlaces> places, const IpAddress& host);

    std::shared_ptr<ConnectionPlaces> mPlaces;
    IpAddress mHost;
};

}  // namespace qv::impl

#endif

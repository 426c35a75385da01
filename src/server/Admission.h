// Decisions about a request from its head, before the application sees it.
#ifndef WENDREL_SERVER_ADMISSION_H
#define WENDREL_SERVER_ADMISSION_H

#include "request/AddressSet.h"
#include "request/AllowedHosts.h"

#include <qvSystem/IpAddress.h>

#include <microhttpd.h>

#include <cstdint>
#include <string>

namespace qv::impl
{

// Whether the host of the request is one of `hosts`. The authority of a target in absolute form
// counts instead of the Host header; each of several Host headers must be allowed. Daemon thread.
bool IsHostAllowed(const AllowedHosts& hosts, MHD_Connection* connection,
                   const std::string& target);

// Queues status 421. The daemon closes the connection after it.
MHD_Result RefuseHost(MHD_Connection* connection);

// Queues `status`: 308 with the same target on https and `port`, 400 without a valid host. The
// daemon closes the connection after it.
MHD_Result RedirectToHttps(uint16_t port, MHD_Connection* connection, const std::string& target,
                           unsigned& status);

// The client's address as the headers of a trusted proxy tell it; `peer` when they do not.
// X-Forwarded-For counts when it is present: most proxies write it, and pass a Forwarded header of
// the client on. Daemon thread.
IpAddress FindClientAddress(const AddressSet& trusted, MHD_Connection* connection,
                            const IpAddress& peer);

}  // namespace qv::impl

#endif

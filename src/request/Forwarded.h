// The client's address in the header lines that proxies write: X-Forwarded-For, Forwarded (RFC
// 7239).
//
// Each proxy appends the address of its own peer. The walk goes from the right, over addresses of
// trusted proxies, and ends at the first that is not trusted: everything to the left of it was
// chosen by that client. An element that is no address ("unknown", "_hidden", anything malformed)
// ends the walk before it.
#ifndef WENDREL_REQUEST_FORWARDED_H
#define WENDREL_REQUEST_FORWARDED_H

#include "request/AddressSet.h"

#include <optional>
#include <string_view>
#include <vector>

namespace qv::impl
{

// The values of the header lines in order of arrival: one list.
using HeaderLines = std::vector<std::string_view>;

// The address at which the walk ends; none when the rightmost element is no address.
std::optional<NetworkAddress> FindClientInForwardedFor(const HeaderLines& lines,
                                                       const AddressSet& trusted);

// The same in the parameter "for" of each element.
std::optional<NetworkAddress> FindClientInForwarded(const HeaderLines& lines,
                                                    const AddressSet& trusted);

}  // namespace qv::impl

#endif

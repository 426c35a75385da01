// The options of secure endpoints: their checks, and how each endpoint is served.
#ifndef WENDREL_SERVER_SECUREENDPOINTS_H
#define WENDREL_SERVER_SECUREENDPOINTS_H

#include <Wendrel/ServerOptions.h>

#include "listener/Endpoint.h"

#include <string>

namespace qv::impl
{

// Why the options are impossible; empty when they are not. Reads no file.
std::string CheckSecureEndpoints(const http::ServerOptions& options);

// Of an entry of ServerOptions::listen.
ListeningSocket::Role RoleOf(const http::ServerOptions& options, const std::string& endpoint);

// Value of the header Strict-Transport-Security; empty: none.
std::string StrictTransportOf(const http::TlsOptions& options);

}  // namespace qv::impl

#endif

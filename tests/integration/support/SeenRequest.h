/// The copy of a request that a test keeps after the request is deleted.
#ifndef WENDREL_TESTS_INTEGRATION_SEENREQUEST_H
#define WENDREL_TESTS_INTEGRATION_SEENREQUEST_H

#include "TestServer.h"

#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace integration
{

struct SeenRequest
{
    using Values = std::map<std::string, std::list<std::string>>;

    explicit SeenRequest(const TestRequest& request)
        : type(request.getRequestType()), target(request.getOriginalFullUrl()),
          urlIsValid(request.getUrl().isValid()), path(request.getUrl().path()),
          clientAddress(request.getClientAddress().toString()),
          clientPort(request.getClientAddress().getPort()),
          headers(request.getHeaders().begin(), request.getHeaders().end()),
          cookies(request.getCookies()), query(request.getQueryParameters()),
          isBad(request.hasParseError()), parseError(request.getParseError()),
          headBytes(request.getRequestHeadBytes())
    {
        for (const auto& header : headers)
            lines[header.first] = *request.getHeaders().findLine(header.first);
    }

    qv::HttpBaseRequest::RequestType type;
    std::string target;
    bool urlIsValid;
    std::string path;
    std::string clientAddress;
    uint16_t clientPort;
    Values headers;
    std::map<std::string, std::string> lines;
    Values cookies;
    Values query;
    bool isBad;
    std::string parseError;
    uint64_t headBytes;
};

}  // namespace integration

#endif

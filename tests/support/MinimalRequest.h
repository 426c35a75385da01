// The least that a request needs of an application: a response head, a wait listener and a request
// class that shows both.
#ifndef WENDREL_TESTS_SUPPORT_MINIMALREQUEST_H
#define WENDREL_TESTS_SUPPORT_MINIMALREQUEST_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include <cstdint>
#include <string>

namespace qv::tests
{

// Set the fields before the response is announced.
class MinimalResponse : public HttpResponseInterface
{
public:
    const CookieMap& getCookies() override { return cookies; }
    const HeaderMap& getHeaders() override { return headers; }
    uint32_t getStatusCode() override { return statusCode; }
    int64_t getContentLength() override { return contentLength; }
    std::string describe() override { return "status " + std::to_string(statusCode); }

    void addHeader(const std::string& name, const std::string& value)
    {
        headers[name] = {name, value};
    }

    CookieMap cookies;
    HeaderMap headers;
    uint32_t statusCode = 200;
    int64_t contentLength = -1;
};

// Does nothing while its worker waits for the body.
class MinimalRequest : public HttpBaseRequest, public HttpWaitListener
{
public:
    HttpResponseInterface& getResponse() override { return response; }
    HttpWaitListener& getWaitListener() override { return *this; }
    void onWaitingForData() override {}

    using HttpBaseRequest::setKeepAliveCallback;

    MinimalResponse response;
};

}  // namespace qv::tests

#endif

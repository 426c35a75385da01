// The checks of ServerOptions::strictRequests that need only the texts of a request head.
#ifndef WENDREL_REQUEST_STRICTREQUEST_H
#define WENDREL_REQUEST_STRICTREQUEST_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qv::impl
{

// Status 0: the request is served.
struct Refusal
{
    unsigned status = 0;
    const char* reason = "";
};

// Fed with the request line and then with each header line in order. Allocates nothing and keeps
// no text. The first defect is reported.
class StrictRequest
{
public:
    static constexpr unsigned kBadRequest = 400;
    static constexpr unsigned kNotImplemented = 501;

    // `target` as it was received.
    StrictRequest(std::string_view method, std::string_view target, bool isHttp10);

    void takeHeader(std::string_view name, std::string_view value);

    void refuse(const char* reason, unsigned status = kBadRequest);

    // After the last header line.
    Refusal finish();

private:
    void takeHost(std::string_view value);
    void takeContentLength(std::string_view value);
    void takeTransferEncoding(std::string_view value);

    Refusal mRefusal;
    size_t mHosts = 0;
    size_t mLengths = 0;
    size_t mCodings = 0;
    bool mHasUnknownCoding = false;
    const bool mIsHttp10;
};

}  // namespace qv::impl

#endif

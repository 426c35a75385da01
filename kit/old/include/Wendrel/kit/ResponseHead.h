/// The head of a response, with defaults.
#ifndef WENDREL_KIT_RESPONSEHEAD_H
#define WENDREL_KIT_RESPONSEHEAD_H

#include <Wendrel/HttpDevices.h>

#include <cstdint>
#include <string>

namespace qv::kit
{

/// Status 200, "Content-Type: text/plain; charset=utf-8" and an unknown length until told
/// otherwise. Filled by the request's worker before the response is announced, read by a daemon
/// thread afterwards. `Date` and the length's header are the daemon's.
class ResponseHead : public HttpResponseInterface
{
public:
    /// As above.
    ResponseHead();

    /// 100 to 999.
    void setStatus(uint32_t status) { mStatus = status; }

    /// Sets a header, in place of one of the same name (letter case does not matter). An
    /// empty value removes it. Spaces in the name or line breaks in the value: the daemon
    /// leaves the header out.
    void setHeader(const std::string& name, const std::string& value);

    /// Value of a header; empty when there is none.
    std::string getHeader(const std::string& name) const;

    /// Sets the header `Content-Type`.
    void setContentType(const std::string& type) { setHeader("Content-Type", type); }

    /// Sets a cookie, in place of one of the same name. `value` may carry attributes:
    /// "abc; Path=/; HttpOnly".
    void addCookie(const std::string& name, const std::string& value);

    /// Bytes of the body; negative: not known.
    void setContentLength(int64_t bytes) { mContentLength = bytes; }

    /// The cookies added so far.
    const CookieMap& getCookies() override { return mCookies; }

    /// The headers set so far, by names in lower case.
    const HeaderMap& getHeaders() override { return mHeaders; }

    /// 200 unless set.
    uint32_t getStatusCode() override { return mStatus; }

    /// -1 unless set.
    int64_t getContentLength() override { return mContentLength; }

    /// "200 text/plain; charset=utf-8, 13 bytes".
    std::string describe() override;

private:
    HeaderMap mHeaders;
    CookieMap mCookies;
    int64_t mContentLength = -1;
    uint32_t mStatus = 200;
};

}  // namespace qv::kit

#endif

/// The exception that becomes a response.
#ifndef WENDREL_KIT_HTTPERROR_H
#define WENDREL_KIT_HTTPERROR_H

#include <Wendrel/kit/ResponseHead.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace qv::kit
{

/// Thrown by a handler that cannot use its input: `throw HttpError(404, "no such file")`, or with
/// headers: `throw HttpError(401).setHeader("WWW-Authenticate", "Basic realm=\"files\"")`. The
/// response is that of `Responder::replyError`, without the headers that the handler has set at its
/// request; nothing is logged. A response that has begun is cut off instead: the client finds the
/// connection closed.
class HttpError : public std::runtime_error
{
public:
    /// `status`: 400 to 599; any other value becomes 500. `message` is sent to the client; empty:
    /// the standard reason phrase of the status.
    explicit HttpError(int status, const std::string& message = std::string())
        : std::runtime_error(message), mStatus(status)
    {}

    /// As `ResponseHead::setHeader`, for the response. Copies of an error share their headers.
    HttpError& setHeader(const std::string& name, const std::string& value)
    {
        if (!mHead)
            mHead = std::make_shared<ResponseHead>();
        mHead->setHeader(name, value);
        return *this;
    }

    /// The status as given.
    int status() const { return mStatus; }

    /// The headers as given.
    ResponseHead head() const { return mHead ? *mHead : ResponseHead(); }

private:
    int mStatus;
    std::shared_ptr<ResponseHead> mHead;  // null: none; shared so that a copy throws nothing
};

}  // namespace qv::kit

#endif

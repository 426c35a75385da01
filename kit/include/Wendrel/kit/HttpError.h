/// The exception that becomes a response.
#ifndef WENDREL_KIT_HTTPERROR_H
#define WENDREL_KIT_HTTPERROR_H

#include <stdexcept>
#include <string>

namespace qv::kit
{

/// Thrown by a handler that cannot use its input: `throw HttpError(404, "no such file")`. The
/// response is that of `Responder::replyError`; nothing is logged. A response that has begun is cut
/// off instead: the client finds the connection closed.
class HttpError : public std::runtime_error
{
public:
    /// `status`: 400 to 599; any other value becomes 500. `message` is sent to the client; empty:
    /// the standard reason phrase of the status.
    explicit HttpError(int status, const std::string& message = std::string())
        : std::runtime_error(message), mStatus(status)
    {}

    /// The status as given.
    int status() const { return mStatus; }

private:
    int mStatus;
};

}  // namespace qv::kit

#endif

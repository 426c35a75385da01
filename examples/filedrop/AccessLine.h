/// The line that each request leaves in the log.
#ifndef FILEDROP_ACCESSLINE_H
#define FILEDROP_ACCESSLINE_H

#include <Wendrel/kit/Request.h>

#include <cstdint>
#include <string>

namespace filedrop
{

/// The part of the line that is known before the response.
class AccessLine
{
public:
    explicit AccessLine(const qv::kit::Request& request);

    /// Writes "127.0.0.1 GET /files/a 200 1000 bytes 3 ms"; without `isSent` "lost" takes the
    /// place of the status. `bytes`: of the body. Any thread.
    void write(int status, bool isSent, uint64_t bytes) const;

private:
    std::string mRequest;
    int64_t mStartedMs;
};

}  // namespace filedrop

#endif

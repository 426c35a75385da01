/// The line that each request leaves in the log.
#ifndef FILEDROP_ACCESSLINE_H
#define FILEDROP_ACCESSLINE_H

#include <Wendrel/kit/CompletedRequest.h>

namespace filedrop
{

/// Writes "127.0.0.1 GET /files/a 200 1000 bytes 3 ms"; the reason takes the place of the status of
/// a request that was aborted. The bytes are those of the response's body. Any thread.
void writeAccessLine(const qv::kit::CompletedRequest& request);

}  // namespace filedrop

#endif

// Creates responses and queues them.
#ifndef BENCH_BARE_REPLY_H
#define BENCH_BARE_REPLY_H

#include "support/Question.h"

#include <microhttpd.h>

#include <cstdint>
#include <string>

namespace bench
{

// The page requested; `path` and `method` as the daemon passes them.
Question questionOf(MHD_Connection* connection, const char* method, const char* path);

// A response with a constant body, which is not copied.
MHD_Response* makeLasting(const std::string& body);

// A response whose body is copied.
MHD_Response* makeCopied(const std::string& body);

// A response of unknown length.
MHD_Response* makeStream(MHD_ContentReaderCallback read, void* closure);

// Gives `response` away; MHD_NO when there is none.
MHD_Result queueAndDestroy(MHD_Connection* connection, unsigned int status, MHD_Response* response);

}  // namespace bench

#endif

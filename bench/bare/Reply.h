// Answers, made and given to the daemon.
#ifndef BENCH_BARE_REPLY_H
#define BENCH_BARE_REPLY_H

#include "support/Question.h"

#include <microhttpd.h>

#include <cstdint>
#include <string>

namespace bench
{

// What a connection asks for; `path` and `method` as the daemon gives them.
Question questionOf(MHD_Connection* connection, const char* method, const char* path);

// An answer whose body lives as long as the process: it is not copied.
MHD_Response* makeLasting(const std::string& body);

// An answer whose body is copied.
MHD_Response* makeCopied(const std::string& body);

// An answer of unknown length.
MHD_Response* makeStream(MHD_ContentReaderCallback read, void* closure);

// Gives `response` away; MHD_NO when there is none.
MHD_Result queueAndDestroy(MHD_Connection* connection, unsigned int status, MHD_Response* response);

}  // namespace bench

#endif

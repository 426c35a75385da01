// The strict UTF-8 check for everything that a client may name.
#ifndef WENDREL_REQUEST_UTF8_H
#define WENDREL_REQUEST_UTF8_H

#include <string>

namespace qv::impl
{

// The first byte in [begin, end) that does not start a valid sequence (RFC 3629: shortest
// form, no surrogates, nothing above U+10FFFF, nothing cut off); `end` when all is valid.
const char* FindInvalidUtf8(const char* begin, const char* end);

bool IsValidUtf8(const std::string& text);

}  // namespace qv::impl

#endif

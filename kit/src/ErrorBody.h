// The body of an error, in the form that the client reads.
#ifndef WENDREL_KIT_SRC_ERRORBODY_H
#define WENDREL_KIT_SRC_ERRORBODY_H

#include <Wendrel/kit/ResponseHead.h>

#include <string>
#include <string_view>

namespace qv::kit
{

struct ErrorBody
{
    std::string text;
    ContentType type;
};

// By the header Accept: problem details (RFC 9457) unless the client prefers HTML, as browsers do,
// or accepts neither; then a text. `message` may be empty.
ErrorBody makeErrorBody(std::string_view accept, int status, const std::string& message);

}  // namespace qv::kit

#endif

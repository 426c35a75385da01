// A common mistake: JSON without its header. Compiled only to see the error.

#include <Wendrel/kit/Request.h>

void respond(qv::kit::Request& request)
{
    request.replyJson(7);
    request.json();
}

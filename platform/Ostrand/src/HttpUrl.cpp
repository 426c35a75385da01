// A URL that HTTP can use.

#include <Ostrand/HttpUrl.h>

namespace qv::http
{

bool HttpUrl::isValid() const
{
    return Url::isValid() && (scheme() == "http" || scheme() == "https") && !host().empty();
}

}  // namespace qv::http

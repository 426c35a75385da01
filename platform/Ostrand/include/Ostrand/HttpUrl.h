#ifndef OSTRAND_HTTPURL_H
#define OSTRAND_HTTPURL_H

#include <Ostrand/Url.h>

namespace qv
{
namespace http
{

/// A URL of the schemes http and https.
class QV_EXPORT HttpUrl : public Url
{
public:
    /// No URL: `isValid()` is false.
    HttpUrl() = default;

    /// True after a successful parse of a URL with scheme http or https and a host.
    bool isValid() const;
};

}  // namespace http
}  // namespace qv

#endif

/// The page, compiled in.
#ifndef FILEDROP_PAGE_H
#define FILEDROP_PAGE_H

#include <string>
#include <string_view>

namespace filedrop
{

/// page.html as it is in the source tree.
extern const std::string_view kPage;

/// The page with `nonce` inserted into its style and script elements. A browser runs no other
/// script or style of the page.
std::string pageWithNonce(const std::string& nonce);

/// The Content-Security-Policy that goes with it.
std::string pagePolicy(const std::string& nonce);

/// A nonce that nobody can guess; throws std::system_error when the system gives no random
/// bytes.
std::string makeNonce();

}  // namespace filedrop

#endif

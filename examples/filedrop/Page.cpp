// The part added to the page each time it is sent.

#include "Page.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <sys/random.h>
#include <system_error>
#include <unistd.h>

namespace filedrop
{

std::string pageWithNonce(const std::string& nonce)
{
    constexpr std::string_view kPlace = "@NONCE@";
    std::string page;
    page.reserve(kPage.size() + 2 * nonce.size());
    std::string_view rest = kPage;
    for (size_t at = rest.find(kPlace); at != std::string_view::npos; at = rest.find(kPlace)) {
        page.append(rest.substr(0, at)).append(nonce);
        rest.remove_prefix(at + kPlace.size());
    }
    return page.append(rest);
}

std::string pagePolicy(const std::string& nonce)
{
    return "default-src 'none'; connect-src 'self' ws: wss:; img-src data:; script-src 'nonce-" +
           nonce + "'; style-src 'nonce-" + nonce +
           "'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
}

std::string makeNonce()
{
    unsigned char bytes[16];
    if (getentropy(bytes, sizeof bytes) != 0)
        throw std::system_error(errno, std::generic_category(), "getentropy");
    std::string nonce;
    for (const unsigned char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        nonce += digits;
    }
    return nonce;
}

}  // namespace filedrop

#ifndef OSTRAND_URL_H
#define OSTRAND_URL_H

#include <qvSystem/Export.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qv
{

/// A parsed absolute URL (RFC 3986); a plain value. One object may be read by several
/// threads at once.
class QV_EXPORT Url
{
public:
    /// No URL: `isValid()` is false.
    Url() = default;

    /// Parses `text` into this object.
    ///
    /// Besides RFC 3986 it takes what browsers really send: `| \ ^ ` { } " < > [ ]` in path
    /// and query, and raw bytes from 0x80 up that form UTF-8, are taken as if
    /// percent-encoded. Refused are a space or control character, a `%` not followed by two
    /// hexadecimal digits, with `strictUtf8` a percent-decoded component that is not UTF-8,
    /// a port above 65535 or followed by anything but `/`, `?`, `#` or the end, and path,
    /// query and fragment together longer than `maxLength` bytes.
    ///
    /// Returns true on success. Otherwise the object is as if newly made (`isValid()` is
    /// false) and `*error`, unless null, says what is wrong and at which byte of `text`, counted
    /// from 1.
    bool fromEncodedUtf8String(const std::string& text, std::string* error, bool strictUtf8,
                               unsigned long maxLength);

    /// The same for `text` that is a base ("http://host:80") of `baseBytes` bytes and, right
    /// behind it, the target of a request. Refused are also a target that leaves no host ("@/x"),
    /// one whose decoded path has a control character, and one whose decoded query has a control
    /// character other than tab, line feed and carriage return. Bytes are counted from 1 at the
    /// beginning of the target. With `baseBytes` 0 it is the overload above.
    bool fromEncodedUtf8String(const std::string& text, std::string* error, bool strictUtf8,
                               unsigned long maxLength, size_t baseBytes);

    /// True after a successful parse.
    bool isValid() const { return mValid; }

    /// In lower case.
    const std::string& scheme() const { return mScheme; }

    /// Decoded, without the brackets of an IPv6 address.
    const std::string& host() const { return mHost; }

    /// The port written in the URL; 0 when there is none.
    uint16_t port() const { return mPort; }

    /// Decoded; "%2F" in it cannot be told from "/": use `pathSegments` to route by.
    const std::string& path() const { return mPath; }

    /// As received, with what RFC 3986 does not allow percent-encoded.
    const std::string& encodedPath() const { return mEncodedPath; }

    /// The parts between the slashes, each decoded: "/a/b%2Fc" gives "a", "b/c"; "/" gives
    /// none; "/a/" gives "a", "".
    const std::vector<std::string>& pathSegments() const { return mPathSegments; }

    /// What follows "?", still encoded; empty when there is none.
    const std::string& query() const { return mQuery; }

    /// What follows "#", decoded; empty when there is none.
    const std::string& fragment() const { return mFragment; }

private:
    std::string mScheme;
    std::string mHost;
    std::string mPath;
    std::string mEncodedPath;
    std::vector<std::string> mPathSegments;
    std::string mQuery;
    std::string mFragment;
    uint16_t mPort = 0;
    bool mValid = false;
};

}  // namespace qv

#endif

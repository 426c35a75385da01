#ifndef QVOPENSSL_BASE64_H
#define QVOPENSSL_BASE64_H

#include <qvSystem/Export.h>

#include <string>

namespace qv
{

/// Standard: A-Z a-z 0-9 + / with "=" padding. UrlSafe: - and _ instead of + and /, with
/// no padding.
enum class Base64CharSet : int { Standard = 0, UrlSafe = 1 };

/// Appends the base64 text of `size` bytes of `data` to `out`; no line breaks. Any thread.
QV_EXPORT void base64Encode(const char* data, unsigned long size, std::string& out,
                            Base64CharSet charSet);

}  // namespace qv

#endif

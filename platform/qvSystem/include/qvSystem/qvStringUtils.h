#ifndef QVSYSTEM_QVSTRINGUTILS_H
#define QVSYSTEM_QVSTRINGUTILS_H

#include <qvSystem/Export.h>

#include <string>

namespace qv
{

/// Helpers on byte strings.
class QV_EXPORT qvStringUtils
{
public:
    /// True if `text` holds a byte 0x00 to 0x1F or 0x7F. Bytes from 0x80 up are not ASCII
    /// and pass.
    static bool ContainsAsciiNonPrintableChar(const std::string& text);
};

}  // namespace qv

#endif

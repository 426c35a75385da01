// Helpers on byte strings.

#include <qvSystem/qvStringUtils.h>

#include <algorithm>

namespace qv
{

bool qvStringUtils::ContainsAsciiNonPrintableChar(const std::string& text)
{
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

}  // namespace qv

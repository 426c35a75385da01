// The name of a download, for old clients and for new ones.

#include "Disposition.h"

#include "FileName.h"
#include "Text.h"

namespace qv::kit
{
namespace
{

// Characters that filename* allows without percent-encoding.
bool isPlainInExtendedValue(char c)
{
    constexpr std::string_view kMarks = "!#$&+-.^_`|~";
    return isLetterOrDigit(c) || kMarks.find(c) != kMarks.npos;
}

// For clients that do not know filename*: each character outside ASCII becomes one "_", and so does
// "%", which they are known to read in more than one way.
std::string asciiFallback(const std::string& name)
{
    std::string out;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte & 0xc0) == 0x80)
            continue;
        out += byte >= 0x80 || c == '%' ? '_' : c;
    }
    return out;
}

}  // namespace

std::string attachment(std::string_view name)
{
    const std::string text = safeFileName(name);
    const std::string fallback = asciiFallback(text);
    std::string value = "attachment; filename=\"" + fallback + "\"";
    if (fallback != text)
        value += "; filename*=UTF-8''" + percentEncoded(text, &isPlainInExtendedValue);
    return value;
}

}  // namespace qv::kit

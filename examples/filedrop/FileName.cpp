// The check of every name of a client before it is passed to the file system.

#include "FileName.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace filedrop
{

const char* const kTemporaryPrefix = ".filedrop-upload-";

namespace
{

constexpr size_t kNameLimitBytes = 255;  // the limit of Linux file systems

bool isControl(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

// C1 control characters, U+0080 to U+009F, take two bytes.
bool hasC1Control(const std::string& text)
{
    for (size_t i = 0; i + 1 < text.size(); ++i) {
        const auto second = static_cast<unsigned char>(text[i + 1]);
        if (text[i] == '\xc2' && second >= 0x80 && second <= 0x9f)
            return true;
    }
    return false;
}

// Length of the sequence that `first` begins; 0 when none begins with it.
size_t sequenceLength(unsigned char first)
{
    if (first < 0x80)
        return 1;
    if (first >= 0xc2 && first <= 0xdf)
        return 2;
    if (first >= 0xe0 && first <= 0xef)
        return 3;
    if (first >= 0xf0 && first <= 0xf4)
        return 4;
    return 0;
}

// The second byte of some sequences has a narrower range: it keeps out longer forms than
// needed, surrogates and values above U+10FFFF.
bool isSecondByte(unsigned char first, unsigned char second)
{
    switch (first) {
    case 0xe0:
        return second >= 0xa0 && second <= 0xbf;
    case 0xed:
        return second >= 0x80 && second <= 0x9f;
    case 0xf0:
        return second >= 0x90 && second <= 0xbf;
    case 0xf4:
        return second >= 0x80 && second <= 0x8f;
    default:
        return second >= 0x80 && second <= 0xbf;
    }
}

bool isSequence(const unsigned char* bytes, size_t length)
{
    if (length >= 2 && !isSecondByte(bytes[0], bytes[1]))
        return false;
    return std::all_of(bytes + std::min<size_t>(length, 2), bytes + length,
                       [](unsigned char byte) { return (byte & 0xc0) == 0x80; });
}

}  // namespace

bool isTemporaryName(const std::string& name)
{
    return name.rfind(kTemporaryPrefix, 0) == 0;
}

bool isUtf8(const std::string& text)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    size_t left = text.size();
    while (left > 0) {
        const size_t length = sequenceLength(*bytes);
        if (length == 0 || length > left || !isSequence(bytes, length))
            return false;
        bytes += length;
        left -= length;
    }
    return true;
}

std::string refusalOfName(const std::string& name)
{
    if (name.empty())
        return "A file needs a name.";
    if (name.size() > kNameLimitBytes)
        return "The name is longer than 255 bytes.";
    if (!isUtf8(name))
        return "The name is not valid UTF-8.";
    if (name.find('/') != std::string::npos)
        return "A name cannot contain a slash.";
    if (std::any_of(name.begin(), name.end(), isControl) || hasC1Control(name))
        return "A name cannot contain control characters.";
    if (name == "." || name == "..")
        return "A file cannot have this name.";
    if (isTemporaryName(name))
        return "Names that begin like this are kept for unfinished uploads.";
    return {};
}

}  // namespace filedrop

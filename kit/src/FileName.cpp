// A name of a client becomes one that cannot leave its directory, hide, or show itself as another.

#include "FileName.h"

#include "Text.h"
#include "websocket/Utf8Check.h"

#include <algorithm>
#include <array>

namespace qv::kit
{
namespace
{

constexpr size_t kMaxNameBytes = 255;
constexpr size_t kMaxExtensionBytes = 20;
constexpr const char* kNoName = "file";

// Of the character that begins with `lead`; 1 for a byte that begins none.
size_t lengthOf(char lead)
{
    const auto byte = static_cast<unsigned char>(lead);
    return byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
}

// Control characters of both sets, and those that change the direction of a text.
bool isInvisible(std::string_view character)
{
    constexpr std::array<std::string_view, 12> kDirections{"\u061c", "\u200e", "\u200f", "\u202a",
                                                           "\u202b", "\u202c", "\u202d", "\u202e",
                                                           "\u2066", "\u2067", "\u2068", "\u2069"};
    if (character.size() == 1)
        return isControl(character.front());
    if (character.size() == 2 && character[0] == '\xc2' && character[1] <= '\x9f')
        return true;
    return std::find(kDirections.begin(), kDirections.end(), character) != kDirections.end();
}

// Devices of Windows, with any extension.
bool isDevice(std::string_view name)
{
    constexpr std::array<std::string_view, 4> kNames{"con", "prn", "aux", "nul"};
    const std::string stem = toLower(std::string(name.substr(0, name.find('.'))));
    if (std::find(kNames.begin(), kNames.end(), stem) != kNames.end())
        return true;
    return stem.size() == 4 && (stem.compare(0, 3, "com") == 0 || stem.compare(0, 3, "lpt") == 0) &&
           isDigit(stem[3]);
}

std::string visible(std::string_view name)
{
    constexpr std::string_view kNotAllowed = "<>:\"|?*";
    std::string text;
    while (!name.empty()) {
        const std::string_view character = name.substr(0, lengthOf(name.front()));
        if (!websocket::isUtf8(character)) {
            text += '_';
            name.remove_prefix(1);
            continue;
        }
        name.remove_prefix(character.size());
        if (isInvisible(character))
            continue;
        if (kNotAllowed.find(character) != std::string_view::npos)
            text += '_';
        else
            text.append(character);
    }
    return text;
}

// At the end of a character, before the extension.
void shorten(std::string& name)
{
    if (name.size() <= kMaxNameBytes)
        return;
    const size_t dot = name.rfind('.');
    std::string extension;
    if (dot != std::string::npos && name.size() - dot <= kMaxExtensionBytes)
        extension = name.substr(dot);
    name.resize(cutUtf8(name, kMaxNameBytes - extension.size()).size());
    name += extension;
}

}  // namespace

std::string safeFileName(std::string_view name)
{
    constexpr std::string_view kEnds = ". ";
    name.remove_prefix(name.find_last_of("/\\") + 1);
    std::string text = visible(name);
    text.erase(0, std::min(text.find_first_not_of(kEnds), text.size()));
    text.erase(text.find_last_not_of(kEnds) + 1);
    if (text.empty())
        return kNoName;
    if (isDevice(text))
        text.insert(0, "_");
    shorten(text);
    text.erase(text.find_last_not_of(kEnds) + 1);
    return text;
}

}  // namespace qv::kit

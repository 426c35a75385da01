/// Which names a client may use.
#ifndef FILEDROP_FILENAME_H
#define FILEDROP_FILENAME_H

#include <string>

namespace filedrop
{

/// The prefix of the names of unfinished uploads; no client may use such a name.
extern const char* const kTemporaryPrefix;

/// True for the name of an unfinished upload.
bool isTemporaryName(const std::string& name);

/// True for well-formed UTF-8: shortest form only, no surrogates, nothing above U+10FFFF.
bool isUtf8(const std::string& text);

/// Why `name`, one decoded segment of a path, cannot name a file here, in words for the
/// person who chose it; empty when it can: 1 to 255 bytes of UTF-8 without "/" and control
/// characters (NUL among them), not "." or "..", not the name of an unfinished upload.
std::string refusalOfName(const std::string& name);

}  // namespace filedrop

#endif

// Files below a directory, and nowhere else.
#ifndef WENDREL_KIT_SRC_BENEATH_H
#define WENDREL_KIT_SRC_BENEATH_H

#include "FileDescriptor.h"

#include <Wendrel/kit/Files.h>

#include <string>

namespace qv::kit
{

// Opens a file or directory below `root` for reading, by a path of names that are joined by "/";
// "" is `root` itself. Without a file: not open, with the reason in `errno`; EXDEV when a symbolic
// link leads out of `root`.
FileDescriptor openBeneath(int root, const std::string& path, SymbolicLinks links);

// The same for a directory, of which nothing is read: the permission to search it is enough.
FileDescriptor openDirectoryBeneath(int root, const std::string& path, SymbolicLinks links);

// As openBeneath, by one step for each name, where the system has no openat2, or forbids it.
FileDescriptor walkBeneath(int root, const std::string& path, SymbolicLinks links);

}  // namespace qv::kit

#endif

/// Options of files and directories as responses.
#ifndef WENDREL_KIT_FILES_H
#define WENDREL_KIT_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace qv::kit
{

/// The header `ETag` of a file, made of its inode, size and times of modification and of change.
enum class FileTag : uint8_t {
    Automatic,  ///< strong; another one, weak, within 2 s of a modification: the next may look
                ///< alike
    Strong,     ///< for files that are replaced, never changed
    Weak,       ///< for files whose bytes may change and mean the same
    None        ///< dates only
};

/// Options of `Responder::replyFile`. A plain value.
struct FileOptions
{
    /// "image/png"; empty: by the extension of the name. Types of the Web come from a table of the
    /// kit, others from that of shared-mime-info (/usr/share/mime/globs2) if it is installed;
    /// "application/octet-stream" otherwise.
    std::string type;
    /// Clients save the file under this name (`Content-Disposition: attachment`), made harmless as
    /// `Part::fileName` is. Empty: they show it.
    std::string downloadName;
    /// The header `Cache-Control`; empty: as set, "no-cache" without one. With that a client asks
    /// before each use, and gets 304 while the file is the same.
    std::string cacheControl;
    /// See FileTag.
    FileTag tag = FileTag::Automatic;
    /// A sibling with the further extension ".zst", ".br" or ".gz" is sent in place of the file
    /// when the client accepts its coding, and it has not been modified earlier, to the nanosecond.
    /// `Vary: Accept-Encoding` is sent with each response for a file that exists then. Not for
    /// `Responder::replyOpenFile`.
    bool precompressed = false;
};

/// The treatment of symbolic links in a directory.
enum class SymbolicLinks : uint8_t {
    Within,  ///< followed while they stay within the directory; relative links only
    Refuse   ///< 404
};

/// Options of `Router::directory`. A plain value.
struct DirectoryOptions
{
    /// Files that stand for their directory; the first that exists is sent. 403 when the server
    /// must not read that one.
    std::vector<std::string> index{"index.html"};
    /// A directory without one of them is listed: as JSON for a client that prefers
    /// application/json, as a page for others. At most 10000 names are looked at, and names that
    /// are not UTF-8 left out, because no target can have them. 403 for a directory that the server
    /// must not read. False: 404.
    bool listing = false;
    /// Serves names that begin with a dot, too.
    bool hidden = false;
    /// See SymbolicLinks.
    SymbolicLinks links = SymbolicLinks::Within;
    /// As in FileOptions.
    bool precompressed = true;
    /// As in FileOptions, for listings too.
    std::string cacheControl;
    /// As in FileOptions.
    FileTag tag = FileTag::Automatic;
};

}  // namespace qv::kit

#endif

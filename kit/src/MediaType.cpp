// Types of the Web are the same on every machine; for all others the machine is asked.

#include "MediaType.h"

#include "Text.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <string>
#include <unordered_map>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr const char* kGlobs = "/usr/share/mime/globs2";
constexpr const char* kUnknown = "application/octet-stream";
constexpr std::string_view kCharset = "; charset=utf-8";

struct NamedType
{
    std::string_view extension;
    const char* type;
};

// In order of the extensions.
constexpr NamedType kWebTypes[] = {
    {"7z", "application/x-7z-compressed"},
    {"aac", "audio/aac"},
    {"apng", "image/apng"},
    {"atom", "application/atom+xml"},
    {"avi", "video/x-msvideo"},
    {"avif", "image/avif"},
    {"bmp", "image/bmp"},
    {"br", "application/x-brotli"},
    {"bz2", "application/x-bzip2"},
    {"css", "text/css; charset=utf-8"},
    {"csv", "text/csv; charset=utf-8"},
    {"deb", "application/vnd.debian.binary-package"},
    {"doc", "application/msword"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"epub", "application/epub+zip"},
    {"flac", "audio/flac"},
    {"gif", "image/gif"},
    {"gz", "application/gzip"},
    {"htm", "text/html; charset=utf-8"},
    {"html", "text/html; charset=utf-8"},
    {"ico", "image/vnd.microsoft.icon"},
    {"ics", "text/calendar; charset=utf-8"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"js", "text/javascript; charset=utf-8"},
    {"json", "application/json"},
    {"jsonld", "application/ld+json"},
    {"jxl", "image/jxl"},
    {"log", "text/plain; charset=utf-8"},
    {"m4a", "audio/mp4"},
    {"map", "application/json"},
    {"md", "text/markdown; charset=utf-8"},
    {"mjs", "text/javascript; charset=utf-8"},
    {"mkv", "video/x-matroska"},
    {"mov", "video/quicktime"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
    {"odp", "application/vnd.oasis.opendocument.presentation"},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
    {"odt", "application/vnd.oasis.opendocument.text"},
    {"oga", "audio/ogg"},
    {"ogg", "audio/ogg"},
    {"ogv", "video/ogg"},
    {"opus", "audio/ogg"},
    {"otf", "font/otf"},
    {"pdf", "application/pdf"},
    {"png", "image/png"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {"rar", "application/vnd.rar"},
    {"rtf", "application/rtf"},
    {"sh", "application/x-sh"},
    {"svg", "image/svg+xml"},
    {"tar", "application/x-tar"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"ttf", "font/ttf"},
    {"txt", "text/plain; charset=utf-8"},
    {"wasm", "application/wasm"},
    {"wav", "audio/wav"},
    {"weba", "audio/webm"},
    {"webm", "video/webm"},
    {"webmanifest", "application/manifest+json"},
    {"webp", "image/webp"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"xhtml", "application/xhtml+xml"},
    {"xls", "application/vnd.ms-excel"},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {"xml", "application/xml"},
    {"xz", "application/x-xz"},
    {"zip", "application/zip"},
    {"zst", "application/zstd"},
};

// "a.tar.gz": "tar.gz", then "gz". A dot at the beginning of a name hides it.
std::string_view firstExtension(std::string_view name)
{
    const size_t dot = name.find('.', 1);
    return dot == name.npos ? std::string_view() : name.substr(dot + 1);
}

std::string_view nextExtension(std::string_view extension)
{
    return extension.substr(std::min(extension.find('.'), extension.size() - 1) + 1);
}

const char* webType(std::string_view extension)
{
    const auto* const end = std::end(kWebTypes);
    const auto* const found = std::lower_bound(
        std::begin(kWebTypes), end, extension,
        [](const NamedType& row, std::string_view e) { return row.extension < e; });
    return found != end && found->extension == extension ? found->type : nullptr;
}

// The patterns "*.EXTENSION"; those of higher weight come first in the file.
std::unordered_map<std::string, std::string> readGlobs(const char* path)
{
    std::unordered_map<std::string, std::string> types;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        const size_t type = line.find(':') + 1;
        const size_t glob = line.find(':', type) + 1;
        if (type == 0 || glob == 0 || line.compare(glob, 2, "*.") != 0)
            continue;
        const size_t end = std::min(line.find(':', glob), line.size());
        std::string extension = toLower(line.substr(glob + 2, end - glob - 2));
        if (extension.find_first_of("*?[") == extension.npos)
            types.emplace(std::move(extension), line.substr(type, glob - type - 1));
    }
    return types;
}

}  // namespace

std::string mediaType(std::string_view name)
{
    const std::string extensions = toLower(std::string(firstExtension(name)));
    if (extensions.empty())
        return kUnknown;
    if (const char* const type =
            webType(std::string_view(extensions).substr(extensions.rfind('.') + 1)))
        return type;
    static const std::unordered_map<std::string, std::string> types = readGlobs(kGlobs);
    for (std::string_view extension = extensions; !extension.empty();
         extension = nextExtension(extension)) {
        const auto found = types.find(std::string(extension));
        if (found == types.end())
            continue;
        const bool isText = found->second.compare(0, 5, "text/") == 0;
        return isText ? found->second + std::string(kCharset) : found->second;
    }
    return kUnknown;
}

}  // namespace qv::kit

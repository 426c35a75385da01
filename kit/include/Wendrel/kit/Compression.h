/// Options of compressed responses.
#ifndef WENDREL_KIT_COMPRESSION_H
#define WENDREL_KIT_COMPRESSION_H

#include <cstdint>
#include <string>
#include <vector>

namespace qv::kit
{

/// Compression of responses by zstd or gzip, as the client accepts them; see
/// `ServerOptions::compression` and `Route::compression`. A plain value.
///
/// Never compressed: bodies with `Content-Encoding` or `Content-Range`, `Cache-Control` with
/// no-transform, statuses other than 200 to 203 and 400 to 599, streams of a declared length, and
/// files above 1 MiB. A response that could be compressed has `Vary: Accept-Encoding`; one that is
/// has a weak `ETag`.
struct CompressionOptions
{
    /// Off unless told otherwise. A response with a secret beside a text that the client chooses
    /// must not be compressed.
    bool enabled = false;
    /// Bytes of a body whose length is known, at least.
    uint64_t minBytes = 1024;
    /// Media types without parameters; "text/*" and "*+json" stand for many.
    std::vector<std::string> types{"text/html",
                                   "text/css",
                                   "text/plain",
                                   "text/csv",
                                   "text/markdown",
                                   "text/xml",
                                   "text/javascript",
                                   "text/calendar",
                                   "application/json",
                                   "application/javascript",
                                   "application/manifest+json",
                                   "application/problem+json",
                                   "application/xml",
                                   "application/xhtml+xml",
                                   "application/wasm",
                                   "image/svg+xml"};
};

}  // namespace qv::kit

#endif

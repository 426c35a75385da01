// Codings of responses: zstd and gzip.
#ifndef WENDREL_KIT_SRC_COMPRESSOR_H
#define WENDREL_KIT_SRC_COMPRESSOR_H

#include <Wendrel/BodySource.h>
#include <Wendrel/MemoryAccount.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qv::kit
{

enum class Coding : uint8_t { Identity, Gzip, Zstd };

// "gzip"; "" of Identity.
std::string_view nameOf(Coding coding);

// The coding that the client wants most. `acceptEncoding` may be null.
Coding chooseCoding(const std::string* acceptEncoding);

// One body. Allocates nothing after its first step, and throws nothing. Used by one thread at a
// time.
class Compressor
{
public:
    // Memory of a compressor at most; a test holds it against both libraries.
    static constexpr uint64_t kMaxBytes = 344064;

    enum class Step : uint8_t { Continue, Flush, End };
    enum class Result : uint8_t {
        Done,  // all of the input is used, and with Flush or End all of the output written
        More,  // call again with an empty buffer
        Failed
    };

    // Null when `memory` has no space for it. Throws std::bad_alloc.
    static std::unique_ptr<Compressor> within(const MemoryAccount& memory, Coding coding);

    // Throws std::bad_alloc.
    explicit Compressor(Coding coding);
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    // Uses bytes of `input` from its front; `written` bytes of `buffer` have been filled.
    Result step(std::string_view& input, Step step, char* buffer, size_t size, size_t& written);

    // Of its libraries at this moment; 0 where the library does not tell.
    size_t usedBytes() const;

private:
    struct Gzip;
    struct Zstd;

    Result stepGzip(std::string_view& input, Step step, char* buffer, size_t size, size_t& written);
    Result stepZstd(std::string_view& input, Step step, char* buffer, size_t size, size_t& written);

    MemoryAccount mMemory;
    uint64_t mChargedBytes = 0;
    const std::unique_ptr<Gzip> mGzip;
    const std::unique_ptr<Zstd> mZstd;
};

// Replaces `source`, which has a length and never says "not yet", by all of its compressed bytes,
// which `memory` counts. False, with `source` as it was, when that is not possible. Throws
// std::bad_alloc.
bool compressWhole(std::unique_ptr<BodySource>& source, Coding coding, const MemoryAccount& memory);

// A body that is compressed by the daemon thread while it is sent, in steps of 16384 bytes; all
// that has been read is flushed whenever there is no more for the moment. Null when `memory` has no
// space for its compressor; `source` is kept then. Throws std::bad_alloc.
std::unique_ptr<BodySource> compressSource(std::unique_ptr<BodySource>& source, Coding coding,
                                           const MemoryAccount& memory);

}  // namespace qv::kit

#endif

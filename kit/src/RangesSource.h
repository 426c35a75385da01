// Several ranges of a file as one body.
#ifndef WENDREL_KIT_SRC_RANGESSOURCE_H
#define WENDREL_KIT_SRC_RANGESSOURCE_H

#include "Conditional.h"

#include <Wendrel/BodySource.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qv::kit
{

// The body of multipart/byteranges.
class RangesSource : public BodySource
{
public:
    // `file`: the whole file, of `fileBytes` bytes and of the type `type`.
    RangesSource(std::unique_ptr<BodySource> file, const std::vector<ByteRange>& ranges,
                 uint64_t fileBytes, const std::string& type);

    // The value of Content-Type.
    std::string contentType() const { return "multipart/byteranges; boundary=" + mBoundary; }

    int64_t getLength() const override { return static_cast<int64_t>(mBytes); }
    BodyRead read(uint64_t offset, char* buffer, size_t size) override;
    size_t getBlockBytes() const override { return mFile->getBlockBytes(); }

private:
    // A text, and the bytes of the file that follow it.
    struct Part
    {
        uint64_t begin;  // in the body
        std::string head;
        uint64_t first;  // in the file
        uint64_t bytes;
    };

    void add(std::string&& head, uint64_t first, uint64_t bytes);

    const std::unique_ptr<BodySource> mFile;
    const std::string mBoundary;
    std::vector<Part> mParts;
    uint64_t mBytes = 0;
};

}  // namespace qv::kit

#endif

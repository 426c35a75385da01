// The body of a form in parts, read in constant memory.
#ifndef WENDREL_KIT_SRC_MULTIPARTREADER_H
#define WENDREL_KIT_SRC_MULTIPARTREADER_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace qv::kit
{

// Splits a body as RFC 2046 has it in section 5.1. Throws HttpError 400 for one that is malformed.
class MultipartReader
{
public:
    // Reads up to `size` bytes, at least one unless the body has ended, or throws NotYet.
    using Source = std::function<size_t(char* buffer, size_t size)>;

    // Leaves `next` or `read`, which is called again when the source has further bytes.
    struct NotYet
    {};

    // The headers of a part that matter.
    struct Head
    {
        std::string disposition;  // the value of Content-Disposition
        std::string type;
    };

    MultipartReader(std::string_view boundary, Source source);

    // Goes to the next part; the rest of the present one is discarded. False after the last.
    bool next(Head& head);

    // Reads up to `size` bytes of the part; 0 at its end.
    size_t read(char* buffer, size_t size);

private:
    static constexpr size_t npos = std::string::npos;

    void goToPart(Head& head);
    bool fill();
    void findEnd();
    void beginData();
    void need(size_t bytes);
    std::string takeLine();
    void takeHead(Head& head);

    const std::string mDelimiter;
    const Source mSource;
    std::string mBuffer;
    size_t mAt = 0;            // of the first byte that has not been taken
    size_t mKept = npos;       // of the first byte that `next` may take again
    size_t mDataEnd = 0;       // up to here the bytes belong to the part
    bool mIsEndFound = false;  // the delimiter is at mDataEnd
    bool mIsAtEnd = false;     // of the part
    bool mIsOver = false;      // after the last part
};

}  // namespace qv::kit

#endif

// Forms of both encodings.
#ifndef WENDREL_KIT_SRC_FORMREADER_H
#define WENDREL_KIT_SRC_FORMREADER_H

#include "MultipartReader.h"

#include <Wendrel/kit/Form.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qv::kit
{

// Throws HttpError 400 for a body that is malformed, 413 beyond a limit, 415 for another type.
class FormReader
{
public:
    // Calls `take` with each part of a multipart body.
    static void readParts(std::string_view contentType, MultipartReader::Source source,
                          const std::function<void(Part&)>& take, const FormLimits& limits);

    // A body of either encoding.
    static Form read(std::string_view contentType, const std::string& body,
                     const FormLimits& limits);

private:
    friend class PartFeed;
    static void describe(PartHead& part, const MultipartReader::Head& head,
                         const FormLimits& limits);
    static void readEncoded(Form& form, std::string_view body, const FormLimits& limits);
};

// A multipart body that is given in pieces. Throws as FormReader and the callbacks do; it is not
// used any more then.
class PartFeed
{
public:
    using OnPart = std::function<PartTaker(const PartHead&)>;

    PartFeed(std::string contentType, OnPart onPart, const FormLimits& limits);
    PartFeed(const PartFeed&) = delete;
    PartFeed& operator=(const PartFeed&) = delete;

    void give(std::string_view piece);

    // After the last piece.
    void complete();

private:
    size_t takeRest(char* buffer, size_t size);
    void run();
    bool beginPart();
    bool takePart();

    const std::string mContentType;
    const OnPart mOnPart;
    const FormLimits mLimits;
    std::optional<MultipartReader> mReader;  // made with the first piece
    std::string_view mRest;                  // of the present piece
    bool mIsComplete = false;                // there are no further pieces
    bool mIsInPart = false;
    PartTaker mTaker;  // of that part
    size_t mFields = 0;
};

}  // namespace qv::kit

#endif

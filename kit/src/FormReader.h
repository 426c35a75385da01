// Forms of both encodings.
#ifndef WENDREL_KIT_SRC_FORMREADER_H
#define WENDREL_KIT_SRC_FORMREADER_H

#include "MultipartReader.h"

#include <Wendrel/kit/Form.h>

#include <functional>
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
    static void describe(Part& part, const MultipartReader::Head& head, const FormLimits& limits);
    static void readEncoded(Form& form, std::string_view body, const FormLimits& limits);
};

}  // namespace qv::kit

#endif

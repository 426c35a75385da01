// Forms of both encodings: the same body gives the same form in pieces of every size, names of
// files stay in their directory, and only HttpError is thrown.

#include "support/Check.h"

#include "FormReader.h"

#include <Wendrel/kit/HttpError.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace
{

using qv::kit::Form;
using qv::kit::FormField;
using qv::kit::FormFile;
using qv::kit::FormLimits;
using qv::kit::FormReader;
using qv::kit::HttpError;
using qv::kit::Part;

void CheckName(const std::string& name)
{
    FUZZ_CHECK(!name.empty() && name.size() <= 255);
    FUZZ_CHECK(name.front() != '.' && name.back() != '.' && name.back() != ' ');
    FUZZ_CHECK(name.find_first_of("/\\<>:\"|?*\r\n") == std::string::npos);
    FUZZ_CHECK(name.find('\0') == std::string::npos);
}

// Status of the error, or 200; appends the contents.
int ReadInPieces(const std::string& type, std::string_view body, size_t piece, std::string& text)
{
    FormLimits limits;
    limits.maxFields = 20;
    const auto source = [&](char* buffer, size_t size) {
        const size_t part = std::min({size, body.size(), piece});
        std::memcpy(buffer, body.data(), part);
        body.remove_prefix(part);
        return part;
    };
    const auto take = [&](Part& part) {
        if (part.isFile())
            CheckName(part.fileName());
        text += part.name() + '\0' + part.fileName() + '\0' + part.text(UINT64_MAX) + '\0';
    };
    try {
        FormReader::readParts(type, source, take, limits);
        return 200;
    } catch (const HttpError& error) {
        return error.status();
    }
}

void TryWhole(const std::string& type, const std::string& body)
{
    FormLimits limits;
    limits.maxFields = 20;
    try {
        const Form form = FormReader::read(type, body, limits);
        FUZZ_CHECK(form.fields().size() + form.files().size() <= limits.maxFields);
        size_t bytes = 0;
        for (const FormField& field : form.fields())
            bytes += field.name.size() + field.value.size();
        for (const FormFile& file : form.files()) {
            CheckName(file.fileName);
            bytes += file.content.size();
        }
        FUZZ_CHECK(bytes <= body.size());
    } catch (const HttpError& error) {
        FUZZ_CHECK(error.status() == 400 || error.status() == 413 || error.status() == 415);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto kind = input.ConsumeIntegralInRange<unsigned>(0, 3);
    const size_t piece = input.ConsumeIntegralInRange<size_t>(1, 200);
    const std::string type = kind == 0   ? input.ConsumeRandomLengthString(100)
                             : kind == 1 ? "application/x-www-form-urlencoded"
                                         : "multipart/form-data; boundary=b0";
    const std::string body = input.ConsumeRemainingBytesAsString();
    TryWhole(type, body);
    std::string whole;
    std::string inPieces;
    const int status = ReadInPieces(type, body, body.size() + 1, whole);
    FUZZ_CHECK(ReadInPieces(type, body, piece, inPieces) == status);
    FUZZ_CHECK(whole == inPieces);
    return 0;
}

// Forms: application/x-www-form-urlencoded as the URL standard has it, multipart/form-data by
// RFC 7578, with the spellings of names that browsers use.

#include "FileName.h"
#include "FormReader.h"
#include "Text.h"
#include "websocket/Utf8Check.h"

#include <Wendrel/kit/HttpError.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr int kBadRequest = 400;
constexpr int kContentTooLarge = 413;
constexpr int kUnsupportedType = 415;
constexpr int kInsufficientStorage = 507;
constexpr size_t kBlockBytes = 65536;
constexpr size_t kMaxBoundaryBytes = 70;
constexpr std::string_view kMultipart = "multipart/form-data";
constexpr std::string_view kEncoded = "application/x-www-form-urlencoded";

const std::string kNothing;

[[noreturn]] void refuse(const std::string& why)
{
    throw HttpError(kBadRequest, "the form is malformed: " + why);
}

[[noreturn]] void refuseLarge(const std::string& why)
{
    throw HttpError(kContentTooLarge, why);
}

int valueOf(char digit)
{
    if (isDigit(digit))
        return digit - '0';
    const char c = toLower(digit);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// The byte of "%XX" at the beginning; -1 without one.
int encodedByte(std::string_view text)
{
    if (text.size() < 3 || text[0] != '%' || valueOf(text[1]) < 0 || valueOf(text[2]) < 0)
        return -1;
    return valueOf(text[1]) * 16 + valueOf(text[2]);
}

// A "%" that begins no byte stands for itself.
std::string decoded(std::string_view text, bool hasPlus)
{
    std::string bytes;
    bytes.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        const int byte = encodedByte(text.substr(at, 3));
        if (byte >= 0) {
            bytes += static_cast<char>(byte);
            at += 2;
        } else {
            bytes += hasPlus && text[at] == '+' ? ' ' : text[at];
        }
    }
    return bytes;
}

// Browsers encode these three bytes of a name, and no other.
std::string decodedName(std::string_view text)
{
    std::string name;
    for (size_t at = 0; at < text.size(); ++at) {
        const int byte = encodedByte(text.substr(at, 3));
        if (byte == '"' || byte == '\r' || byte == '\n') {
            name += static_cast<char>(byte);
            at += 2;
        } else {
            name += text[at];
        }
    }
    return name;
}

// Behind the opening quotation mark. A backslash stands for itself, as browsers send it, except
// before a quotation mark or another one.
std::string takeQuoted(std::string_view& text)
{
    std::string value;
    size_t at = 0;
    for (; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\' && at + 1 < text.size() &&
            (text[at + 1] == '"' || text[at + 1] == '\\'))
            ++at;
        value += text[at];
    }
    text.remove_prefix(std::min(at + 1, text.size()));
    return value;
}

// Takes "; name=value"; false at the end.
bool takeParameter(std::string_view& text, std::string& name, std::string& value)
{
    const size_t semicolon = text.find(';');
    if (semicolon == std::string_view::npos)
        return false;
    text = trimmed(text.substr(semicolon + 1));
    const size_t end = std::min(text.find_first_of("=;"), text.size());
    name = toLower(std::string(trimmed(text.substr(0, end))));
    value.clear();
    text.remove_prefix(end);
    if (text.empty() || text.front() == ';')
        return true;
    text = trimmed(text.substr(1));
    if (!text.empty() && text.front() == '"') {
        text.remove_prefix(1);
        value = takeQuoted(text);
    } else {
        value = trimmed(text.substr(0, text.find(';')));
    }
    return true;
}

bool isType(std::string_view contentType, std::string_view type)
{
    return equalsIgnoringCase(trimmed(contentType.substr(0, contentType.find(';'))), type);
}

std::string boundaryOf(std::string_view contentType)
{
    std::string name;
    std::string value;
    while (takeParameter(contentType, name, value)) {
        if (name != "boundary")
            continue;
        constexpr std::string_view kMarks = "'()+_,-./:=? ";
        const bool isValid = std::all_of(value.begin(), value.end(), [&](char c) {
            return isLetterOrDigit(c) || kMarks.find(c) != std::string_view::npos;
        });
        if (isValid && !value.empty() && value.size() <= kMaxBoundaryBytes && value.back() != ' ')
            return value;
        break;
    }
    refuse("its type has no valid boundary");
}

std::string multipartBoundary(std::string_view contentType)
{
    if (!isType(contentType, kMultipart))
        throw HttpError(kUnsupportedType,
                        "the body must be a form of the type multipart/form-data");
    return boundaryOf(contentType);
}

// "UTF-8'en'%e2%82%ac": the charset, the language, the text. Empty for another charset.
std::string extendedValue(std::string_view text)
{
    constexpr std::string_view kCharset = "utf-8'";
    if (!equalsIgnoringCase(text.substr(0, kCharset.size()), kCharset))
        return std::string();
    const size_t quote = text.find('\'', kCharset.size());
    if (quote == std::string_view::npos)
        return std::string();
    return decoded(text.substr(quote + 1), false);
}

void checkName(const FormLimits& limits, size_t nameBytes)
{
    if (nameBytes > limits.maxNameBytes)
        refuseLarge("the form has a field whose name is longer than " +
                    std::to_string(limits.maxNameBytes) + " bytes");
}

void countField(const FormLimits& limits, size_t& fields)
{
    if (++fields > limits.maxFields)
        refuseLarge("the form has more than " + std::to_string(limits.maxFields) + " fields");
}

void checkUtf8(std::string_view text, const std::string& name)
{
    if (!websocket::isUtf8(text))
        refuse("the field \"" + name + "\" is not UTF-8");
}

}  // namespace

Parameter Form::field(std::string_view name) const
{
    const auto found = std::find_if(mFields.begin(), mFields.end(),
                                    [&](const FormField& field) { return field.name == name; });
    return {Parameter::Kind::FormField, name, found == mFields.end() ? kNothing : found->value};
}

const FormFile* Form::file(std::string_view name) const
{
    const auto found = std::find_if(mFiles.begin(), mFiles.end(),
                                    [&](const FormFile& file) { return file.field == name; });
    return found == mFiles.end() ? nullptr : &*found;
}

NewFile::NewFile(const std::string& path) : mPath(path)
{
    constexpr const char* kTemporaryPrefix = ".upload-";
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
    constexpr mode_t kMode = 0666;
    static std::atomic<unsigned> count{0};
    do {
        mTemporary = path.substr(0, path.rfind('/') + 1) + kTemporaryPrefix +
                     std::to_string(getpid()) + "-" + std::to_string(++count);
        mDescriptor = open(mTemporary.c_str(), kFlags, kMode);
    } while (mDescriptor < 0 && errno == EEXIST);
    if (mDescriptor < 0)
        fail();
}

NewFile::~NewFile()
{
    if (mDescriptor >= 0)
        close(mDescriptor);
    if (!mIsComplete)
        unlink(mTemporary.c_str());
}

void NewFile::write(std::string_view data)
{
    while (!data.empty()) {
        const ssize_t written = ::write(mDescriptor, data.data(), data.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            fail();
        data.remove_prefix(static_cast<size_t>(written));
        mBytes += static_cast<uint64_t>(written);
    }
}

void NewFile::complete()
{
    const int descriptor = std::exchange(mDescriptor, -1);
    if (close(descriptor) != 0 && errno != EINTR)
        fail();
    if (rename(mTemporary.c_str(), mPath.c_str()) != 0)
        fail();
    mIsComplete = true;
}

void NewFile::fail() const
{
    const int error = errno;
    if (error == ENOSPC || error == EDQUOT)
        throw HttpError(kInsufficientStorage);
    throw std::system_error(error, std::generic_category(), "cannot write " + mPath);
}

size_t Part::read(char* buffer, size_t size)
{
    return mReader.read(buffer, size);
}

std::string Part::text(uint64_t limitBytes)
{
    std::string text;
    std::array<char, kBlockBytes> block;
    for (;;) {
        const size_t got = read(block.data(), block.size());
        text.append(block.data(), got);
        if (text.size() > limitBytes)
            refuseLarge("the form field \"" + name() + "\" is longer than " +
                        std::to_string(limitBytes) + " bytes");
        if (got == 0)
            return text;
    }
}

uint64_t Part::saveTo(const std::string& path, uint64_t limitBytes)
{
    NewFile file(path);
    std::string block(kBlockBytes, '\0');
    while (const size_t got = read(block.data(), block.size())) {
        if (got > limitBytes - file.size())
            refuseLarge("the file \"" + fileName() + "\" is longer than " +
                        std::to_string(limitBytes) + " bytes");
        file.write({block.data(), got});
    }
    file.complete();
    return file.size();
}

void FormReader::describe(PartHead& part, const MultipartReader::Head& head,
                          const FormLimits& limits)
{
    if (!isType(head.disposition, "form-data"))
        refuse("a part is no field");
    std::string_view rest = head.disposition;
    std::string name;
    std::string value;
    std::string extended;
    bool hasName = false;
    while (takeParameter(rest, name, value)) {
        if (name == "name" && std::exchange(hasName, true))
            refuse("a part has two names");
        if (name == "name")
            part.mName = decodedName(value);
        else if (name == "filename" && !std::exchange(part.mIsFile, true))
            part.mFileNameAsSent = decodedName(value);
        else if (name == "filename*")
            extended = extendedValue(value);
    }
    if (!extended.empty()) {
        part.mIsFile = true;
        part.mFileNameAsSent = std::move(extended);
    }
    if (!hasName)
        refuse("a part has no name");
    checkName(limits, part.mName.size());
    checkUtf8(part.mName, part.mName);
    if (part.mIsFile)
        part.mFileName = safeFileName(part.mFileNameAsSent);
    part.mType = head.type.empty() ? "text/plain" : head.type;
}

void FormReader::readParts(std::string_view contentType, MultipartReader::Source source,
                           const std::function<void(Part&)>& take, const FormLimits& limits)
{
    MultipartReader reader(multipartBoundary(contentType), std::move(source));
    MultipartReader::Head head;
    size_t fields = 0;
    while (reader.next(head)) {
        countField(limits, fields);
        Part part(reader);
        describe(part, head, limits);
        take(part);
    }
}

void FormReader::readEncoded(Form& form, std::string_view body, const FormLimits& limits)
{
    size_t fields = 0;
    while (!body.empty()) {
        const size_t end = std::min(body.find('&'), body.size());
        const std::string_view pair = body.substr(0, end);
        body.remove_prefix(std::min(end + 1, body.size()));
        if (pair.empty())
            continue;
        const size_t equals = std::min(pair.find('='), pair.size());
        FormField field;
        field.name = decoded(pair.substr(0, equals), true);
        field.value = decoded(pair.substr(std::min(equals + 1, pair.size())), true);
        countField(limits, fields);
        checkName(limits, field.name.size());
        checkUtf8(field.name, field.name);
        checkUtf8(field.value, field.name);
        form.mFields.push_back(std::move(field));
    }
}

Form FormReader::read(std::string_view contentType, const std::string& body,
                      const FormLimits& limits)
{
    Form form;
    if (isType(contentType, kEncoded)) {
        readEncoded(form, body, limits);
        return form;
    }
    if (!isType(contentType, kMultipart))
        throw HttpError(kUnsupportedType, "the body must be a form");
    std::string_view rest = body;
    const auto source = [&](char* buffer, size_t size) {
        const size_t part = std::min(size, rest.size());
        rest.copy(buffer, part);
        rest.remove_prefix(part);
        return part;
    };
    const auto take = [&](Part& part) {
        std::string content = part.text(body.size());
        if (!part.isFile()) {
            checkUtf8(content, part.name());
            form.mFields.push_back({part.name(), std::move(content)});
        } else if (!part.fileNameAsSent().empty() || !content.empty()) {
            form.mFiles.push_back({part.name(), part.fileName(), part.type(), std::move(content)});
        }
    };
    readParts(contentType, source, take, limits);
    return form;
}

PartFeed::PartFeed(std::string contentType, OnPart onPart, const FormLimits& limits)
    : mContentType(std::move(contentType)), mOnPart(std::move(onPart)), mLimits(limits)
{}

// As much as there is of the present piece.
size_t PartFeed::takeRest(char* buffer, size_t size)
{
    if (mRest.empty() && !mIsComplete)
        throw MultipartReader::NotYet();
    const size_t part = std::min(size, mRest.size());
    mRest.copy(buffer, part);
    mRest.remove_prefix(part);
    return part;
}

void PartFeed::give(std::string_view piece)
{
    mRest = piece;
    run();
}

void PartFeed::complete()
{
    mIsComplete = true;
    run();
}

void PartFeed::run()
{
    if (!mReader)
        mReader.emplace(multipartBoundary(mContentType),
                        [this](char* buffer, size_t size) { return takeRest(buffer, size); });
    try {
        while (mIsInPart ? takePart() : beginPart()) {
        }
    } catch (const MultipartReader::NotYet&) {
        // Goes on with the next piece.
    }
}

// False after the last part.
bool PartFeed::beginPart()
{
    MultipartReader::Head head;
    if (!mReader->next(head))
        return false;
    countField(mLimits, mFields);
    PartHead part;
    FormReader::describe(part, head, mLimits);
    mTaker = mOnPart ? mOnPart(part) : PartTaker();
    mIsInPart = true;
    return true;
}

bool PartFeed::takePart()
{
    std::array<char, kBlockBytes> block;
    const size_t got = mReader->read(block.data(), block.size());
    mIsInPart = got != 0;
    if (mTaker)
        mTaker({block.data(), got});
    if (!mIsInPart)
        mTaker = nullptr;
    return true;
}

}  // namespace qv::kit

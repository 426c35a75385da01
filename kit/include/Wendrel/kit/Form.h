/// Forms of web pages: fields and files.
#ifndef WENDREL_KIT_FORM_H
#define WENDREL_KIT_FORM_H

#include <Wendrel/kit/Parameter.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

class MultipartReader;

/// Limits of a form, beside that of the body (`Route::maxBodyBytes`).
struct FormLimits
{
    /// Fields and files together; 413 beyond it.
    size_t maxFields = 1000;
    /// Bytes of the name of a field; 413 beyond it.
    size_t maxNameBytes = 1024;
};

/// A field of a form.
struct FormField
{
    std::string name;   ///< as sent
    std::string value;  ///< decoded
};

/// A file that has been sent with a form.
struct FormFile
{
    std::string field;     ///< name of the field
    std::string fileName;  ///< as `Part::fileName`
    std::string type;      ///< as the client gives it: do not rely on it
    std::string content;   ///< all its bytes
};

/// A form that has been received whole; see `Request::form`. Names and values are UTF-8.
class Form
{
public:
    /// The first value of a field; empty when there is none.
    Parameter field(std::string_view name) const;

    /// The first file of a field; null when there is none. A browser sends a file without name and
    /// content for a field in which none has been chosen: that is none.
    const FormFile* file(std::string_view name) const;

    /// All fields in order; several may have one name.
    const std::vector<FormField>& fields() const { return mFields; }

    /// All files in order.
    const std::vector<FormFile>& files() const { return mFiles; }

private:
    friend class FormReader;

    std::vector<FormField> mFields;
    std::vector<FormFile> mFiles;
};

/// The head of a field or file of a form.
class PartHead
{
public:
    /// The name of the field.
    const std::string& name() const { return mName; }

    /// Whether the client calls it a file. A field without a chosen file is one with an empty
    /// `fileNameAsSent` and no content.
    bool isFile() const { return mIsFile; }

    /// The name of the file, fit to be used in a directory: the last segment of a path, as UTF-8,
    /// of 1 to 255 bytes, without control characters and any of `<>:"/\|?*`, not beginning with a
    /// dot, not ending in a dot or space. Whether the name is taken is not checked.
    const std::string& fileName() const { return mFileName; }

    /// The name of the file as the client gives it. Never use it as a path.
    const std::string& fileNameAsSent() const { return mFileNameAsSent; }

    /// The type of the content as the client gives it; "text/plain" unless it does.
    const std::string& type() const { return mType; }

private:
    friend class FormReader;

    std::string mName;
    std::string mFileName;
    std::string mFileNameAsSent;
    std::string mType;
    bool mIsFile = false;
};

/// A field or file of a form while it is received; see `Request::readParts`. Bytes that its
/// callback does not read are discarded. Operations throw HttpError: 400 when the body is malformed
/// or cannot be received any more, 413 beyond a limit.
class Part : public PartHead
{
public:
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    /// Reads up to `size` bytes; 0 at the end of the part.
    size_t read(char* buffer, size_t size);

    /// The rest, of at most `limitBytes`.
    std::string text(uint64_t limitBytes = 65536);

    /// Writes the rest to a file, of at most `limitBytes`, and returns how many bytes it has. See
    /// NewFile, whose errors it throws.
    uint64_t saveTo(const std::string& path, uint64_t limitBytes);

private:
    friend class FormReader;
    explicit Part(MultipartReader& reader) : mReader(reader) {}
    ~Part() = default;

    MultipartReader& mReader;
};

/// Takes the bytes of a part, piece by piece, and at its end an empty piece; see
/// `DeferredResponse::onParts`. Empty: they are discarded.
using PartTaker = std::function<void(std::string_view piece)>;

/// A file that appears under its name when it is complete, in place of one of that name; until then
/// it has a hidden name in the same directory, and destroyed before it leaves nothing. Operations
/// throw HttpError 507 when the disk is full, std::system_error when the file cannot be written. It
/// is not flushed to the disk. Used by one thread at a time.
class NewFile
{
public:
    /// Creates the file under its hidden name.
    explicit NewFile(const std::string& path);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    /// Appends `data`.
    void write(std::string_view data);

    /// Bytes written.
    uint64_t size() const { return mBytes; }

    /// Gives the file its name. Nothing is written afterwards.
    void complete();

private:
    [[noreturn]] void fail() const;

    const std::string mPath;
    std::string mTemporary;
    uint64_t mBytes = 0;
    int mDescriptor = -1;
    bool mIsComplete = false;
};

}  // namespace qv::kit

#endif

// The reader of multipart bodies. A delimiter is looked for once in each byte: a part is handed out
// up to where one may begin.

#include "MultipartReader.h"

#include "Text.h"

#include <Wendrel/kit/HttpError.h>

#include <qvSystem/Rollback.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr int kBadRequest = 400;
constexpr size_t kPieceBytes = 65536;
constexpr size_t kMaxPartHeadBytes = 8192;
constexpr std::string_view kLineEnd = "\r\n";

[[noreturn]] void refuse(const char* why)
{
    throw HttpError(kBadRequest, std::string("the form is malformed: ") + why);
}

}  // namespace

// A line end is put before the body: the first delimiter need not have one.
MultipartReader::MultipartReader(std::string_view boundary, Source source)
    : mDelimiter("\r\n--" + std::string(boundary)), mSource(std::move(source)), mBuffer(kLineEnd)
{
    findEnd();
}

// False at the end of the body. Positions change.
bool MultipartReader::fill()
{
    const size_t taken = std::min(mAt, mKept);
    mBuffer.erase(0, taken);
    mDataEnd -= std::min(mDataEnd, taken);
    mAt -= taken;
    if (mKept != npos)
        mKept -= taken;
    const size_t have = mBuffer.size();
    mBuffer.resize(have + kPieceBytes);
    size_t got = 0;
    // Also when the source throws.
    const Rollback grown([&] { mBuffer.resize(have + got); });
    got = mSource(mBuffer.data() + have, kPieceBytes);
    return got > 0;
}

void MultipartReader::findEnd()
{
    const size_t found = mBuffer.find(mDelimiter, mDataEnd);
    mIsEndFound = found != std::string::npos;
    if (mIsEndFound)
        mDataEnd = found;
    else if (mBuffer.size() >= mDelimiter.size())
        mDataEnd = std::max(mDataEnd, mBuffer.size() - mDelimiter.size() + 1);
}

void MultipartReader::need(size_t bytes)
{
    while (mBuffer.size() - mAt < bytes) {
        if (!fill())
            refuse("it ends too early");
    }
}

size_t MultipartReader::read(char* buffer, size_t size)
{
    if (mIsAtEnd || mIsOver || size == 0)
        return 0;
    while (mAt == mDataEnd && !mIsEndFound) {
        if (!fill())
            refuse("it ends within a part");
        findEnd();
    }
    if (mAt == mDataEnd) {
        mIsAtEnd = true;
        mAt += mDelimiter.size();
        return 0;
    }
    const size_t part = std::min(size, mDataEnd - mAt);
    std::memcpy(buffer, mBuffer.data() + mAt, part);
    mAt += part;
    return part;
}

bool MultipartReader::next(Head& head)
{
    if (mIsOver)
        return false;
    // At first that is the text before the first part.
    while (!mIsAtEnd) {
        mAt = mDataEnd;
        char none = 0;
        if (mIsEndFound)
            read(&none, 1);
        else if (!fill())
            refuse("it ends within a part");
        else
            findEnd();
    }
    need(2);
    if (mBuffer.compare(mAt, 2, "--") == 0) {
        mIsOver = true;
        return false;
    }
    // The whole head again when the source has not got all of it yet.
    mKept = mAt;
    Rollback begun([this] { mAt = mKept; });
    goToPart(head);
    begun.commit();
    mKept = npos;
    return true;
}

void MultipartReader::goToPart(Head& head)
{
    if (!trimmed(takeLine()).empty())
        refuse("there is a text behind a delimiter");
    takeHead(head);
    beginData();
    mIsAtEnd = false;
}

// A part may have no data, not even an empty line before it: the line end that has been taken for
// that line begins the delimiter.
void MultipartReader::beginData()
{
    mAt -= kLineEnd.size();
    need(mDelimiter.size());
    mIsEndFound = mBuffer.compare(mAt, mDelimiter.size(), mDelimiter) == 0;
    if (!mIsEndFound)
        mAt += kLineEnd.size();
    mDataEnd = mAt;
    if (!mIsEndFound)
        findEnd();
}

// Without its end.
std::string MultipartReader::takeLine()
{
    size_t from = mAt;
    for (;;) {
        const size_t end = mBuffer.find(kLineEnd, from);
        if (end != std::string::npos && end - mAt <= kMaxPartHeadBytes) {
            std::string line = mBuffer.substr(mAt, end - mAt);
            mAt = end + kLineEnd.size();
            return line;
        }
        const size_t have = mBuffer.size() - mAt;
        if (end != std::string::npos || have > kMaxPartHeadBytes)
            refuse("a line of the head of a part is too long");
        if (!fill())
            refuse("it ends within the head of a part");
        from = mAt + (have > 0 ? have - 1 : 0);
    }
}

void MultipartReader::takeHead(Head& head)
{
    head = Head();
    bool hasDisposition = false;
    size_t bytes = 0;
    for (;;) {
        const std::string line = takeLine();
        if (line.empty())
            return;
        bytes += line.size();
        if (bytes > kMaxPartHeadBytes)
            refuse("the head of a part is too long");
        const size_t colon = line.find(':');
        if (colon == std::string::npos || !isToken(std::string_view(line).substr(0, colon)))
            refuse("a part has a line that is no header");
        const std::string name = toLower(line.substr(0, colon));
        const std::string value(trimmed(std::string_view(line).substr(colon + 1)));
        if (name == "content-disposition" && std::exchange(hasDisposition, true))
            refuse("a part has two headers Content-Disposition");
        if (name == "content-disposition")
            head.disposition = value;
        else if (name == "content-type")
            head.type = value;
        else if (name == "content-transfer-encoding" && !equalsIgnoringCase(value, "binary") &&
                 !equalsIgnoringCase(value, "8bit") && !equalsIgnoringCase(value, "7bit"))
            refuse("a part has an encoding of its own");
    }
}

}  // namespace qv::kit

// Reading a body to its end, and answering in the ways that cannot hang.

#include <Wendrel/kit/Request.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <vector>

namespace qv::kit
{
namespace
{

constexpr size_t kPieceBytes = 65536;
constexpr uint32_t kNoContent = 204;
constexpr uint32_t kNotModified = 304;

const std::string kNothing;

}  // namespace

Request::Request() = default;

Request::~Request() = default;

const std::string& Request::getPathParameter(const std::string& name) const
{
    const auto found = mPathParameters.find(name);
    return found == mPathParameters.end() ? kNothing : found->second;
}

void Request::setPathParameters(std::map<std::string, std::string> parameters)
{
    mPathParameters = std::move(parameters);
}

const std::string& Request::getHeaderText(const char* name) const
{
    const std::list<std::string>* values = getHeader(name);
    return values ? values->front() : kNothing;
}

const std::string& Request::getHeaderLine(const char* name) const
{
    const std::string* line = getHeaders().findLine(name);
    return line ? *line : kNothing;
}

int64_t Request::getDeclaredBodyLength() const
{
    const std::string& text = getHeaderText("content-length");
    int64_t length = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && length >= 0 ? length : -1;
}

BodyResult Request::readBody(char* buf, size_t len, size_t& got)
{
    HttpReceiveDevice& device = getReceiveDevice();
    got = device.readBytes(buf, len);
    if (device.hasDeviceError())
        return BodyResult::Aborted;
    return device.atEnd() ? BodyResult::Complete : BodyResult::More;
}

BodyResult Request::readWholeBody(uint64_t limitBytes, std::string& body)
{
    const int64_t declared = getDeclaredBodyLength();
    if (declared >= 0 && static_cast<uint64_t>(declared) > limitBytes)
        return BodyResult::TooLarge;
    std::vector<char> piece(kPieceBytes);
    uint64_t total = 0;
    BodyResult result = BodyResult::More;
    while (result == BodyResult::More) {
        size_t got = 0;
        result = readBody(piece.data(), piece.size(), got);
        total += got;
        if (total > limitBytes)
            return BodyResult::TooLarge;
        body.append(piece.data(), got);
    }
    return result;
}

void Request::onCompleted(int)
{
    if (mReaper)
        mReaper->completed(*this);
}

// Called about every second while the worker waits for the body. The daemon does not end the wait
// when the connection is closed.
void Request::onWaitingForData()
{
    if (isCompleted())
        getReceiveDevice().setDeviceError("the request ended before its body was complete");
}

bool Request::hasBody()
{
    const uint32_t status = mHead.getStatusCode();
    return !isHead() && status != kNoContent && status != kNotModified;
}

bool Request::mayAnnounce() const
{
    return !mAnnounced && !getResponseDevice().hasDeviceError();
}

bool Request::announce()
{
    mAnnounced = true;
    return getResponseDevice().setResponseReady();
}

bool Request::reply(uint32_t status, const std::string& contentType, const std::string& body)
{
    if (!mayAnnounce())
        return false;
    mHead.setStatus(status);
    mHead.setContentType(contentType);
    // An answer without a body may declare the length that it would have had.
    if (hasBody() || !body.empty())
        mHead.setContentLength(static_cast<int64_t>(body.size()));
    if (!hasBody())
        return startStream();
    // Complete before it is announced, so that it goes out from one buffer; nothing is ready
    // yet, so that this write does not wait.
    HttpResponseDevice& device = getResponseDevice();
    const bool taken = device.writeBytes(body.data(), body.size()) == body.size();
    device.endSending();
    mEnded = true;
    return announce() && taken;
}

bool Request::replyError(uint32_t status, const std::string& message)
{
    // Only the text is left to the JSON library: the destructor of its objects needs memory, and
    // without any the process would end.
    const std::string text =
        nlohmann::json(message).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return reply(status, "application/json",
                 "{\"error\":" + text + ",\"status\":" + std::to_string(status) + "}");
}

// An answer without a body is not ended when its length is declared: ended, it would be sent
// from a buffer, with the buffer's length. The daemon does not ask for its body. But an upload
// that nobody will read is dropped only once the answer has ended.
bool Request::startStream()
{
    if (!mayAnnounce())
        return false;
    if (!hasBody()) {
        if (mHead.getContentLength() < 0 || mayHaveUpload())
            getResponseDevice().endSending();
        mEnded = true;
    }
    return announce();
}

bool Request::write(const char* data, size_t len)
{
    if (!mAnnounced && !startStream())
        return false;
    if (!hasBody())
        return !isAborted();
    const int64_t declared = mHead.getContentLength();
    if (mEnded || (declared >= 0 && len > static_cast<uint64_t>(declared) - mWrittenBytes))
        return false;
    // In pieces, each of which waits for room: a block of any size takes constant memory.
    while (len > 0) {
        const size_t piece = std::min(len, kPieceBytes);
        if (getResponseDevice().writeBytes(data, piece) != piece)
            return false;
        mWrittenBytes += piece;
        data += piece;
        len -= piece;
    }
    return !getResponseDevice().hasDeviceError();
}

bool Request::flush()
{
    if (!mAnnounced || mEnded)
        return false;
    getResponseDevice().flush();
    return !getResponseDevice().hasDeviceError();
}

void Request::finish()
{
    if (!mAnnounced && !startStream())
        return;
    if (mEnded)
        return;
    const int64_t declared = mHead.getContentLength();
    if (declared >= 0 && mWrittenBytes != static_cast<uint64_t>(declared)) {
        abandon("the body is shorter than declared");
        return;
    }
    getResponseDevice().endSending();
    mEnded = true;
}

void Request::abandon(const std::string& reason)
{
    if (mEnded)
        return;
    getResponseDevice().setDeviceError(reason);
    mEnded = true;
    if (!mAnnounced)
        announce();
}

bool Request::mayHaveUpload() const
{
    return getDeclaredBodyLength() > 0 || getHeader("transfer-encoding");
}

void Request::failWith(const std::string& message)
{
    if (mAnnounced) {
        abandon(message);
        return;
    }
    mHead = ResponseHead();  // what was meant for another answer
    replyError(500, message);
}

// After the handler: every request gets an answer with an end.
void Request::closeResponse()
{
    if (!mAnnounced)
        failWith("The request was not answered.");
    if (!mAnnounced)
        announce();
    finish();
}

}  // namespace qv::kit

// A request with the minimum that the library requires.

#include "server/InlineRequest.h"

#include "support/Content.h"

#include <qvSystem/qvThread.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <thread>

namespace bench
{
namespace
{

constexpr uint32_t kOk = 200;
constexpr uint32_t kNotFoundStatus = 404;

const qv::HttpResponseInterface::HeaderMap kHeaders = {
    {"content-type", {"Content-Type", kContentType}}};
const qv::HttpResponseInterface::CookieMap kNoCookies;

}  // namespace

void InlineHead::set(uint32_t status, int64_t contentLength)
{
    mStatus = status;
    mContentLength = contentLength;
}

const qv::HttpResponseInterface::CookieMap& InlineHead::getCookies()
{
    return kNoCookies;
}

const qv::HttpResponseInterface::HeaderMap& InlineHead::getHeaders()
{
    return kHeaders;
}

std::string InlineHead::describe()
{
    return std::to_string(mStatus);
}

Question InlineRequest::getQuestion() const
{
    if (hasParseError())
        return {};
    return parseQuestion(RequestTypeToString(getRequestType()), getUrl().path(),
                         [this](const char* name) -> std::string_view {
                             const auto* values = getQueryParameter(name);
                             return values ? std::string_view(values->front()) : std::string_view();
                         });
}

void InlineRequest::serve(const Question& question)
{
    workerThreadStartHandling(qv::qvThread::CurrentThreadId());
    switch (question.page) {
    case Page::Hello:
        reply(kOk, kHello);
        break;
    case Page::Big:
        reply(kOk, bigBody());
        break;
    case Page::Stream:
        stream(question.number);
        break;
    case Page::Slow:
        std::this_thread::sleep_for(std::chrono::milliseconds(question.number));
        reply(kOk, kHello);
        break;
    case Page::Upload:
        countUpload();
        break;
    case Page::NotFound:
        reply(kNotFoundStatus, kNotFound);
        break;
    }
    workerThreadStopHandling(qv::qvThread::CurrentThreadId());
    mServed.store(true, std::memory_order_release);
}

// Complete before it is announced, so that it goes out from one buffer.
void InlineRequest::reply(uint32_t status, const std::string& body)
{
    mHead.set(status, static_cast<int64_t>(body.size()));
    qv::HttpResponseDevice& device = getResponseDevice();
    device.writeBytes(body.data(), body.size());
    device.endSending();
    device.setResponseReady();
}

void InlineRequest::stream(uint64_t bytes)
{
    qv::HttpResponseDevice& device = getResponseDevice();
    device.setResponseReady();
    const char* piece = streamPiece().data();
    while (bytes > 0) {
        const size_t part = std::min<uint64_t>(bytes, kPieceBytes);
        if (device.writeBytes(piece, part) != part)
            return;
        bytes -= part;
    }
    device.endSending();
}

// An aborted upload counts as well: nobody reads the response.
void InlineRequest::countUpload()
{
    qv::HttpReceiveDevice& device = getReceiveDevice();
    std::array<char, kPieceBytes> piece;
    uint64_t bytes = 0;
    while (!device.atEnd())
        bytes += device.readBytes(piece.data(), piece.size());
    reply(kOk, std::to_string(bytes));
}

// The library does not end the wait when the connection is closed.
void InlineRequest::onWaitingForData()
{
    if (isCompleted())
        getReceiveDevice().setDeviceError("the request ended before its body was complete");
}

}  // namespace bench

// A request with the minimum that the library requires.

#include "server/InlineRequest.h"

#include "support/Content.h"

#include <Wendrel/BodySource.h>
#include <Wendrel/UpgradedConnection.h>
#include <qvSystem/qvThread.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

namespace bench
{
namespace
{

constexpr uint32_t kSwitchingProtocols = 101;
constexpr uint32_t kOk = 200;
constexpr uint32_t kBadRequest = 400;
constexpr uint32_t kNotFoundStatus = 404;
constexpr uint32_t kTooLarge = 413;
constexpr uint32_t kNotImplemented = 501;
constexpr uint64_t kMaxEchoBytes = 67108864;
constexpr uint64_t kSlowBytesPerMicrosecond = 20;

const qv::HttpResponseInterface::HeaderMap kHeaders = {
    {"content-type", {"Content-Type", kContentType}}};
const qv::HttpResponseInterface::CookieMap kNoCookies;

}  // namespace

void RequestBin::add(InlineRequest& request)
{
    request.mNext = mAdded.load(std::memory_order_relaxed);
    while (!mAdded.compare_exchange_weak(request.mNext, &request, std::memory_order_release)) {
    }
}

InlineRequest* RequestBin::take()
{
    if (!mTaken && mAdded.load(std::memory_order_relaxed))
        mTaken = mAdded.exchange(nullptr, std::memory_order_acquire);
    return mTaken ? std::exchange(mTaken, mTaken->mNext) : nullptr;
}

void InlineHead::set(uint32_t status, int64_t contentLength)
{
    mStatus = status;
    mContentLength = contentLength;
}

void InlineHead::setHeaders(HeaderMap headers)
{
    mHeaders = std::make_unique<HeaderMap>(std::move(headers));
}

const qv::HttpResponseInterface::CookieMap& InlineHead::getCookies()
{
    return kNoCookies;
}

const qv::HttpResponseInterface::HeaderMap& InlineHead::getHeaders()
{
    return mHeaders ? *mHeaders : kHeaders;
}

std::string InlineHead::describe()
{
    return std::to_string(mStatus);
}

const Question& InlineRequest::findQuestion()
{
    mQuestion = getQuestion();
    return mQuestion;
}

Question InlineRequest::getQuestion() const
{
    if (hasParseError())
        return {Page::Refused,
                getRequestType() == UNKNOWN_HTTP_METHOD ? kNotImplemented : kBadRequest};
    const std::string& path = getUrl().path();
    if (path == "/" || path == "/echo" || getOriginalFullUrl() == "*")
        return {Page::Echo};
    if (path == "/slow-upload")
        return {Page::SlowUpload};
    if (path == "/ws")
        return {Page::WebSocket};
    if (path == "/wait")
        return {Page::Wait};
    if (path == "/waiting")
        return {Page::Waiting};
    if (path == "/release")
        return {Page::Release};
    return parseQuestion(RequestTypeToString(getRequestType() == HEAD ? GET : getRequestType()),
                         path, [this](const char* name) -> std::string_view {
                             const auto* values = getQueryParameter(name);
                             return values ? std::string_view(values->front()) : std::string_view();
                         });
}

bool InlineRequest::hasBody() const
{
    const auto* const length = getHeader("content-length");
    return getHeader("transfer-encoding") || (length && length->front() != "0");
}

void InlineRequest::serveText(const std::string& text)
{
    workerThreadStartHandling(qv::qvThread::CurrentThreadId());
    reply(kOk, text);
    workerThreadStopHandling(qv::qvThread::CurrentThreadId());
    mServed.store(true, std::memory_order_release);
}

void InlineRequest::upgrade(qv::HttpResponseInterface::HeaderMap headers, TakeUpgraded take)
{
    mTakeUpgraded = std::move(take);
    mHead.set(kSwitchingProtocols, 0);
    mHead.setHeaders(std::move(headers));
    getResponseDevice().endSending();
    getResponseDevice().setResponseReady();
    mServed.store(true, std::memory_order_release);
}

void InlineRequest::refuse(uint32_t status, const std::string& reason,
                           qv::HttpResponseInterface::HeaderMap headers)
{
    mHead.setHeaders(std::move(headers));
    workerThreadStartHandling(qv::qvThread::CurrentThreadId());
    reply(status, reason);
    workerThreadStopHandling(qv::qvThread::CurrentThreadId());
    mServed.store(true, std::memory_order_release);
}

void InlineRequest::onUpgraded(std::unique_ptr<qv::UpgradedConnection> connection)
{
    if (mTakeUpgraded)
        mTakeUpgraded(std::move(connection));
}

void InlineRequest::serve(const Question& question)
{
    workerThreadStartHandling(qv::qvThread::CurrentThreadId());
    switch (question.page) {
    case Page::Hello:
        reply(kOk, kHello);
        break;
    case Page::Big:
        replyBig();
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
    case Page::SlowUpload:
        countSlowly();
        break;
    case Page::Echo:
        echo();
        break;
    case Page::Refused:
        reply(static_cast<uint32_t>(question.number), getParseError());
        break;
    default:
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

void InlineRequest::replyBig()
{
    if (!mLends) {
        reply(kOk, bigBody());
        return;
    }
    static const auto body = std::make_shared<const std::string>(bigBody());
    mHead.set(kOk, static_cast<int64_t>(body->size()));
    qv::HttpResponseDevice& device = getResponseDevice();
    device.setBodySource(qv::BodySource::fromString(body));
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
    reply(kOk, std::to_string(readBody([](const char*, size_t) {})));
}

// As a slow disk would.
void InlineRequest::countSlowly()
{
    uint64_t bytes = 0;
    const auto start = std::chrono::steady_clock::now();
    readBody([&](const char*, size_t size) {
        bytes += size;
        std::this_thread::sleep_until(start +
                                      std::chrono::microseconds(bytes / kSlowBytesPerMicrosecond));
    });
    reply(kOk, std::to_string(bytes));
}

void InlineRequest::echo()
{
    std::string body;
    uint64_t bytes = 0;
    if (hasBody()) {
        bytes = readBody([&body](const char* data, size_t size) {
            if (body.size() + size <= kMaxEchoBytes)
                body.append(data, size);
        });
    }
    reply(bytes == body.size() ? kOk : kTooLarge, body);
}

// Returns the number of bytes.
uint64_t InlineRequest::readBody(const std::function<void(const char*, size_t)>& take)
{
    qv::HttpReceiveDevice& device = getReceiveDevice();
    std::array<char, kPieceBytes> piece;
    uint64_t bytes = 0;
    while (!device.atEnd()) {
        const size_t got = device.readBytes(piece.data(), piece.size());
        take(piece.data(), got);
        bytes += got;
    }
    return bytes;
}

// The library does not end the wait when the connection is closed.
void InlineRequest::onWaitingForData()
{
    if (isCompleted())
        getReceiveDevice().setDeviceError("the request ended before its body was complete");
}

}  // namespace bench

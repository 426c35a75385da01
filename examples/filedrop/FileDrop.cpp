// The handlers of filedrop. Each runs on a worker, which serves nothing else meanwhile.

#include "FileDrop.h"

#include "ByteSize.h"
#include "FileName.h"
#include "HttpText.h"
#include "Log.h"
#include "Page.h"

#include <Wendrel/Wendrel.h>
#include <qvSystem/LibInitCounter.h>
#include <qvSystem/qvLog.h>
#include <qvSystem/qvSystemUtils.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <optional>
#include <unistd.h>
#include <utility>
#include <vector>

namespace filedrop
{

namespace
{

using qv::HttpBaseRequest;
using qv::kit::Request;

constexpr const char* kJson = "application/json";
constexpr const char* kPolicy = "default-src 'none'; frame-ancestors 'none'";
constexpr const char* kFilePolicy = "default-src 'none'; frame-ancestors 'none'; sandbox";
constexpr const char* kBusy = "The server is busy with other transfers. Try again in a moment.";

constexpr size_t kReadBytes = 65536;      // a chunk of the response device
constexpr uint64_t kSmallBytes = 262144;  // accepted by the response device without waiting
constexpr uint32_t kWorkersPerFreeOne = 8;

int64_t slotsOf(uint32_t workers)
{
    return std::max<int64_t>(1, workers - std::max(1u, workers / kWorkersPerFreeOne));
}

qv::kit::Application::Options optionsOf(const Settings& settings)
{
    qv::kit::Application::Options options;
    options.workers = settings.workers;
    return options;
}

// The library splits list headers; the parsers here want them as they were.
std::optional<std::string> joinedHeader(const Request& request, const char* name)
{
    const std::list<std::string>* values = request.getHeader(name);
    if (values == nullptr)
        return std::nullopt;
    std::string joined;
    for (const std::string& value : *values)
        joined += (joined.empty() ? "" : ", ") + value;
    return joined;
}

Conditions conditionsOf(const Request& request)
{
    Conditions conditions;
    conditions.ifNoneMatch = joinedHeader(request, "if-none-match");
    conditions.ifModifiedSince = joinedHeader(request, "if-modified-since");
    // A range has a meaning for GET alone.
    if (request.getRequestType() == HttpBaseRequest::GET) {
        conditions.ifRange = joinedHeader(request, "if-range");
        conditions.range = joinedHeader(request, "range");
    }
    return conditions;
}

int64_t nowSeconds()
{
    return qv::qvSystemUtils::GetMSecElapsedSinceEpoch() / 1000;
}

std::string errorText(int error)
{
    char buffer[256];
    return strerror_r(error, buffer, sizeof buffer);
}

// Reads until `size` bytes are there; fewer when the file ends before or cannot be read.
size_t readAt(int fd, char* buffer, size_t size, uint64_t offset)
{
    size_t got = 0;
    while (got < size) {
        const ssize_t n = pread(fd, buffer + got, size - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    return got;
}

// True when the name can be used; otherwise the client has been told why not.
bool checkName(Request& request, const std::string& name)
{
    const std::string refusal = refusalOfName(name);
    if (!refusal.empty())
        request.replyError(400, refusal);
    return refusal.empty();
}

}  // namespace

// The right to keep a worker for as long as a transfer lasts.
class FileDrop::TransferSlot
{
public:
    explicit TransferSlot(std::atomic<int64_t>& freeSlots)
        : mFreeSlots(freeSlots), mTaken(--freeSlots >= 0)
    {}

    ~TransferSlot() { ++mFreeSlots; }
    TransferSlot(const TransferSlot&) = delete;
    TransferSlot& operator=(const TransferSlot&) = delete;

    bool isTaken() const { return mTaken; }

private:
    std::atomic<int64_t>& mFreeSlots;
    const bool mTaken;
};

FileDrop::FileDrop(std::unique_ptr<FileStore> store, const Settings& settings)
    : Application(optionsOf(settings)), mStore(std::move(store)), mSettings(settings),
      mStartedMs(qv::qvSystemUtils::GetTimeBaseMs()), mFreeSlots(slotsOf(settings.workers)),
      mLive([this] { return listText(); })
{
    addRoutes();
}

FileDrop::~FileDrop()
{
    stopWorkers();
}

void FileDrop::addRoutes()
{
    const auto add = [this](int method, const char* pattern,
                            void (FileDrop::*handler)(DropRequest&)) {
        getRouter().add(method, pattern, [this, handler](Request& request) {
            (this->*handler)(static_cast<DropRequest&>(request));
        });
    };
    add(HttpBaseRequest::GET, "/", &FileDrop::sendPage);
    add(HttpBaseRequest::GET, "/api/files", &FileDrop::sendList);
    add(HttpBaseRequest::GET, "/live", &FileDrop::refuseLive);
    add(HttpBaseRequest::GET, "/api/status", &FileDrop::sendStatus);
    add(HttpBaseRequest::GET, "/files/{name}", &FileDrop::sendFile);
    add(HttpBaseRequest::PUT, "/files/{name}", &FileDrop::receiveFile);
    add(HttpBaseRequest::DELETE, "/files/{name}", &FileDrop::deleteFile);
}

Request* FileDrop::newRequest()
{
    return new DropRequest;  // the kit owns it
}

void FileDrop::serve(Request& request)
{
    const int64_t startedMs = qv::qvSystemUtils::GetTimeBaseMs();
    qv::kit::ResponseHead& head = request.getHead();
    head.setHeader("X-Content-Type-Options", "nosniff");
    head.setHeader("Content-Security-Policy", kPolicy);
    head.setHeader("Referrer-Policy", "no-referrer");
    head.setHeader("Cross-Origin-Resource-Policy", "same-origin");
    head.setHeader("Cache-Control", "no-store");
    Application::serve(request);
    mBytesOut += static_cast<DropRequest&>(request).takeNewlyWritten();
    const bool lost = request.getResponseDevice().hasDeviceError();
    writeLog(qv::qvLog::Information,
             request.getClientAddress().toString() + " " +
                 HttpBaseRequest::RequestTypeToString(request.getRequestType()) + " " +
                 request.getOriginalFullUrl() + " " +
                 (lost ? "lost" : std::to_string(head.getStatusCode())) + " " +
                 std::to_string(request.getResponseDevice().getSentBytes()) + " bytes " +
                 std::to_string(qv::qvSystemUtils::GetTimeBaseMs() - startedMs) + " ms");
}

void FileDrop::sendPage(DropRequest& request)
{
    const std::string nonce = makeNonce();
    request.getHead().setHeader("Content-Security-Policy", pagePolicy(nonce));
    request.reply(200, "text/html; charset=utf-8", pageWithNonce(nonce));
}

void FileDrop::onNewWebSocket(qv::http::WebSocket* socket)
{
    mLive.add(socket);
}

// The connections must be closed while the daemon is still there to close them.
void FileDrop::onServerStopped()
{
    mLive.close();
    Application::onServerStopped();
}

// Receives upgrade requests in a spelling that the library does not accept.
void FileDrop::refuseLive(DropRequest& request)
{
    request.getHead().setHeader("Upgrade", "WebSocket");
    request.replyError(426, "Only a connection upgraded to a WebSocket is served here; browsers "
                            "need the proxy of deploy/ for that.");
}

// None when the directory cannot be read.
std::optional<std::string> FileDrop::listText() const
{
    std::vector<FileInfo> files;
    if (!mStore->list(files))
        return std::nullopt;
    nlohmann::json list = nlohmann::json::array();
    for (const FileInfo& file : files) {
        list.push_back(
            {{"name", file.name},
             {"size", file.size},
             {"modified", formatIsoTime(file.modifiedSeconds, file.modifiedNanoseconds)}});
    }
    return nlohmann::json({{"files", std::move(list)}}).dump();
}

void FileDrop::sendList(DropRequest& request)
{
    if (const auto text = listText())
        request.reply(200, kJson, *text);
    else
        respondFailure(request, StoreResult::Failed, "the directory cannot be read");
}

void FileDrop::sendStatus(DropRequest& request)
{
    const nlohmann::json status = {
        {"version", Wendrel::Version::GetDescStringMajorMinorReleaseRevision(false, false)},
        {"uptimeSeconds", (qv::qvSystemUtils::GetTimeBaseMs() - mStartedMs) / 1000},
        {"requests", getRequestCount()},
        {"openRequests", getOpenCount()},
        {"bytesIn", mBytesIn.load()},
        {"bytesOut", mBytesOut.load()},
        {"thirdParty", qv::GetThirdPartyLibVersionInfos()},
    };
    request.reply(200, kJson, status.dump());
}

void FileDrop::sendFile(DropRequest& request)
{
    const std::string& name = request.getPathParameter("name");
    if (!checkName(request, name))
        return;
    Descriptor fd;
    FileInfo info;
    const StoreResult result = mStore->openFile(name, fd, info);
    if (result == StoreResult::Done)
        sendContent(request, fd.get(), info);
    else
        respondFailure(request, result, "'" + name + "' cannot be opened");
}

void FileDrop::sendContent(DropRequest& request, int fd, const FileInfo& info)
{
    const Validators validators = {
        makeETag(info.inode, info.size, info.modifiedSeconds, info.modifiedNanoseconds),
        info.modifiedSeconds};
    const Conditions conditions = conditionsOf(request);
    qv::kit::ResponseHead& head = request.getHead();
    head.setHeader("ETag", validators.etag);
    head.setHeader("Last-Modified", formatHttpDate(info.modifiedSeconds));
    head.setHeader("Cache-Control", "no-cache");
    head.setHeader("Accept-Ranges", "bytes");
    if (isNotModified(conditions, validators, nowSeconds())) {
        head.setStatus(304);
        head.setContentType("");
        head.setContentLength(static_cast<int64_t>(info.size));
        request.startStream();
        return;
    }
    ByteRange range = chooseRange(conditions, validators, info.size, nowSeconds());
    const std::string total = std::to_string(info.size);
    if (range.kind == ByteRange::Unsatisfiable) {
        head.setHeader("Content-Range", "bytes */" + total);
        request.replyError(416, "The file ends before that range.");
        return;
    }
    head.setHeader("Content-Type", mediaType(info.name));
    head.setHeader("Content-Disposition", attachment(info.name));
    head.setHeader("Content-Security-Policy", kFilePolicy);
    if (range.kind == ByteRange::Part) {
        head.setStatus(206);
        head.setHeader("Content-Range", "bytes " + std::to_string(range.first) + "-" +
                                            std::to_string(range.last) + "/" + total);
    } else if (info.size > 0) {
        range = {ByteRange::Part, 0, info.size - 1};
    }
    stream(request, fd, info.name, range);
}

void FileDrop::stream(DropRequest& request, int fd, const std::string& name, const ByteRange& range)
{
    const uint64_t length = range.kind == ByteRange::Part ? range.last - range.first + 1 : 0;
    const bool isHead = request.isHead();
    std::optional<TransferSlot> slot;
    if (length > kSmallBytes && !isHead) {
        slot.emplace(mFreeSlots);
        if (!slot->isTaken()) {
            request.getHead().setHeader("Content-Range", "");
            request.getHead().setHeader("Content-Disposition", "");
            request.getHead().setHeader("Retry-After", "2");
            request.replyError(503, kBusy);
            return;
        }
    }
    request.getHead().setContentLength(static_cast<int64_t>(length));
    std::vector<char> buffer(isHead ? 0 : std::min<uint64_t>(length, kReadBytes));
    bool going = request.startStream();
    for (uint64_t sent = 0; going && !isHead && sent < length;) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(buffer.size(), length - sent));
        const size_t got = readAt(fd, buffer.data(), wanted, range.first + sent);
        if (got < wanted) {
            writeLog(qv::qvLog::Warning, "'" + name + "' has become shorter while it was sent");
            request.abandon("the file has become shorter");
            return;
        }
        going = request.write(buffer.data(), got);
        sent += got;
        mBytesOut += request.takeNewlyWritten();
    }
    request.finish();
}

void FileDrop::receiveFile(DropRequest& request)
{
    const std::string name = request.getPathParameter("name");
    if (!checkName(request, name))
        return;
    const uint64_t limit = mSettings.maxUploadBytes;
    const int64_t declared = request.getDeclaredBodyLength();
    Receiver receiver(request, *mStore, limit, mBytesIn);
    const TransferSlot slot(mFreeSlots);
    if (!slot.isTaken()) {
        request.getHead().setHeader("Retry-After", "2");
        request.replyError(503, kBusy);
    } else if (limit != 0 && declared > 0 && static_cast<uint64_t>(declared) > limit) {
        request.replyError(413, "The file is larger than the " + formatByteSize(limit) +
                                    " that this server takes.");
    } else {
        respondToUpload(request, receiver, name);
    }
}

void FileDrop::respondToUpload(DropRequest& request, Receiver& receiver, const std::string& name)
{
    switch (receiver.receive()) {
    case Receiver::Result::Stored:
        break;
    case Receiver::Result::TooLarge:
        request.replyError(413, "The file is larger than the " +
                                    formatByteSize(mSettings.maxUploadBytes) +
                                    " that this server takes.");
        return;
    case Receiver::Result::Lost:
        request.abandon("the upload was lost");
        return;
    case Receiver::Result::NoSpace:
        respondFailure(request, StoreResult::NoSpace, "'" + name + "' cannot be stored");
        return;
    case Receiver::Result::Failed:
        respondFailure(request, StoreResult::Failed, "'" + name + "' cannot be stored");
        return;
    }
    const StoreResult result = receiver.commit(name);
    if (result == StoreResult::Done)
        request.getHead().setHeader("Location", request.getUrl().encodedPath());
    if (result == StoreResult::Done || result == StoreResult::Replaced) {
        mLive.listChanged();
        const nlohmann::json stored = {{"name", name}, {"size", receiver.size()}};
        request.reply(result == StoreResult::Done ? 201 : 200, kJson, stored.dump());
        return;
    }
    respondFailure(request, result, "'" + name + "' cannot be stored");
}

void FileDrop::deleteFile(DropRequest& request)
{
    const std::string& name = request.getPathParameter("name");
    if (!checkName(request, name))
        return;
    const StoreResult result = mStore->remove(name);
    if (result == StoreResult::Done) {
        mLive.listChanged();
        request.reply(204, "", "");
    } else {
        respondFailure(request, result, "'" + name + "' cannot be deleted");
    }
}

// The client gets a general text; the error of the system is only logged.
void FileDrop::respondFailure(DropRequest& request, StoreResult result, const std::string& what)
{
    const int error = errno;
    switch (result) {
    case StoreResult::NotFound:
        request.replyError(404, "There is no such file.");
        return;
    case StoreResult::NameTaken:
        request.replyError(409, "The name is taken by something that is not a file.");
        return;
    case StoreResult::NameTooLong:
        request.replyError(400, "The name is too long for this server's file system.");
        return;
    case StoreResult::NoSpace:
        writeLog(qv::qvLog::Warning, what + ": " + errorText(error));
        request.replyError(507, "The server has no space left for this file.");
        return;
    default:
        writeLog(qv::qvLog::Error, what + ": " + errorText(error));
        request.replyError(500, "The server cannot do this at the moment; its log says why.");
    }
}

}  // namespace filedrop

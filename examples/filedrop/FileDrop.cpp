// The handlers of filedrop.

#include "FileDrop.h"

#include "ByteSize.h"
#include "FileName.h"
#include "IsoTime.h"
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
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace filedrop
{

namespace
{

using qv::kit::ContentType;
using qv::kit::HttpError;
using qv::kit::Request;

constexpr const char* kPolicy = "default-src 'none'; frame-ancestors 'none'";
constexpr const char* kFilePolicy = "default-src 'none'; frame-ancestors 'none'; sandbox";
constexpr const char* kBusy = "The server is busy with other uploads. Try again in a moment.";

constexpr size_t kBlockBytes = 65536;
constexpr uint64_t kMaxDiscardedBytes = 64u << 20;
constexpr uint32_t kWorkersPerFreeOne = 8;

int64_t slotsOf(uint32_t workers)
{
    return std::max<int64_t>(1, workers - std::max(1u, workers / kWorkersPerFreeOne));
}

std::string errorText(int error)
{
    char buffer[256];
    return strerror_r(error, buffer, sizeof buffer);
}

std::string usableName(const Request& request)
{
    std::string name = request.pathParameter("name");
    const std::string refusal = refusalOfName(name);
    if (!refusal.empty())
        throw HttpError(400, refusal);
    return name;
}

HttpError tooLarge(uint64_t limit)
{
    return HttpError(413, "The file is larger than the " + formatByteSize(limit) +
                              " that this server takes.");
}

// The client gets a general text; the error of the system is only logged.
HttpError failure(StoreResult result, const std::string& what)
{
    const int error = errno;
    switch (result) {
    case StoreResult::NotFound:
        return HttpError(404, "There is no such file.");
    case StoreResult::NameTaken:
        return HttpError(409, "The name is taken by something that is not a file.");
    case StoreResult::NameTooLong:
        return HttpError(400, "The name is too long for this server's file system.");
    case StoreResult::NoSpace:
        writeLog(qv::qvLog::Warning, what + ": " + errorText(error));
        return HttpError(507, "The server has no space left for this file.");
    default:
        writeLog(qv::qvLog::Error, what + ": " + errorText(error));
        return HttpError(500, "The server cannot do this at the moment; its log says why.");
    }
}

// Many clients read no response before they have sent everything: without this they would find the
// connection closed instead of the reason.
void discardRest(Request& request)
{
    try {
        std::vector<char> block(kBlockBytes);
        uint64_t discarded = 0;
        while (discarded < kMaxDiscardedBytes) {
            const size_t got = request.readBody(block.data(), block.size());
            if (got == 0)
                return;
            discarded += got;
        }
    } catch (const HttpError&) {
        // The connection is closed: nobody waits for the reason.
    }
}

void setCommonHeaders(Request& request)
{
    request.setHeader("X-Content-Type-Options", "nosniff");
    request.setHeader("Content-Security-Policy", kPolicy);
    request.setHeader("Referrer-Policy", "no-referrer");
    request.setHeader("Cross-Origin-Resource-Policy", "same-origin");
    request.setHeader("Cache-Control", "no-store");
}

}  // namespace

// The right to keep a worker for as long as an upload lasts.
class FileDrop::UploadSlot
{
public:
    explicit UploadSlot(std::atomic<int64_t>& freeSlots)
        : mFreeSlots(freeSlots), mTaken(--freeSlots >= 0)
    {}

    ~UploadSlot() { ++mFreeSlots; }
    UploadSlot(const UploadSlot&) = delete;
    UploadSlot& operator=(const UploadSlot&) = delete;

    bool isTaken() const { return mTaken; }

private:
    std::atomic<int64_t>& mFreeSlots;
    const bool mTaken;
};

FileDrop::FileDrop(std::unique_ptr<FileStore> store, const Settings& settings)
    : mStore(std::move(store)), mMaxUploadBytes(settings.maxUploadBytes),
      mStartedMs(qv::qvSystemUtils::GetTimeBaseMs()), mFreeSlots(slotsOf(settings.server.workers)),
      mLive([this] { return listText(); }, mBytesOut), mServer(settings.server)
{
    mServer.options().onCompleted = [this](const qv::kit::CompletedRequest& request) {
        mBytesOut += request.sentBytes;
    };
    mServer.logAccess(
        [](std::string_view line) { writeLog(qv::qvLog::Information, std::string(line)); });
    addRoutes();
}

void FileDrop::addRoutes()
{
    qv::kit::Router& router = mServer.router();
    router.get("/", handlerOf(&FileDrop::sendPage)).nonBlocking();
    router.get("/api/files", handlerOf(&FileDrop::sendList));
    router
        .webSocket("/live", LiveList::options(), [this](const Request&) { return mLive.listen(); })
        .nonBlocking();
    router.get("/api/status", handlerOf(&FileDrop::sendStatus)).nonBlocking();
    router.get("/files/{name}", handlerOf(&FileDrop::sendFile));
    router.put("/files/{name}", handlerOf(&FileDrop::receiveFile)).streaming();
    router.del("/files/{name}", handlerOf(&FileDrop::deleteFile));
    router.get("/{path*}", handlerOf(&FileDrop::refuseOther)).nonBlocking();
}

qv::kit::Handler FileDrop::handlerOf(Handler handler)
{
    return [this, handler](Request& request) { serve(handler, request); };
}

void FileDrop::serve(Handler handler, Request& request)
{
    setCommonHeaders(request);
    try {
        (this->*handler)(request);
    } catch (const HttpError& error) {
        request.replyError(error.status(), error.what());
    }
}

void FileDrop::sendPage(Request& request)
{
    const std::string nonce = makeNonce();
    request.setHeader("Content-Security-Policy", pagePolicy(nonce));
    request.reply(pageWithNonce(nonce), ContentType::html());
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

void FileDrop::sendList(Request& request)
{
    std::optional<std::string> text = listText();
    if (!text)
        throw failure(StoreResult::Failed, "the directory cannot be read");
    request.reply(std::move(*text), ContentType::json());
}

void FileDrop::sendStatus(Request& request)
{
    const nlohmann::json status = {
        {"version", Wendrel::Version::GetDescStringMajorMinorReleaseRevision(false, false)},
        {"uptimeSeconds", (qv::qvSystemUtils::GetTimeBaseMs() - mStartedMs) / 1000},
        {"requests", mServer.requestCount()},
        {"openRequests", mServer.openRequests()},
        {"listeners", mLive.listenerCount()},
        {"bytesIn", mBytesIn.load()},
        {"bytesOut", mBytesOut.load()},
        {"thirdParty", qv::GetThirdPartyLibVersionInfos()},
    };
    request.reply(status.dump(), ContentType::json());
}

void FileDrop::sendFile(Request& request)
{
    const std::string name = usableName(request);
    Descriptor fd;
    FileInfo info;
    const StoreResult result = mStore->openFile(name, fd, info);
    if (result != StoreResult::Done)
        throw failure(result, "'" + name + "' cannot be opened");
    qv::kit::FileOptions options;
    options.downloadName = name;
    options.cacheControl = "no-cache";
    // An upload replaces a file as a whole.
    options.tag = qv::kit::FileTag::Strong;
    request.setHeader("Content-Security-Policy", kFilePolicy);
    request.replyOpenFile(fd.release(), name, options);
}

void FileDrop::receiveFile(Request& request)
{
    const UploadSlot slot(mFreeSlots);
    if (!slot.isTaken()) {
        request.setHeader("Retry-After", "2");
        throw HttpError(503, kBusy);
    }
    try {
        storeFile(request);
    } catch (const HttpError&) {
        discardRest(request);
        throw;
    }
}

void FileDrop::storeFile(Request& request)
{
    const std::string name = usableName(request);
    const std::string what = "'" + name + "' cannot be stored";
    const int64_t declared = request.contentLength();
    if (mMaxUploadBytes != 0 && declared > 0 && static_cast<uint64_t>(declared) > mMaxUploadBytes)
        throw tooLarge(mMaxUploadBytes);
    const std::unique_ptr<Upload> upload = receive(request, what);
    const StoreResult result = upload->commit(name);
    if (result != StoreResult::Done && result != StoreResult::Replaced)
        throw failure(result, what);
    const bool isNew = result == StoreResult::Done;
    if (isNew)
        request.setHeader("Location", request.target().substr(0, request.target().find('?')));
    mLive.listChanged();
    const nlohmann::json stored = {{"name", name}, {"size", upload->size()}};
    request.reply(isNew ? 201 : 200, stored.dump(), ContentType::json());
}

// When this throws, nothing is left of the upload.
std::unique_ptr<Upload> FileDrop::receive(Request& request, const std::string& what)
{
    std::unique_ptr<Upload> upload = mStore->beginUpload();
    if (!upload)
        throw failure(
            errno == ENOSPC || errno == EDQUOT ? StoreResult::NoSpace : StoreResult::Failed, what);
    std::vector<char> block(kBlockBytes);
    while (const size_t got = request.readBody(block.data(), block.size())) {
        mBytesIn += got;
        if (mMaxUploadBytes != 0 && upload->size() + got > mMaxUploadBytes)
            throw tooLarge(mMaxUploadBytes);
        const StoreResult result = upload->write(block.data(), got);
        if (result != StoreResult::Done)
            throw failure(result, what);
    }
    return upload;
}

void FileDrop::deleteFile(Request& request)
{
    const std::string name = usableName(request);
    const StoreResult result = mStore->remove(name);
    if (result != StoreResult::Done)
        throw failure(result, "'" + name + "' cannot be deleted");
    mLive.listChanged();
    request.reply(204);
}

// Instead of the server's own response, which has none of the common headers.
void FileDrop::refuseOther(Request&)
{
    throw HttpError(404, "There is no such page.");
}

}  // namespace filedrop

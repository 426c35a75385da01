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
constexpr uint64_t kMaxDiscardedBytes = 64u << 20;

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

void setCommonHeaders(Request& request)
{
    request.setHeader("X-Content-Type-Options", "nosniff");
    request.setHeader("Content-Security-Policy", kPolicy);
    request.setHeader("Referrer-Policy", "no-referrer");
    request.setHeader("Cross-Origin-Resource-Policy", "same-origin");
    request.setHeader("Cache-Control", "no-store");
}

}  // namespace

// An upload while it is received, in pieces, by any worker. Its callbacks own it: it is destroyed
// after the response, or when the client has left.
class FileDrop::Reception
{
public:
    Reception(FileDrop& fileDrop, Request& request)
        : mFileDrop(fileDrop), mTarget(request.target()), mLater(request.defer())
    {
        attempt([&] { begin(request); });
    }

    qv::kit::DeferredResponse& response() { return mLater; }

    // Many clients read no response before they have sent everything: without this they would find
    // the connection closed instead of the reason.
    void take(std::string_view piece)
    {
        if (!mRefusal) {
            attempt([&] { store(piece); });
            return;
        }
        mDiscardedBytes += piece.size();
        if (mDiscardedBytes >= kMaxDiscardedBytes)
            refuse();
    }

    void complete()
    {
        if (!mRefusal)
            attempt([&] { commit(); });
        if (mRefusal)
            refuse();
    }

private:
    // After an error nothing is left of the upload.
    template <typename Action> void attempt(const Action& action)
    {
        try {
            action();
        } catch (const HttpError& error) {
            mRefusal = error;
            mUpload.reset();
        }
    }

    void refuse() { mLater.replyError(mRefusal->status(), mRefusal->what()); }

    void begin(const Request& request)
    {
        mName = usableName(request);
        mWhat = "'" + mName + "' cannot be stored";
        checkSize(static_cast<uint64_t>(std::max<int64_t>(request.contentLength(), 0)));
        mUpload = mFileDrop.mStore->beginUpload();
        if (!mUpload)
            throw failure(errno == ENOSPC || errno == EDQUOT ? StoreResult::NoSpace
                                                             : StoreResult::Failed,
                          mWhat);
    }

    void checkSize(uint64_t bytes) const
    {
        const uint64_t limit = mFileDrop.mMaxUploadBytes;
        if (limit != 0 && bytes > limit)
            throw tooLarge(limit);
    }

    void store(std::string_view piece)
    {
        mFileDrop.mBytesIn += piece.size();
        checkSize(mUpload->size() + piece.size());
        const StoreResult result = mUpload->write(piece.data(), piece.size());
        if (result != StoreResult::Done)
            throw failure(result, mWhat);
    }

    void commit()
    {
        const StoreResult result = mUpload->commit(mName);
        if (result != StoreResult::Done && result != StoreResult::Replaced)
            throw failure(result, mWhat);
        const bool isNew = result == StoreResult::Done;
        if (isNew)
            mLater.setHeader("Location", mTarget.substr(0, mTarget.find('?')));
        mFileDrop.mLive.listChanged();
        const nlohmann::json stored = {{"name", mName}, {"size", mUpload->size()}};
        mLater.reply(isNew ? 201 : 200, stored.dump(), ContentType::json());
    }

    FileDrop& mFileDrop;
    const std::string mTarget;
    std::string mName;
    std::string mWhat;  // for the log
    std::unique_ptr<Upload> mUpload;
    std::optional<HttpError> mRefusal;
    uint64_t mDiscardedBytes = 0;
    qv::kit::DeferredResponse mLater;
};

FileDrop::FileDrop(std::unique_ptr<FileStore> store, const Settings& settings)
    : mStore(std::move(store)), mMaxUploadBytes(settings.maxUploadBytes),
      mStartedMs(qv::qvSystemUtils::GetTimeBaseMs()),
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
    const auto reception = std::make_shared<Reception>(*this, request);
    reception->response().onBody([reception](std::string_view piece) { reception->take(piece); },
                                 [reception] { reception->complete(); });
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

/// The application: routes and handlers.
#ifndef FILEDROP_FILEDROP_H
#define FILEDROP_FILEDROP_H

#include "Conditional.h"
#include "FileStore.h"
#include "LiveList.h"

#include <Wendrel/kit/Server.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace filedrop
{

struct Settings
{
    qv::kit::ServerOptions server;
    uint64_t maxUploadBytes = 0;  ///< 0: no limit
};

/// Serves one directory.
///
/// An upload keeps its worker until it ends; downloads and listeners keep none. An eighth of the
/// workers, at least one, is reserved for other requests: the page stays available. Further uploads
/// get 503 at once.
class FileDrop
{
public:
    FileDrop(std::unique_ptr<FileStore> store, const Settings& settings);

    /// For its start and its stop.
    qv::kit::Server& server() { return mServer; }

private:
    class UploadSlot;
    struct Outcome;
    using Handler = Outcome (FileDrop::*)(qv::kit::Request&);

    void addRoutes();
    qv::kit::Handler handlerOf(Handler handler);
    void serve(Handler handler, qv::kit::Request& request);
    Outcome respond(qv::kit::Request& request, int status, std::string body,
                    const qv::kit::ContentType& type);

    Outcome sendPage(qv::kit::Request& request);
    std::optional<std::string> listText() const;
    Outcome sendList(qv::kit::Request& request);
    Outcome sendStatus(qv::kit::Request& request);
    Outcome sendFile(qv::kit::Request& request);
    Outcome sendContent(qv::kit::Request& request, Descriptor fd, const FileInfo& info);
    Outcome sendBytes(qv::kit::Request& request, Descriptor fd, const FileInfo& info,
                      const ByteRange& range);
    Outcome receiveFile(qv::kit::Request& request);
    Outcome storeFile(qv::kit::Request& request);
    std::unique_ptr<Upload> receive(qv::kit::Request& request, const std::string& what);
    Outcome deleteFile(qv::kit::Request& request);
    Outcome refuseOther(qv::kit::Request& request);

    const std::unique_ptr<FileStore> mStore;
    const uint64_t mMaxUploadBytes;
    const int64_t mStartedMs;
    std::atomic<uint64_t> mBytesIn{0};
    std::atomic<uint64_t> mBytesOut{0};
    std::atomic<int64_t> mFreeSlots;
    LiveList mLive;
    qv::kit::Server mServer;  // last: its threads use all above
};

}  // namespace filedrop

#endif

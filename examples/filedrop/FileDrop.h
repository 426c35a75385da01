/// The application: routes and handlers.
#ifndef FILEDROP_FILEDROP_H
#define FILEDROP_FILEDROP_H

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
/// Neither a transfer nor a listener occupies a worker while its client is slow.
class FileDrop
{
public:
    FileDrop(std::unique_ptr<FileStore> store, const Settings& settings);

    /// For its start and its stop.
    qv::kit::Server& server() { return mServer; }

private:
    class Reception;
    using Handler = void (FileDrop::*)(qv::kit::Request&);

    void addRoutes();
    qv::kit::Handler handlerOf(Handler handler);
    void serve(Handler handler, qv::kit::Request& request);

    void sendPage(qv::kit::Request& request);
    std::optional<std::string> listText() const;
    void sendList(qv::kit::Request& request);
    void sendStatus(qv::kit::Request& request);
    void sendFile(qv::kit::Request& request);
    void receiveFile(qv::kit::Request& request);
    void deleteFile(qv::kit::Request& request);
    void refuseOther(qv::kit::Request& request);

    const std::unique_ptr<FileStore> mStore;
    const uint64_t mMaxUploadBytes;
    const int64_t mStartedMs;
    std::atomic<uint64_t> mBytesIn{0};
    std::atomic<uint64_t> mBytesOut{0};
    LiveList mLive;
    qv::kit::Server mServer;  // last: its threads use all above
};

}  // namespace filedrop

#endif

/// The application: routes and handlers.
#ifndef FILEDROP_FILEDROP_H
#define FILEDROP_FILEDROP_H

#include "Conditional.h"
#include "DropRequest.h"
#include "FileStore.h"
#include "LiveList.h"
#include "Receiver.h"

#include <Wendrel/kit/Application.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace filedrop
{

struct Settings
{
    uint32_t workers = 64;
    uint64_t maxUploadBytes = 0;  ///< 0: no limit
};

/// Serves one directory. Owned by its server.
///
/// An upload, and a download that does not fit into the library's buffers, keeps its worker
/// until it ends. An eighth of the workers, at least one, is reserved for other requests: the page
/// stays available, and no upload waits for a worker while its body fills the memory. Further
/// transfers get 503 at once.
class FileDrop : public qv::kit::Application
{
public:
    FileDrop(std::unique_ptr<FileStore> store, const Settings& settings);
    ~FileDrop() override;

protected:
    qv::kit::Request* newRequest() override;
    void serve(qv::kit::Request& request) override;
    void onNewWebSocket(qv::http::WebSocket* socket) override;
    void onServerStopped() override;

private:
    class TransferSlot;

    void addRoutes();
    void sendPage(DropRequest& request);
    std::optional<std::string> listText() const;
    void sendList(DropRequest& request);
    void refuseLive(DropRequest& request);
    void sendStatus(DropRequest& request);
    void sendFile(DropRequest& request);
    void sendContent(DropRequest& request, int fd, const FileInfo& info);
    void stream(DropRequest& request, int fd, const std::string& name, const ByteRange& range);
    void receiveFile(DropRequest& request);
    void respondToUpload(DropRequest& request, Receiver& receiver, const std::string& name);
    void deleteFile(DropRequest& request);
    void respondFailure(DropRequest& request, StoreResult result, const std::string& what);

    const std::unique_ptr<FileStore> mStore;
    const Settings mSettings;
    const int64_t mStartedMs;
    std::atomic<uint64_t> mBytesIn{0};
    std::atomic<uint64_t> mBytesOut{0};
    std::atomic<int64_t> mFreeSlots;
    LiveList mLive;
};

}  // namespace filedrop

#endif

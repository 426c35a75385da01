// The TLS of a server: the certificates of its endpoints, and the relays of its daemons.
#ifndef WENDREL_LISTENER_TLSENGINE_H
#define WENDREL_LISTENER_TLSENGINE_H

#include <Wendrel/TlsOptions.h>

#include "listener/TlsContext.h"
#include "listener/TlsRelay.h"
#include "listener/TlsTicketKeys.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qv::impl
{

// Shared by the server and by its upgraded connections, which may outlive it.
class TlsEngine
{
public:
    // Null, with the reason in `why`, when a certificate cannot be used or the system has no
    // thread. One relay for each of `sinks`.
    static std::shared_ptr<TlsEngine> Open(const std::vector<http::TlsOptions>& options,
                                           size_t sinks, bool halfClosedClients, std::string& why);

    TlsEngine(const TlsEngine&) = delete;
    TlsEngine& operator=(const TlsEngine&) = delete;

    // Reads all files again. Returns why nothing has changed; empty on success. Any thread.
    std::string reload();

    // Of the record with this index; for new connections. Any thread.
    std::shared_ptr<const TlsContext> getContext(size_t index) const;
    int64_t getHandshakeMs(size_t index) const { return mOptions[index].handshakeTimeout.count(); }

    TlsRelay& getRelay(size_t sink) { return *mRelays[sink]; }

    // Of all relays. Any thread.
    size_t getUnfinished() const;
    size_t getFlushing() const;
    size_t getUnseen() const;
    void closeAll();

private:
    explicit TlsEngine(const std::vector<http::TlsOptions>& options) : mOptions(options) {}

    using Contexts = std::vector<std::shared_ptr<const TlsContext>>;
    std::string load(Contexts& contexts) const;

    const std::vector<http::TlsOptions> mOptions;
    const std::shared_ptr<TlsTicketKeys> mKeys = std::make_shared<TlsTicketKeys>();
    std::vector<std::unique_ptr<TlsRelay>> mRelays;

    mutable qvMutex mMutex;
    Contexts mContexts QV_GUARDED_BY(mMutex);  // in the order of the options
};

}  // namespace qv::impl

#endif

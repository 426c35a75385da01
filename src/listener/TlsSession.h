// The server's side of TLS on the descriptor of a client.
#ifndef WENDREL_LISTENER_TLSSESSION_H
#define WENDREL_LISTENER_TLSSESSION_H

#include <Wendrel/TlsConnection.h>

#include "listener/TlsContext.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qv::impl
{

// Owns the descriptor, which is non-blocking. One thread at a time; the thread blocks SIGPIPE.
class TlsSession
{
public:
    enum class Result : uint8_t {
        Done,
        WantsRead,   // again when the descriptor can be read
        WantsWrite,  // again when it can be written
        Closed,      // the peer has sent its close_notify: nothing more comes
        Failed       // the connection is over: reset, cut off, or the peer does not follow TLS
    };

    TlsSession(std::shared_ptr<const TlsContext> context, int descriptor);
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    int getDescriptor() const { return mDescriptor; }

    Result handshake();

    // Why the last operation has failed.
    const std::string& getFailure() const { return mFailure; }

    // After the handshake. At most `size` bytes; `count` says how many.
    Result read(char* bytes, size_t size, size_t& count);
    Result write(const char* bytes, size_t size, size_t& count);

    // Bytes have been received that a `read` may give without the descriptor.
    bool hasReceived() const;

    // Ends the direction to the peer, once everything is written.
    Result sendCloseNotify();

    // The connection is reset when it is closed: its peer cannot take its end for that of the
    // bytes.
    void resetAtEnd();

    // Frees the memory of TLS; the descriptor stays.
    void endTls();

    // Leaves the descriptor to the caller, without TLS.
    int releaseDescriptor();

    std::shared_ptr<const TlsConnection> describe() const;

private:
    Result toResult(int returned);

    const std::shared_ptr<const TlsContext> mContext;
    int mDescriptor;
    SslPointer mSession;
    std::string mFailure;
};

}  // namespace qv::impl

#endif

/// The client's side of TLS on a socket.
#ifndef WENDREL_TESTS_INTEGRATION_TLSEND_H
#define WENDREL_TESTS_INTEGRATION_TLSEND_H

#include <openssl/ssl.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

#include <sys/types.h>

namespace integration
{

/// Makes the descriptor non-blocking. One thread may send while another one receives. No operation
/// waits longer than the limit; errno is EAGAIN then.
class TlsEnd
{
public:
    /// Sets the options of a test before the handshake.
    using Prepare = std::function<void(SSL_CTX* context, SSL* session)>;

    /// Shakes hands; `isOpen` tells the result. The certificate of the server is not checked unless
    /// `prepare` demands it.
    explicit TlsEnd(int descriptor, const Prepare& prepare = nullptr);

    bool isOpen() const { return mIsOpen; }
    SSL* session() const { return mSession.get(); }

    /// As send and recv: -1 on error, 0 at a close_notify.
    ssize_t send(const char* bytes, size_t size);
    ssize_t receive(char* bytes, size_t size);

    /// Sends close_notify.
    void finishSending();

private:
    struct Freer
    {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
        void operator()(SSL* session) const { SSL_free(session); }
    };

    template <typename Step> ssize_t repeat(const Step& step);

    const int mDescriptor;
    std::mutex mMutex;  // of the session
    std::unique_ptr<SSL_CTX, Freer> mContext;
    std::unique_ptr<SSL, Freer> mSession;
    bool mIsOpen = false;
};

}  // namespace integration

#endif

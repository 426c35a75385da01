// OpenSSL on a non-blocking socket, with the waits of a blocking one.

#include "TlsEnd.h"

#include "Waiting.h"

#include <openssl/err.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

namespace integration
{

TlsEnd::TlsEnd(int descriptor, const Prepare& prepare)
    : mDescriptor(descriptor), mContext(SSL_CTX_new(TLS_client_method()))
{
    if (!mContext)
        throw std::runtime_error("OpenSSL gives no context");
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
    mSession.reset(SSL_new(mContext.get()));
    SSL_set_fd(mSession.get(), descriptor);
    SSL_set_connect_state(mSession.get());
    SSL_set_mode(mSession.get(),
                 SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (prepare)
        prepare(mContext.get(), mSession.get());
    mIsOpen = repeat([&](size_t& count) {
                  count = 1;
                  return SSL_do_handshake(mSession.get());
              }) > 0;
}

// `step` sets the count of bytes.
template <typename Step> ssize_t TlsEnd::repeat(const Step& step)
{
    const auto end = std::chrono::steady_clock::now() + kLimit;
    for (;;) {
        size_t count = 0;
        int result = 0;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            ERR_clear_error();
            const int returned = step(count);
            if (returned > 0)
                return static_cast<ssize_t>(count);
            result = SSL_get_error(mSession.get(), returned);
        }
        if (result == SSL_ERROR_ZERO_RETURN)
            return 0;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if ((result != SSL_ERROR_WANT_READ && result != SSL_ERROR_WANT_WRITE)) {
            errno = ECONNRESET;
            return -1;
        }
        const short events = result == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        pollfd wait{mDescriptor, events, 0};
        if (left.count() <= 0 || ::poll(&wait, 1, static_cast<int>(left.count())) == 0) {
            errno = EAGAIN;
            return -1;
        }
    }
}

ssize_t TlsEnd::send(const char* bytes, size_t size)
{
    return repeat([&](size_t& count) { return SSL_write_ex(mSession.get(), bytes, size, &count); });
}

ssize_t TlsEnd::receive(char* bytes, size_t size)
{
    return repeat([&](size_t& count) { return SSL_read_ex(mSession.get(), bytes, size, &count); });
}

void TlsEnd::finishSending()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    ERR_clear_error();
    SSL_shutdown(mSession.get());
}

}  // namespace integration

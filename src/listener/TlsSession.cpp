// OpenSSL's results, and the description of a connection after its handshake.

#include "listener/TlsSession.h"

#include <qvSystem/SystemError.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace qv::impl
{
namespace
{

std::string subjectOf(X509* certificate)
{
    const BioPointer bio(BIO_new(BIO_s_mem()));
    if (!bio ||
        X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) < 0)
        return std::string();
    char* text = nullptr;
    const long bytes = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<size_t>(bytes));
}

std::string fingerprintOf(X509* certificate)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int bytes = 0;
    std::string text;
    if (X509_digest(certificate, EVP_sha256(), digest.data(), &bytes) != 1)
        return text;
    for (unsigned int i = 0; i < bytes; ++i) {
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}

}  // namespace

TlsSession::TlsSession(std::shared_ptr<const TlsContext> context, int descriptor)
    : mContext(std::move(context)), mDescriptor(descriptor),
      mSession(mContext->createSession(descriptor))
{
    if (!mSession)
        mFailure = "out of memory";
}

TlsSession::~TlsSession()
{
    endTls();
    if (mDescriptor >= 0)
        close(mDescriptor);
}

int TlsSession::releaseDescriptor()
{
    endTls();
    return std::exchange(mDescriptor, -1);
}

void TlsSession::resetAtEnd()
{
    const linger atOnce{1, 0};
    setsockopt(mDescriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

void TlsSession::endTls()
{
    mSession.reset();
}

TlsSession::Result TlsSession::toResult(int returned)
{
    const int systemError = errno;
    switch (SSL_get_error(mSession.get(), returned)) {
    case SSL_ERROR_NONE:
        return Result::Done;
    case SSL_ERROR_WANT_READ:
        return Result::WantsRead;
    case SSL_ERROR_WANT_WRITE:
        return Result::WantsWrite;
    case SSL_ERROR_ZERO_RETURN:
        return Result::Closed;
    case SSL_ERROR_SYSCALL:
        mFailure = systemError != 0 ? SystemError(systemError).toString() : "the connection ended";
        ERR_clear_error();
        return Result::Failed;
    default:
        mFailure = TakeTlsError();
        return Result::Failed;
    }
}

// Each operation looks at the errors of its thread, which must not be those of another session.
TlsSession::Result TlsSession::handshake()
{
    if (!mSession)
        return Result::Failed;
    ERR_clear_error();
    return toResult(SSL_do_handshake(mSession.get()));
}

TlsSession::Result TlsSession::read(char* bytes, size_t size, size_t& count)
{
    count = 0;
    ERR_clear_error();
    return toResult(SSL_read_ex(mSession.get(), bytes, size, &count));
}

TlsSession::Result TlsSession::write(const char* bytes, size_t size, size_t& count)
{
    count = 0;
    ERR_clear_error();
    return toResult(SSL_write_ex(mSession.get(), bytes, size, &count));
}

bool TlsSession::hasReceived() const
{
    return SSL_has_pending(mSession.get()) == 1;
}

TlsSession::Result TlsSession::sendCloseNotify()
{
    ERR_clear_error();
    const int returned = SSL_shutdown(mSession.get());
    // 0: sent, and that of the peer has not been received.
    return returned >= 0 ? Result::Done : toResult(returned);
}

std::shared_ptr<const TlsConnection> TlsSession::describe() const
{
    auto described = std::make_shared<TlsConnection>();
    SSL* const session = mSession.get();
    described->version = SSL_get_version(session);
    described->cipher = SSL_CIPHER_get_name(SSL_get_current_cipher(session));
    const char* const host = SSL_get_servername(session, TLSEXT_NAMETYPE_host_name);
    described->serverName = host ? host : "";
    described->isResumed = SSL_session_reused(session) == 1;
    if (X509* const certificate = SSL_get0_peer_certificate(session);
        certificate && SSL_get_verify_result(session) == X509_V_OK) {
        described->clientSubject = subjectOf(certificate);
        described->clientFingerprint = fingerprintOf(certificate);
    }
    return described;
}

}  // namespace qv::impl

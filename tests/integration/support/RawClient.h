/// A client that sends exactly the bytes it is told to.
#ifndef WENDREL_TESTS_INTEGRATION_RAWCLIENT_H
#define WENDREL_TESTS_INTEGRATION_RAWCLIENT_H

#include "TlsEnd.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace integration
{

/// A response as received.
struct RawResponse
{
    int status = 0;
    std::string statusLine;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;  ///< without the framing of chunks

    /// The values of a header in order; the name in any case.
    std::vector<std::string> values(std::string_view name) const;

    /// The one value of a header; empty when there is none or several.
    std::string value(std::string_view name) const;
};

/// One connection to a port of 127.0.0.1, over TLS in secure mode. No operation waits longer than
/// the limit.
class RawClient
{
public:
    explicit RawClient(uint16_t port);

    /// A connection that the test has made itself, which is closed with this object.
    struct Connected
    {
        int descriptor;
    };
    explicit RawClient(Connected connected);

    /// The same over TLS, in any mode.
    RawClient(Connected connected, const TlsEnd::Prepare& prepare);

    /// A connection over TLS, in any mode; `isSecure` tells whether the handshake has succeeded.
    RawClient(uint16_t port, const TlsEnd::Prepare& prepare);

    /// Whether TLS is open.
    bool isSecure() const { return mTls && mTls->isOpen(); }

    /// The session; null without TLS.
    SSL* session() const { return mTls ? mTls->session() : nullptr; }

    int descriptor() const { return mDescriptor; }

    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    /// True when a server accepts connections at `address`.
    static bool accepts(const char* address, uint16_t port);

    /// False when the connection is closed or no byte was accepted within the limit.
    bool send(std::string_view bytes);

    /// The next response; none when the connection ended or the limit passed before its end.
    /// `toHead`: the response to a HEAD request, which has no body.
    std::optional<RawResponse> receive(bool toHead = false);

    /// The next head, "100 Continue" included, leaving the body to `receiveSome`.
    std::optional<RawResponse> receiveHead();

    /// At least one further byte, at most `size`; empty at the end of the connection.
    std::string receiveSome(size_t size);

    /// Exactly `size` further bytes; fewer when the connection ends or the limit passes.
    std::string receiveExactly(size_t size);

    /// Everything up to the end of the connection.
    std::string receiveToEnd();

    /// True when the server has closed the connection and sent nothing more.
    bool isClosedByServer();

    /// Waits until the server has fetched every byte sent so far; false after the limit.
    /// For a server in this process or another one of this machine.
    bool waitUntilTaken() const;

    /// No more bytes will be sent. Over TLS: after a close_notify.
    void finishSending();

    /// Ends the connection at once; the server sees a reset.
    void reset();

    /// Ends the connection the ordinary way.
    void close();

private:
    bool fill();
    std::optional<std::string> takeLine();
    bool receiveBody(RawResponse& response);
    bool receiveChunks(RawResponse& response);

    ssize_t receivePiece(char* bytes, size_t size);

    int mDescriptor = -1;
    std::unique_ptr<TlsEnd> mTls;  // null: a plain connection
    bool mEnded = false;
    std::string mBuffer;  // received, not yet handed out
};

/// A socket connected to a port of 127.0.0.1; -1 without one.
int connectPlain(uint16_t port);

/// "GET TARGET HTTP/1.1" with a Host and the given header lines, each ending in CR LF.
std::string getRequest(const std::string& target, const std::string& headerLines = "");

}  // namespace integration

#endif

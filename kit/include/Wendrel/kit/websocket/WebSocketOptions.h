/// Limits and behaviour of WebSocket sessions.
#ifndef WENDREL_KIT_WEBSOCKET_WEBSOCKETOPTIONS_H
#define WENDREL_KIT_WEBSOCKET_WEBSOCKETOPTIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qv::kit::websocket
{

/// Treatment of a message that exceeds `WebSocketOptions::sendQueueBytes`.
enum class QueuePolicy : uint8_t {
    Close,       ///< queued messages are dropped and the session is closed with the code 1013
    DropNewest,  ///< the message is dropped
    DropOldest,  ///< the oldest messages are dropped until the message fits
    Refuse       ///< the message is not queued and the caller is told: `SendResult::Full`
};

/// A plain record, shared by all sessions of a route. The session keeps it alive.
struct WebSocketOptions
{
    /// Runs a callback on another thread later; false, or an exception, when it cannot.
    using Executor = std::function<bool(std::function<void()>)>;

    /// Largest received message, in bytes after decompression. Beyond it: closed with 1009.
    size_t maxMessageBytes = 1048576;

    /// Bytes that wait to be sent. A single message of any size is accepted while nothing waits.
    /// While half of it waits the connection is not read.
    size_t sendQueueBytes = 4194304;
    /// See `QueuePolicy`.
    QueuePolicy queuePolicy = QueuePolicy::Close;

    /// A ping is sent after this silence of the peer; 0: never.
    std::chrono::milliseconds pingInterval = std::chrono::seconds(30);
    /// A peer from which nothing is received for this time is disconnected; 0: never.
    std::chrono::milliseconds silenceTimeout = std::chrono::seconds(60);
    /// A peer that takes no byte of a waiting message for this time is disconnected; 0: never.
    std::chrono::milliseconds sendTimeout = std::chrono::seconds(30);
    /// From the sent close frame to the peer's close frame, and from there to the end of the
    /// connection.
    std::chrono::milliseconds closeTimeout = std::chrono::seconds(5);

    /// Subprotocols in the order of the server's preference.
    std::vector<std::string> subprotocols;

    /// Origins that may connect besides the server's own, such as "https://example.org"; "*": all.
    /// A request without `Origin`, which no browser sends, is always accepted.
    std::vector<std::string> allowedOrigins;

    /// Accepts permessage-deflate when the client offers it.
    bool deflate = true;
    /// Messages are compressed independently of each other: a prepared message is compressed once
    /// for all sessions, and no session keeps a compressor (268 kB each).
    bool serverNoContextTakeover = true;
    /// Asks clients to compress messages independently: no session keeps a decompressor (40 kB).
    bool clientNoContextTakeover = true;
    /// Largest window of sent messages, as a power of two: 9 to 15.
    int serverMaxWindowBits = 15;
    /// Largest window of received messages, where the client lets the server choose: 9 to 15.
    int clientMaxWindowBits = 15;
    /// Effort of the compression: 1 (fast) to 9 (small).
    int compressionLevel = 6;
    /// Memory of the compression: 1 to 9.
    int compressionMemoryLevel = 8;
    /// Shorter messages are sent uncompressed.
    size_t minDeflateBytes = 256;

    /// Where the callbacks of a session run, one at a time and in order; on its event loop when
    /// empty. If it returns false, the session is closed with 1013, and `onClose` runs on the loop.
    Executor executor;

    /// Begins the log lines of the sessions. `Router::webSocket` sets it to the pattern of the
    /// route, such as "GET /channels/{channel}", when it is empty.
    std::string name;
};

}  // namespace qv::kit::websocket

#endif

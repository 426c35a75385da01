/// A WebSocket connection as the application sees it.
#ifndef WENDREL_KIT_WEBSOCKET_SESSION_H
#define WENDREL_KIT_WEBSOCKET_SESSION_H

#include <Wendrel/kit/websocket/BinaryView.h>
#include <Wendrel/kit/websocket/PreparedMessage.h>

#include <qvSystem/IpAddress.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qv::kit::websocket
{

/// Result of sending a message.
enum class SendResult : uint8_t {
    Queued,   ///< it will be sent after all messages accepted before it
    Dropped,  ///< the send queue is full: `QueuePolicy::DropNewest` or `DropOldest`; or the message
              ///< is larger than a whole memory budget, and would never fit
    Full,     ///< the send queue is full: `QueuePolicy::Refuse`; try again in `onDrained`
    Closed    ///< the session is closed or being closed
};

/// An open WebSocket connection. Made by `Engine::open`; the application may keep it as long as it
/// likes, also after `onClose`, and after the engine has been destroyed.
///
/// All operations may be called on any thread, also inside callbacks, and none of them waits. Those
/// that send throw `std::bad_alloc` without memory; then nothing of the message is sent.
class Session
{
public:
    /// The connection has ended by then.
    virtual ~Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Sends a message of text, which must be UTF-8. The bytes are copied where they have to wait.
    virtual SendResult sendText(std::string_view text) = 0;

    /// Sends a binary message.
    virtual SendResult sendBinary(BinaryView bytes) = 0;

    /// Sends a message that other sessions are sent, too.
    virtual SendResult send(const PreparedMessage& message) = 0;

    /// Sends a ping with at most 125 bytes; longer ones are cut off.
    virtual SendResult ping(std::string_view payload = {}) = 0;

    /// Sends the accepted messages, then a close frame. False, and nothing happens, when the
    /// session is being closed already or `code` may not be sent: 1000 to 1003, 1007 to 1014 and
    /// 3000 to 4999 may. `reason` is cut off after at most 123 bytes; it must be UTF-8.
    virtual bool close(uint16_t code = 1000, std::string_view reason = {}) = 0;

    /// Ends the connection at once. Messages that wait are discarded. `onClose` follows.
    virtual void abort() = 0;

    /// False when no message can be sent any more.
    virtual bool isOpen() const = 0;

    /// Bytes of messages, with their frames, that wait for the peer to take them.
    virtual size_t bufferedBytes() const = 0;

    /// The subprotocol of the handshake; empty without one.
    virtual const std::string& subprotocol() const = 0;

    /// As `HttpBaseRequest::getClientAddress` of the handshake.
    virtual const IpAddress& peerAddress() const = 0;

protected:
    Session() = default;
};

/// The application's callbacks. One object may serve any number of sessions. A session shares the
/// ownership until its `onClose` has returned, so that a handler may own its session.
///
/// The callbacks of one session are called one after the other, never two at once: on the event
/// loop of the session, which they must not block, or where `WebSocketOptions::executor` runs them.
/// An exception that leaves one is logged, and the session is closed with the code 1011.
class SessionHandler
{
public:
    virtual ~SessionHandler();

    /// The first callback of a session. Keep `session` to send messages later.
    virtual void onOpen(const std::shared_ptr<Session>& session);

    /// A message of text, checked to be UTF-8. `text` is valid during the call.
    virtual void onText(Session& session, std::string_view text);

    /// A binary message. `bytes` are valid during the call.
    virtual void onBinary(Session& session, BinaryView bytes);

    /// A pong has been received. `payload` is valid during the call.
    virtual void onPong(Session& session, BinaryView payload);

    /// All messages have been sent, after some had to wait for the peer or one was refused
    /// (`SendResult::Full`). After a refusal the memory budget also has space for the smallest
    /// refused message: it is looked at every 64 to 128 ms. Others may use that space first; a
    /// message that is refused again is followed by another call.
    virtual void onDrained(Session& session);

    /// The last callback of a session, called exactly once. `code` and `reason` are those of the
    /// peer's close frame (1005 when it has no code); without one those of the failure that the
    /// server has found, such as 1002, 1007 or 1009; 1006 when the connection was lost. `clean`:
    /// both sides have sent a close frame.
    virtual void onClose(Session& session, uint16_t code, std::string_view reason, bool clean);
};

}  // namespace qv::kit::websocket

#endif

/// A message that is encoded once and sent to many sessions.
#ifndef WENDREL_KIT_WEBSOCKET_PREPAREDMESSAGE_H
#define WENDREL_KIT_WEBSOCKET_PREPAREDMESSAGE_H

#include <Wendrel/kit/websocket/BinaryView.h>

#include <memory>
#include <string_view>

namespace qv::kit::websocket
{

class MessageForms;

/// A handle to an immutable message; copies share it. `Session::send` sends it without a copy. Its
/// compressed forms are made when the first session needs them, one for each size of the window.
/// Any thread.
class PreparedMessage
{
public:
    /// A message of text, which must be UTF-8. The bytes are copied.
    static PreparedMessage text(std::string_view text);

    /// A binary message. The bytes are copied.
    static PreparedMessage binary(BinaryView bytes);

    /// True for a message of text, false for a binary one.
    bool isText() const;

    /// The bytes of the message, valid as long as a handle to it exists.
    BinaryView payload() const;

private:
    friend class Connection;
    explicit PreparedMessage(std::shared_ptr<MessageForms> forms);

    std::shared_ptr<MessageForms> mForms;
};

}  // namespace qv::kit::websocket

#endif

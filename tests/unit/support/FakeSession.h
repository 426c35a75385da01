/// A WebSocket session without a connection.
#ifndef WENDREL_TESTS_UNIT_SUPPORT_FAKESESSION_H
#define WENDREL_TESTS_UNIT_SUPPORT_FAKESESSION_H

#include <Wendrel/kit/websocket/Session.h>

#include <string>
#include <string_view>

namespace qv::tests
{

class FakeSession : public kit::websocket::Session
{
public:
    using BinaryView = kit::websocket::BinaryView;
    using PreparedMessage = kit::websocket::PreparedMessage;
    using SendResult = kit::websocket::SendResult;

    SendResult sendText(std::string_view text) override { return queue(text); }
    SendResult sendBinary(BinaryView bytes) override { return queue(bytes.asText()); }
    SendResult send(const PreparedMessage& message) override
    {
        return queue(message.payload().asText());
    }
    SendResult ping(std::string_view) override { return SendResult::Closed; }
    bool close(uint16_t, std::string_view) override { return false; }
    void abort() override {}
    bool isOpen() const override { return true; }
    size_t bufferedBytes() const override { return 0; }
    const std::string& subprotocol() const override { return mNone; }
    const IpAddress& peerAddress() const override { return mAddress; }

private:
    virtual void hear(std::string_view message) = 0;

    SendResult queue(std::string_view message)
    {
        hear(message);
        return SendResult::Queued;
    }

    const std::string mNone{};
    const IpAddress mAddress{};
};

}  // namespace qv::tests

#endif

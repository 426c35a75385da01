// An upgraded connection that echoes messages, in calls of at most 1024 bytes.
#ifndef BENCH_BARE_ECHOCONNECTION_H
#define BENCH_BARE_ECHOCONNECTION_H

#include <microhttpd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace bench
{

// Used by one thread at a time. As much of RFC 6455 as a benchmark's client uses: fragments, all
// lengths up to 64 MiB, ping and close.
class EchoConnection
{
public:
    EchoConnection(int socket, MHD_UpgradeResponseHandle* handle);

    // Has the daemon close the socket.
    ~EchoConnection();

    EchoConnection(const EchoConnection&) = delete;
    EchoConnection& operator=(const EchoConnection&) = delete;

    int getSocket() const { return mSocket; }

    // The events to poll for. While a reply is unsent, nothing is received.
    short getEvents() const;

    // Receives and replies to complete messages until the socket is empty or its buffer is full.
    // False when the connection has ended.
    bool serve();

private:
    static constexpr size_t kBlockBytes = 1024;
    static constexpr size_t kMaxHeaderBytes = 14;
    static constexpr size_t kMaxControlBytes = 125;
    // Capacity for the header of a reply, directly before the payload.
    static constexpr size_t kHeaderCapacityBytes = 10;
    static constexpr size_t kControlHeaderBytes = 2;

    enum class Step { Done, Blocked, Ended };

    bool isControl() const { return (mHeader[0] & 0x08) != 0; }
    Step send();
    Step receive();
    bool consume();
    size_t headerBytes() const;
    uint64_t payloadBytes() const;
    bool beginFrame();
    void takePayload();
    void endFrame();
    void replyToMessage();
    void replyToControl();
    void reserve(size_t bytes);

    const int mSocket;
    MHD_UpgradeResponseHandle* const mHandle;

    std::array<uint8_t, kBlockBytes> mBlock;
    size_t mBlockBegin = 0;
    size_t mBlockEnd = 0;

    std::array<uint8_t, kMaxHeaderBytes> mHeader;
    size_t mHeaderFill = 0;
    bool mInPayload = false;
    uint64_t mPayloadLeft = 0;
    size_t mMaskIndex = 0;

    // The message, after the capacity for a header; the reply is sent from here.
    std::unique_ptr<uint8_t[]> mMessage;
    size_t mMessageCapacity = 0;
    size_t mMessageBytes = 0;
    uint8_t mMessageOpcode = 0;  // 0 between messages

    std::array<uint8_t, kControlHeaderBytes + kMaxControlBytes> mControl;
    size_t mControlBytes = 0;

    const uint8_t* mOut = nullptr;
    size_t mOutBytes = 0;
    bool mEnding = false;  // when all is sent
};

}  // namespace bench

#endif

// An upgraded connection: its life, its socket and its messages.

#include <Wendrel/WebSocket.h>

#include "websocket/BlockPool.h"

#include <qvSystem/Rollback.h>

#include <microhttpd.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace qv::http
{
namespace
{

constexpr size_t kBlockBytes = 1024;
constexpr size_t kMaxFrameBytes = 131000;

// Capacity for the longest header that is read and that is written.
constexpr size_t kClientHeaderBytes = 14;
constexpr size_t kServerHeaderBytes = 10;

constexpr size_t kMinFrameBytes = 6;

// The default response: one word, often enough for three frames.
constexpr char kResponseWord[] = {'r', 'e', 's', 'p', 'o', 'n', 's', 'e'};
constexpr size_t kResponseWords = 32751;

constexpr size_t kMaskBytes = 4;

bool canHold(const std::vector<uint8_t>& message, size_t payload)
{
    return payload <= message.max_size() - message.size();
}

// Reserves space for the payload of a frame, as much as insert would, if a vector can hold it.
void reservePayload(std::vector<uint8_t>& message, size_t payload)
{
    const size_t size = message.size();
    if (canHold(message, payload) && payload > message.capacity() - size)
        message.reserve(size + std::max(size, payload));
}

// Ends a message that has been handed over, also when its handler throws.
class DeliveredMessage
{
public:
    DeliveredMessage(std::vector<uint8_t>& message, bool& isBinary)
        : mMessage(message), mIsBinary(isBinary)
    {}
    ~DeliveredMessage()
    {
        mMessage.clear();
        mIsBinary = false;
    }
    DeliveredMessage(const DeliveredMessage&) = delete;
    DeliveredMessage& operator=(const DeliveredMessage&) = delete;

private:
    std::vector<uint8_t>& mMessage;
    bool& mIsBinary;
};

}  // namespace

WebSocket::WebSocket(int descriptor, void* handle)
    : blockSize(kBlockBytes), writeOffset(0), lastWriteFill(kBlockBytes), readOffset(0),
      lastReadFill(kBlockBytes), upgradeHandle(handle), socket(descriptor), messageIsBinary(false),
      readPending(false), writePending(false)
{}

WebSocket::WebSocket(WebSocket&& upgraded) : WebSocket(upgraded.socket, upgraded.upgradeHandle)
{
    upgraded.socket = -1;
    upgraded.upgradeHandle = nullptr;
    readQueue.swap(upgraded.readQueue);
    std::swap(readOffset, upgraded.readOffset);
    std::swap(lastReadFill, upgraded.lastReadFill);
    message.swap(upgraded.message);
    std::swap(messageIsBinary, upgraded.messageIsBinary);
    readPending = upgraded.readPending.exchange(false);

    qvMutexLocker locker(&upgraded.lock);
    writeQueue.swap(upgraded.writeQueue);
    std::swap(writeOffset, upgraded.writeOffset);
    std::swap(lastWriteFill, upgraded.lastWriteFill);
    writePending = upgraded.writePending.exchange(false);
}

WebSocket::~WebSocket() = default;

void WebSocket::markForDeletion()
{
    if (upgradeHandle)
        MHD_upgrade_action(static_cast<MHD_UpgradeResponseHandle*>(upgradeHandle),
                           MHD_UPGRADE_ACTION_CLOSE);
    socket = -1;
    upgradeHandle = nullptr;
}

void WebSocket::assignCurrentThread()
{
    qvMutexLocker locker(&lock);
    currentThread = qvThread::CurrentThreadId();
}

void WebSocket::clearCurrentThread()
{
    qvMutexLocker locker(&lock);
    currentThread.clear();
}

bool WebSocket::sendDataIfAvailable()
{
    qvMutexLocker locker(&lock);
    while (!writeQueue.empty()) {
        const int wanted = static_cast<int>(firstWriteEnd() - writeOffset);
        const ssize_t sent =
            ::send(socket, writeQueue.front().data() + writeOffset, static_cast<size_t>(wanted), 0);
        if (sent < 0)
            return errno == EAGAIN;
        removeWrittenBytes(static_cast<size_t>(sent));
    }
    return true;
}

bool WebSocket::readDataIfAvailable()
{
    if (!readPending)
        return true;
    for (;;) {
        if (lastReadFill == blockSize) {
            impl::BlockPool::Append(readQueue, blockSize);
            lastReadFill = 0;
        }
        const int space = static_cast<int>(blockSize - lastReadFill);
        // Required: 0, the end of the client's side, is not treated as the end of the stream.
        const ssize_t received =
            ::recv(socket, readQueue.back().data() + lastReadFill, static_cast<size_t>(space), 0);
        if (received < 0) {
            if (errno != EAGAIN)
                return false;
            readPending = false;
            return tryToReadFrame() != ProtocolError;
        }
        lastReadFill += static_cast<size_t>(received);
        const int result = tryToReadFrame();
        if (result != FrameIncomplete)
            return result == FrameConsumed;
    }
}

int WebSocket::tryToReadFrame()
{
    const size_t available = bufferedBytes();
    if (available < kMinFrameBytes)
        return FrameIncomplete;
    uint8_t header[kClientHeaderBytes] = {};
    readNoSeek(header, sizeof header);

    // Required: a first fragment without payload leaves the message empty, so that its
    // continuation is refused.
    const bool expectFirstFrame = message.empty();
    uint8_t maskKey[kMaskBytes] = {};
    size_t payloadLength = 0;
    size_t headerSize = 0;
    bool error = false;
    bool isBinary = false;
    bool fin = false;
    if (!GetLength(header, available, expectFirstFrame, maskKey, payloadLength, headerSize, error,
                   isBinary, fin))
        return FrameIncomplete;
    if (error)
        return ProtocolError;

    // Before anything is consumed: without memory the frame stays where it is.
    reservePayload(message, payloadLength);
    skipBytes(headerSize);
    if (expectFirstFrame)
        messageIsBinary = isBinary;
    // Refused by insert; the loop below would take the lengths that wrap around.
    if (!canHold(message, payloadLength))
        message.insert(message.end(), payloadLength, 0);
    const size_t offset = message.size();
    // Block by block, so that each is in the processor's cache only once.
    for (size_t done = 0; done < payloadLength;) {
        const size_t part = std::min(firstReadEnd() - readOffset, payloadLength - done);
        uint8_t turnedKey[kMaskBytes];
        for (size_t i = 0; i < kMaskBytes; ++i)
            turnedKey[i] = maskKey[(done + i) % kMaskBytes];
        message.resize(offset + done + part);
        readRawData(message, turnedKey, offset + done);
        done += part;
    }
    if (!fin)
        return FrameConsumed;
    const DeliveredMessage delivered(message, messageIsBinary);
    onMessageReceived(message, messageIsBinary);
    return FrameConsumed;
}

void WebSocket::writeMessage(const void* data, size_t size, bool isBinary)
{
    std::string holder;
    {
        qvMutexLocker locker(&lock);
        holder = currentThread;
        const size_t blocksBefore = writeQueue.size();
        const size_t fillBefore = lastWriteFill;
        // Half a message would make the client take the next one for the rest of it.
        Rollback taken([&]() QV_REQUIRES(lock) {
            writeQueue.resize(blocksBefore);
            lastWriteFill = fillBefore;
            writePending = !writeQueue.empty();
        });
        queueFrames(data, size, isBinary);
        taken.commit();
    }
    // A worker sends for itself; for anybody else the poll thread will find the bytes.
    if (holder == qvThread::CurrentThreadId())
        sendDataIfAvailable();
}

void WebSocket::queueFrames(const void* data, size_t size, bool isBinary)
{
    const auto* next = static_cast<const uint8_t*>(data);
    bool isFirstFrame = true;
    bool fin = false;
    while (!fin) {
        fin = size <= kMaxFrameBytes;
        const size_t length = std::min(size, kMaxFrameBytes);
        uint8_t header[kServerHeaderBytes];
        size_t headerSize = 0;
        WriteHeader(header, length, isBinary, isFirstFrame, fin, headerSize);
        writeRawData(header, headerSize);
        writeRawData(next, length);
        isFirstFrame = false;
        next += length;
        size -= length;
    }
}

// Required: an application that overrides nothing responds to everything with this.
void WebSocket::onMessageReceived(std::vector<uint8_t>&, bool)
{
    std::vector<uint8_t> response(sizeof kResponseWord * kResponseWords);
    for (size_t i = 0; i < response.size(); ++i)
        response[i] = static_cast<uint8_t>(kResponseWord[i % sizeof kResponseWord]);
    writeMessage(response.data(), response.size(), true);
}

}  // namespace qv::http

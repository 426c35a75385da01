// A whole upgraded connection between a scripted socket and a reference reader: its bytes come in
// pieces of any size, messages are written in between, the object is moved about.
//
// Kept out, because it is required behaviour and would only end or stop the run:
// - a length of 2^64 - 14 and above ends in std::length_error; that it does is checked, and the
//   input is over;
// - a frame that announces more than ever comes is waited for; the script runs out instead;
// - a client that has ended its side makes recv return 0 again and again, and the library asks
//   again and again; here recv returns 0 a few times in a row, never for ever.

#include "support/Check.h"
#include "support/ReferenceFrames.h"

#include <support/WebSocketAccess.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace
{

using fuzz::Bytes;
using fuzz::ClientHeader;
using fuzz::ReferenceReader;
using qv::http::WebSocket;
using qv::impl::WebSocketAccess;
using Message = ReferenceReader::Message;

constexpr size_t kMaxOperations = 48;
constexpr size_t kMaxWireBytes = 100000;
constexpr size_t kMaxWrittenBytes = 400000;
constexpr size_t kMaxWrittenFrameBytes = 131000;
constexpr size_t kMaxZeros = 3;
constexpr int kDescriptor = 1000000;  // of nobody: only send and recv below see it

// The results of the two calls below.
struct ScriptedSocket
{
    Bytes wire;  // from the client
    size_t received = 0;
    size_t receiveBudget = 0;  // before EAGAIN or the error
    size_t receiveCap = 1;
    size_t zeros = 0;
    int receiveError = EAGAIN;
    bool receiveFailed = false;

    Bytes sent;
    size_t sendBudget = 0;
    size_t sendCap = 1;
    int sendError = EAGAIN;
    int lastSendError = 0;
};

ScriptedSocket* gSocket = nullptr;

// Which bytes the client sends: anything, or frames that are whole and then spoilt at one place.
Bytes MakeFrames(FuzzedDataProvider& input)
{
    Bytes wire;
    const size_t spoiltAt = input.ConsumeIntegralInRange<size_t>(0, 2 * kMaxWireBytes);
    while (input.remaining_bytes() > 0 && wire.size() < kMaxWireBytes) {
        wire.push_back(input.ConsumeIntegral<uint8_t>());
        const unsigned shift = input.ConsumeIntegralInRange<unsigned>(0, 17);
        const auto length = input.ConsumeIntegralInRange<uint64_t>(0, 0x1ffff >> shift);
        const auto form = input.ConsumeIntegralInRange<unsigned>(0, 2);
        unsigned lengthBytes = length > 65535 ? 8 : length > 125 ? 2 : 0;
        if (form > 0 && lengthBytes < 8)
            lengthBytes = form == 2 || lengthBytes == 2 ? 8 : 2;  // longer than needed
        wire.push_back(
            static_cast<uint8_t>(lengthBytes == 0 ? length : 125 + (lengthBytes + 6) / 7));
        for (unsigned i = lengthBytes; i > 0; --i)
            wire.push_back(static_cast<uint8_t>(length >> (8 * (i - 1))));
        uint32_t noise = input.ConsumeIntegral<uint32_t>();
        for (unsigned i = 0; i < 4; ++i)
            wire.push_back(static_cast<uint8_t>(noise >> (8 * i)));
        for (uint64_t i = 0; i < length; ++i) {
            noise = noise * 1664525 + 1013904223;
            wire.push_back(static_cast<uint8_t>(noise >> 24));
        }
    }
    if (spoiltAt < wire.size())
        wire[spoiltAt] ^= 0x55;
    return wire;
}

class Connection : public WebSocket
{
public:
    enum class Manner { Keep, Take, Enlarge, Echo, Last = Echo };

    Connection() : WebSocket(kDescriptor, nullptr) {}
    explicit Connection(Connection& other)
        : WebSocket(std::move(other)), manner(other.manner), messages(std::move(other.messages)),
          written(std::move(other.written)), writtenBytes(other.writtenBytes)
    {}

    void onMessageReceived(Bytes& message, bool isBinary) override
    {
        messages.push_back({message, isBinary});
        if (manner == Manner::Take)
            Bytes(std::move(message)).clear();
        else if (manner == Manner::Enlarge)
            message.resize(message.size() + 1000, 'x');
        else if (manner == Manner::Echo)
            put(message, isBinary);
    }

    void put(const Bytes& message, bool isBinary)
    {
        if (writtenBytes + message.size() > kMaxWrittenBytes)
            return;
        writtenBytes += message.size();
        written.push_back({message, isBinary});
        writeMessage(message.data(), message.size(), isBinary);
    }

    Manner manner = Manner::Keep;
    std::vector<Message> messages;
    std::vector<Message> written;
    size_t writtenBytes = 0;
};

bool IsSame(const Message& a, const Message& b)
{
    return a.isBinary == b.isBinary && a.payload == b.payload;
}

Bytes BufferedBytes(WebSocket& connection)
{
    Bytes bytes;
    const auto& queue = WebSocketAccess::readQueue(connection);
    for (const auto& block : queue) {
        FUZZ_CHECK(block.size() == WebSocketAccess::blockSize(connection));
        const bool isFirst = &block == &queue.front();
        const bool isLast = &block == &queue.back();
        const size_t begin = isFirst ? WebSocketAccess::readOffset(connection) : 0;
        const size_t end = isLast ? WebSocketAccess::lastReadFill(connection) : block.size();
        FUZZ_CHECK(begin <= end && end <= block.size());
        bytes.insert(bytes.end(), block.begin() + static_cast<ptrdiff_t>(begin),
                     block.begin() + static_cast<ptrdiff_t>(end));
    }
    return bytes;
}

Bytes UnsentBytes(WebSocket& connection)
{
    Bytes bytes;
    const auto& queue = WebSocketAccess::writeQueue(connection);
    for (const auto& block : queue) {
        const bool isFirst = &block == &queue.front();
        const bool isLast = &block == &queue.back();
        const size_t begin = isFirst ? WebSocketAccess::writeOffset(connection) : 0;
        const size_t end = isLast ? WebSocketAccess::lastWriteFill(connection) : block.size();
        FUZZ_CHECK(begin < end && end <= block.size());
        bytes.insert(bytes.end(), block.begin() + static_cast<ptrdiff_t>(begin),
                     block.begin() + static_cast<ptrdiff_t>(end));
    }
    FUZZ_CHECK(connection.hasWritePending() == !bytes.empty());
    return bytes;
}

// One connection from its first byte to the end of the script.
class Conversation
{
public:
    explicit Conversation(ScriptedSocket& socket)
        : mSocket(socket), mReader(socket.wire), mConnection(std::make_unique<Connection>())
    {}

    Connection& connection() { return *mConnection; }
    bool isOver() const { return mOver; }

    void move()
    {
        auto moved = std::make_unique<Connection>(*mConnection);
        FUZZ_CHECK(BufferedBytes(*mConnection).empty() && UnsentBytes(*mConnection).empty());
        FUZZ_CHECK(mConnection->getSocket() == -1 && moved->getSocket() == kDescriptor);
        mConnection = std::move(moved);
        check();
    }

    void read()
    {
        mSocket.receiveFailed = false;
        mConnection->setReadEnabled(true);
        bool result = false;
        try {
            result = mConnection->readDataIfAvailable();
        } catch (const std::length_error&) {
            mOver = true;
            follow();
            FUZZ_CHECK(mReader.step(mSocket.received) == ClientHeader::Verdict::Overflow);
            return;
        }
        check();
        if (result) {
            FUZZ_CHECK(!mSocket.receiveFailed);
            return;
        }
        mOver = true;
        FUZZ_CHECK(mSocket.receiveFailed ||
                   mReader.step(mSocket.received) == ClientHeader::Verdict::Refused);
    }

    void send()
    {
        mSocket.lastSendError = 0;
        const bool result = mConnection->sendDataIfAvailable();
        const int error = mSocket.lastSendError;
        FUZZ_CHECK(result == (error == 0 || error == EAGAIN));
        FUZZ_CHECK(error != 0 || !mConnection->hasWritePending());
        check();
    }

    // All that has come must be handled in the end, however it came.
    void readAll()
    {
        mSocket.receiveBudget = mSocket.wire.size();
        mSocket.receiveCap = mSocket.wire.size() + 1;
        mSocket.receiveError = EAGAIN;
        const size_t mostFrames = mSocket.wire.size() / 6 + 2;
        for (size_t i = 0; i < mostFrames && !mOver; ++i) {
            const size_t before = mReader.at();
            read();
            if (mSocket.received == mSocket.wire.size() && mReader.at() == before)
                break;
        }
        if (!mOver)
            FUZZ_CHECK(mReader.step(mSocket.received) == ClientHeader::Verdict::NeedsMore);
    }

    // Parses all bytes as the client would, those still queued included.
    void checkWritten()
    {
        Bytes bytes = mSocket.sent;
        const Bytes unsent = UnsentBytes(*mConnection);
        bytes.insert(bytes.end(), unsent.begin(), unsent.end());
        size_t at = 0;
        for (const Message& message : mConnection->written)
            FUZZ_CHECK(IsSame(takeMessage(bytes, at), message));
        FUZZ_CHECK(at == bytes.size());
    }

private:
    static Message takeMessage(const Bytes& bytes, size_t& at)
    {
        Message message;
        for (bool isFirst = true, fin = false; !fin; isFirst = false) {
            const auto header = fuzz::DecodeServerHeader(bytes.data() + at, bytes.size() - at);
            FUZZ_CHECK(header.has_value());
            FUZZ_CHECK((header->opcode == 0) == !isFirst);
            at += header->size;
            FUZZ_CHECK(header->length <= std::min(bytes.size() - at, kMaxWrittenFrameBytes));
            if (isFirst)
                message.isBinary = header->opcode == 2;
            const auto payload = bytes.begin() + static_cast<ptrdiff_t>(at);
            message.payload.insert(message.payload.end(), payload,
                                   payload + static_cast<ptrdiff_t>(header->length));
            at += header->length;
            fin = header->fin;
            // All frames but the last are full, and it is there for something.
            FUZZ_CHECK(fin ? isFirst || header->length > 0
                           : header->length == kMaxWrittenFrameBytes);
        }
        return message;
    }

    // Brings the reference to where the connection is.
    void follow()
    {
        const size_t wanted = mConnection->messages.size();
        while (mReader.messages().size() < wanted)
            FUZZ_CHECK(mReader.step(mSocket.received) == ClientHeader::Verdict::Whole);
    }

    void check()
    {
        const Bytes buffered = BufferedBytes(*mConnection);
        FUZZ_CHECK(buffered.size() <= mSocket.received);
        const size_t consumed = mSocket.received - buffered.size();
        FUZZ_CHECK(std::equal(buffered.begin(), buffered.end(),
                              mSocket.wire.begin() + static_cast<ptrdiff_t>(consumed)));
        while (mReader.at() < consumed)
            FUZZ_CHECK(mReader.step(mSocket.received) == ClientHeader::Verdict::Whole);
        FUZZ_CHECK(mReader.at() == consumed);

        const auto& expected = mReader.messages();
        const auto& messages = mConnection->messages;
        FUZZ_CHECK(messages.size() == expected.size());
        for (; mChecked < expected.size(); ++mChecked)
            FUZZ_CHECK(IsSame(messages[mChecked], expected[mChecked]));
        const Message& partial = mReader.partial();
        FUZZ_CHECK(WebSocketAccess::message(*mConnection) == partial.payload);
        if (!partial.payload.empty())
            FUZZ_CHECK(WebSocketAccess::messageIsBinary(*mConnection) == partial.isBinary);
        UnsentBytes(*mConnection);
    }

    ScriptedSocket& mSocket;
    ReferenceReader mReader;
    std::unique_ptr<Connection> mConnection;
    size_t mChecked = 0;  // messages
    bool mOver = false;
};

struct Operation
{
    enum Kind { Read, Write, Send, Move, Manner, Last = Manner };

    unsigned kind = Read;
    size_t amount = 0;
    size_t cap = 1;
    uint8_t detail = 0;
};

Operation ConsumeOperation(FuzzedDataProvider& input)
{
    Operation operation;
    operation.kind = input.ConsumeIntegralInRange<unsigned>(0, Operation::Last);
    const unsigned shift = input.ConsumeIntegralInRange<unsigned>(0, 17);
    operation.amount = input.ConsumeIntegralInRange<size_t>(0, 0x4ffff >> shift);
    operation.cap = input.ConsumeIntegralInRange<size_t>(1, 1500);
    operation.detail = input.ConsumeIntegral<uint8_t>();
    return operation;
}

void Perform(const Operation& operation, ScriptedSocket& socket, Conversation& conversation)
{
    constexpr int kErrors[] = {ECONNRESET, EINTR, EPIPE, EBADF};
    const bool fails = operation.detail >= 0xe0;
    const int error = fails ? kErrors[operation.detail % 4] : EAGAIN;
    Connection& connection = conversation.connection();
    switch (operation.kind) {
    case Operation::Read:
        socket.receiveBudget = operation.amount;
        socket.receiveCap = operation.cap;
        socket.receiveError = error;
        socket.zeros = operation.detail % (kMaxZeros + 1);
        conversation.read();
        break;
    case Operation::Write:
        connection.put(Bytes(operation.amount, operation.detail), operation.detail % 2 == 1);
        break;
    case Operation::Send:
        socket.sendBudget = operation.amount;
        socket.sendCap = operation.cap;
        socket.sendError = error;
        conversation.send();
        break;
    case Operation::Move:
        conversation.move();
        break;
    default:
        connection.manner = static_cast<Connection::Manner>(
            operation.detail % (static_cast<int>(Connection::Manner::Last) + 1));
        // A worker sends for itself from within its own handler.
        if (operation.detail & 0x10)
            connection.assignCurrentThread();
        else
            connection.clearCurrentThread();
    }
}

}  // namespace

extern "C" {

ssize_t recv(int fd, void* buffer, size_t length, int)
{
    ScriptedSocket& socket = *gSocket;
    FUZZ_CHECK(fd == kDescriptor && length > 0);
    if (socket.zeros > 0) {
        --socket.zeros;
        return 0;
    }
    const size_t count = std::min(
        {length, socket.receiveCap, socket.receiveBudget, socket.wire.size() - socket.received});
    if (count == 0) {
        socket.receiveFailed = socket.receiveError != EAGAIN;
        errno = socket.receiveError;
        return -1;
    }
    std::copy_n(socket.wire.data() + socket.received, count, static_cast<uint8_t*>(buffer));
    socket.received += count;
    socket.receiveBudget -= count;
    return static_cast<ssize_t>(count);
}

ssize_t send(int fd, const void* data, size_t length, int)
{
    ScriptedSocket& socket = *gSocket;
    FUZZ_CHECK(fd == kDescriptor && length > 0);
    const size_t count = std::min({length, socket.sendCap, socket.sendBudget});
    if (count == 0) {
        errno = socket.lastSendError = socket.sendError;
        return -1;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    socket.sent.insert(socket.sent.end(), bytes, bytes + count);
    socket.sendBudget -= count;
    return static_cast<ssize_t>(count);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    std::vector<Operation> operations(input.ConsumeIntegralInRange<size_t>(0, kMaxOperations));
    for (Operation& operation : operations)
        operation = ConsumeOperation(input);

    ScriptedSocket socket;
    gSocket = &socket;
    socket.wire = input.ConsumeBool() ? MakeFrames(input) : input.ConsumeRemainingBytes<uint8_t>();
    Conversation conversation(socket);
    for (const Operation& operation : operations) {
        if (!conversation.isOver())
            Perform(operation, socket, conversation);
    }
    if (!conversation.isOver())
        conversation.readAll();
    conversation.checkWritten();
    return 0;
}
}

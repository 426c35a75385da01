// The client of Boost.Beast against the echo server.
//
//     websocket_beast_client messages PORT COUNT SEED
//     websocket_beast_client connections PORT COUNT SEED
//
// "connections" prints "open" when all are open and goes on when it is sent a line. Both end with
// a line of statistics and status 0, or with the error and status 1.

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;

constexpr size_t kMiB = size_t{1} << 20;
constexpr size_t kServerBlockBytes = 1024;
constexpr size_t kBoundaries[] = {0, 125, 126, 127, 65535, 65536, 131000, 131001, 262000, 262001};
constexpr size_t kLarge[] = {kMiB, 2 * kMiB, 3 * kMiB, 4 * kMiB};
const std::vector<size_t> kConnectionSizes{0, 1, 125, 126, 3000, 131001, 40000, 500, 0, 65536};

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what);
}

void check(beast::error_code error, const char* what)
{
    if (error)
        fail(std::string(what) + ": " + error.message());
}

struct Message
{
    std::string_view data;
    std::string changed;  // the text of `data` when it is not a plain cut
    bool isBinary = false;
    std::vector<size_t> pieces;  // lengths of all but the last; none when it goes in one frame
};

bool isInsideCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

// Where payloads are cut from: bytes, and text whose characters are 1 to 4 bytes long.
class Contents
{
public:
    explicit Contents(unsigned seed) : mRandom(seed)
    {
        mBytes.resize(5 * kMiB);
        for (char& byte : mBytes)
            byte = static_cast<char>(mRandom());
        constexpr const char* kAlphabet[] = {"a", "Z", " ", "\n", "ä", "ß", "€", "한", "😀"};
        while (mText.size() < 5 * kMiB)
            mText += kAlphabet[below(std::size(kAlphabet))];
    }

    // 0 to `bound` - 1.
    size_t below(size_t bound) { return mRandom() % bound; }

    std::unique_ptr<Message> message(size_t size)
    {
        auto made = std::make_unique<Message>();
        made->isBinary = below(2) == 1;
        const size_t at = below(kMiB);
        if (made->isBinary) {
            made->data = std::string_view(mBytes).substr(at, size);
        } else {
            made->changed = text(at, size);
            made->data = made->changed;
        }
        return made;
    }

    // Mostly short, each boundary 40 times and each large size 10 times in 10000.
    std::vector<size_t> sizes(size_t count)
    {
        std::vector<size_t> made;
        for (size_t i = 0; i < (count + 249) / 250; ++i)
            made.insert(made.end(), std::begin(kBoundaries), std::end(kBoundaries));
        for (size_t i = 0; i < (count + 999) / 1000; ++i)
            made.insert(made.end(), std::begin(kLarge), std::end(kLarge));
        while (made.size() < count) {
            const size_t kind = below(100);
            made.push_back(below(kind < 80 ? 300 : kind < 99 ? 4096 : 65536));
        }
        std::shuffle(made.begin(), made.end(), mRandom);
        return made;
    }

    // The messages that are sent before their echoes are awaited: two messages of one frame each,
    // or one message in pieces, or one whole. The server handles one frame each time it receives
    // and one more when nothing is left to receive; further frames would wait for the next byte of
    // the client. So there are two frames at most, or longer ones of which at most two end in the
    // 1024 bytes that the server receives at a time.
    std::deque<std::unique_ptr<Message>> turn(const std::vector<size_t>& sizes, size_t at)
    {
        std::deque<std::unique_ptr<Message>> made;
        const size_t kind = below(4);
        made.push_back(message(sizes[at]));
        if (kind == 0 && at + 1 < sizes.size())
            made.push_back(message(sizes[at + 1]));
        if (kind == 1)
            made.front()->pieces = pieces(sizes[at]);
        return made;
    }

private:
    // A character that the cut divides is replaced, so that all of it is valid.
    std::string text(size_t at, size_t size)
    {
        std::string cut = mText.substr(at, size);
        for (size_t i = 0; i < size && isInsideCharacter(cut[i]); ++i)
            cut[i] = 'x';
        if (size > 0 && isInsideCharacter(mText[at + size])) {
            size_t last = size - 1;
            while (isInsideCharacter(cut[last]))
                --last;
            std::fill(cut.begin() + static_cast<std::ptrdiff_t>(last), cut.end(), 'x');
        }
        return cut;
    }

    // The first is never 0: the server would refuse it.
    std::vector<size_t> pieces(size_t size)
    {
        if (size < 2)
            return {};
        if (size < 4 * kServerBlockBytes)
            return {1 + below(size - 1)};
        std::vector<size_t> made(1 + below(4));
        for (size_t& piece : made)
            piece = kServerBlockBytes + below(size / 4 - kServerBlockBytes + 1);
        return made;
    }

    std::mt19937 mRandom;
    std::string mBytes;
    std::string mText;
};

// One connection, which sends its messages turn by turn and compares the echoes.
class Client
{
public:
    Client(asio::io_context& context, Contents& contents, std::vector<size_t> sizes)
        : mStream(context), mContents(contents), mSizes(std::move(sizes))
    {
        // Frames are cut here and nowhere else.
        mStream.auto_fragment(false);
        mStream.set_option(
            beast::websocket::stream_base::decorator([](beast::websocket::request_type& request) {
                request.set(beast::http::field::upgrade, "WebSocket");
                request.set(beast::http::field::connection, "Upgrade");
            }));
    }

    void open(uint16_t port, std::function<void()> done)
    {
        mDone = std::move(done);
        mStream.next_layer().async_connect(
            tcp::endpoint(asio::ip::address_v4::loopback(), port), [this](beast::error_code error) {
                check(error, "connect");
                mStream.next_layer().set_option(tcp::no_delay(true));
                mStream.async_handshake("127.0.0.1", "/", [this](beast::error_code result) {
                    check(result, "handshake");
                    mDone();
                });
            });
    }

    void exchange(std::function<void()> done)
    {
        mDone = std::move(done);
        beginTurn();
        read();
    }

    // A server of polling mode drops the connection without a close frame in reply.
    void close()
    {
        mStream.async_close(beast::websocket::close_code::normal, [](beast::error_code error) {
            static const bool isClean = std::getenv("WENDREL_WEBSOCKET_CLEAN_CLOSE") != nullptr;
            if (error != (isClean ? beast::error_code() : beast::error_code(asio::error::eof)))
                fail("the close ended with: " + error.message());
        });
    }

    uint64_t bytes() const { return mBytes; }

private:
    void beginTurn()
    {
        mAwaited = mContents.turn(mSizes, mBegun);
        mBegun += mAwaited.size();
        mNextToWrite = 0;
        mPiece = 0;
        mOffset = 0;
        write();
    }

    // The next frame of the turn. The turn does not end before all are written.
    void write()
    {
        const Message& message = *mAwaited[mNextToWrite];
        const bool fin = mPiece == message.pieces.size();
        const size_t size = fin ? message.data.size() - mOffset : message.pieces[mPiece];
        mStream.binary(message.isBinary);
        mIsWriting = true;
        mStream.async_write_some(fin, asio::buffer(message.data.data() + mOffset, size),
                                 [this, fin, size](beast::error_code error, size_t) {
                                     check(error, "write");
                                     mIsWriting = false;
                                     mOffset += size;
                                     ++mPiece;
                                     if (fin) {
                                         ++mNextToWrite;
                                         mOffset = 0;
                                         mPiece = 0;
                                     }
                                     if (mNextToWrite < mAwaited.size())
                                         write();
                                     else if (mReceived == mAwaited.size())
                                         endTurn();
                                 });
    }

    void read()
    {
        mStream.async_read(mBuffer, [this](beast::error_code error, size_t) {
            check(error, "read");
            compare();
            ++mReceived;
            if (mReceived < mAwaited.size())
                read();
            else if (!mIsWriting)
                endTurn();
        });
    }

    void compare()
    {
        const auto buffer = mBuffer.cdata();
        const std::string_view came(static_cast<const char*>(buffer.data()), buffer.size());
        const Message& expected = *mAwaited[mReceived];
        if (mStream.got_binary() != expected.isBinary || came != expected.data)
            fail("a message of " + std::to_string(expected.data.size()) +
                 " bytes came back changed");
        mBytes += came.size();
        mBuffer.consume(mBuffer.size());
    }

    void endTurn()
    {
        mReceived = 0;
        if (mBegun == mSizes.size()) {
            mDone();
            return;
        }
        beginTurn();
        read();
    }

    beast::websocket::stream<tcp::socket> mStream;
    Contents& mContents;
    const std::vector<size_t> mSizes;
    std::function<void()> mDone;
    beast::flat_buffer mBuffer;
    std::deque<std::unique_ptr<Message>> mAwaited;  // the messages of this turn
    size_t mBegun = 0;                              // messages of this turn and all before
    size_t mReceived = 0;                           // of this turn
    size_t mNextToWrite = 0;                        // of this turn
    size_t mPiece = 0;
    size_t mOffset = 0;
    bool mIsWriting = false;
    uint64_t mBytes = 0;
};

// Runs until all has been done that was asked for.
void runAll(asio::io_context& context, std::chrono::steady_clock::time_point end)
{
    context.restart();
    context.run_until(end);
    if (!context.stopped())
        fail("not ready within the limit");
}

int run(const std::string& mode, uint16_t port, size_t count, unsigned seed)
{
    const char* limit = std::getenv("WENDREL_WEBSOCKET_LIMIT_SECONDS");
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(limit ? std::atoi(limit) : 60);
    Contents contents(seed);
    asio::io_context context;
    const bool isOne = mode == "messages";
    const std::vector<size_t> sizes = isOne ? contents.sizes(count) : kConnectionSizes;
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t i = 0; i < (isOne ? 1 : count); ++i)
        clients.push_back(std::make_unique<Client>(context, contents, sizes));

    size_t done = 0;
    for (const auto& client : clients)
        client->open(port, [&done] { ++done; });
    runAll(context, end);
    if (!isOne) {
        std::cout << "open" << std::endl;
        std::string line;
        std::getline(std::cin, line);
    }

    const auto begin = std::chrono::steady_clock::now();
    for (const auto& client : clients)
        client->exchange([&done] { ++done; });
    runAll(context, end);
    if (done != 2 * clients.size())
        fail("a connection stood still");
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    uint64_t bytes = 0;
    for (const auto& client : clients) {
        bytes += client->bytes();
        client->close();
    }
    runAll(context, end);
    std::printf("%zu messages, %llu bytes each way, %zu connections, %.2f s\n",
                clients.size() * sizes.size(), static_cast<unsigned long long>(bytes),
                clients.size(), seconds.count());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc == 5 ? argv[1] : "";
    if (mode != "messages" && mode != "connections") {
        std::fprintf(stderr,
                     "usage: websocket_beast_client messages|connections PORT COUNT SEED\n");
        return 2;
    }
    try {
        return run(mode, static_cast<uint16_t>(std::atoi(argv[2])),
                   std::strtoul(argv[3], nullptr, 10),
                   static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "websocket_beast_client: %s\n", error.what());
        return 1;
    }
}

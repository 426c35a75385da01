// permessage-deflate: offers, messages, and sessions.

#include "websocket/Deflate.h"

#include "Compressing.h"
#include "Peer.h"

#include <gmock/gmock.h>

#include <zlib.h>

#include <random>

namespace
{

using namespace websockettests;
using ::testing::HasSubstr;

std::string compressed(const std::string& message, int windowBits = 15)
{
    Deflater deflater(windowBits, 6, 8);
    Buffer out;
    EXPECT_TRUE(deflater.compress(BinaryView(std::string_view(message)), out));
    return {reinterpret_cast<const char*>(out.data()), out.size()};
}

// Inflates with a window of exactly `windowBits`; empty when zlib refuses.
std::string inflated(const std::string& message, int windowBits)
{
    z_stream stream{};
    inflateInit2(&stream, -windowBits);
    std::string in = message + std::string("\0\0\xff\xff", 4);
    std::string out(1000000, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(in.data());
    stream.avail_in = static_cast<uInt>(in.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = inflate(&stream, Z_SYNC_FLUSH);
    out.resize(out.size() - stream.avail_out);
    inflateEnd(&stream);
    return result == Z_OK ? out : std::string();
}

std::pair<Inflater::Result, std::string> decompress(Inflater& inflater, const std::string& message,
                                                    size_t limit = kMessageLimitBytes)
{
    Buffer out;
    const auto result = inflater.decompress(BinaryView(std::string_view(message)), out, limit);
    return {result, {reinterpret_cast<const char*>(out.data()), out.size()}};
}

TEST(DeflateOffers, AreAcceptedWithEveryParameter)
{
    const struct
    {
        const char* offer;
        const char* response;
    } rows[] = {
        {"permessage-deflate",
         "permessage-deflate; server_no_context_takeover; client_no_context_takeover"},
        {"permessage-deflate; client_max_window_bits",
         "permessage-deflate; server_no_context_takeover; client_no_context_takeover"},
        {"permessage-deflate; client_max_window_bits=10",
         "permessage-deflate; server_no_context_takeover; client_no_context_takeover; "
         "client_max_window_bits=10"},
        {"permessage-deflate;server_max_window_bits=9 ; server_no_context_takeover",
         "permessage-deflate; server_no_context_takeover; client_no_context_takeover; "
         "server_max_window_bits=9"},
        {"permessage-deflate; server_max_window_bits=\"8\"",
         "permessage-deflate; server_no_context_takeover; client_no_context_takeover; "
         "server_max_window_bits=8"},
        {"permessage-deflate; client_no_context_takeover; server_max_window_bits=15",
         "permessage-deflate; server_no_context_takeover; client_no_context_takeover; "
         "server_max_window_bits=15"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.offer);
        std::string response;
        const auto agreed = negotiateDeflate({row.offer}, {}, response);
        ASSERT_TRUE(agreed);
        EXPECT_TRUE(agreed->isEnabled);
        EXPECT_EQ(response, row.response);
    }
}

TEST(DeflateOffers, KeepTheContextWhenTheOptionsSaySo)
{
    WebSocketOptions options;
    options.serverNoContextTakeover = options.clientNoContextTakeover = false;
    options.serverMaxWindowBits = 12;
    options.clientMaxWindowBits = 11;
    std::string response;
    auto agreed =
        negotiateDeflate({"permessage-deflate; client_max_window_bits"}, options, response);
    EXPECT_EQ(response, "permessage-deflate; server_max_window_bits=12; client_max_window_bits=11");
    EXPECT_EQ(agreed->serverMaxWindowBits, 12);
    EXPECT_EQ(agreed->clientMaxWindowBits, 11);
    EXPECT_FALSE(agreed->serverNoContextTakeover);
    agreed = negotiateDeflate({"permessage-deflate; server_no_context_takeover; "
                               "client_no_context_takeover; server_max_window_bits=13"},
                              options, response);
    EXPECT_EQ(response, "permessage-deflate; server_no_context_takeover; "
                        "client_no_context_takeover; server_max_window_bits=12");
}

TEST(DeflateOffers, MustNotBeSentClientMaxWindowBitsUnlessTheyNameIt)
{
    WebSocketOptions options;
    options.clientMaxWindowBits = 10;
    std::string response;
    EXPECT_EQ(negotiateDeflate({"permessage-deflate"}, options, response)->clientMaxWindowBits, 15);
    EXPECT_THAT(response, ::testing::Not(HasSubstr("client_max_window_bits")));
}

TEST(DeflateOffers, MustBeDeclinedWithInvalidParameters)
{
    for (const char* const offer :
         {"permessage-deflate; unknown", "permessage-deflate; server_max_window_bits",
          "permessage-deflate; server_max_window_bits=7",
          "permessage-deflate; server_max_window_bits=16",
          "permessage-deflate; server_max_window_bits=08",
          "permessage-deflate; server_max_window_bits=x",
          "permessage-deflate; server_max_window_bits=100",
          "permessage-deflate; client_max_window_bits=7",
          "permessage-deflate; client_max_window_bits=16",
          "permessage-deflate; server_no_context_takeover=1",
          "permessage-deflate; client_no_context_takeover=true",
          "permessage-deflate; server_no_context_takeover; server_no_context_takeover",
          "permessage-deflate; client_max_window_bits; client_max_window_bits=9",
          "permessage-bzip2", "x-webkit-deflate-frame", ""}) {
        SCOPED_TRACE(offer);
        std::string response;
        const auto agreed = negotiateDeflate({offer}, {}, response);
        ASSERT_TRUE(agreed);
        EXPECT_FALSE(agreed->isEnabled);
        EXPECT_EQ(response, "");
    }
}

TEST(DeflateOffers, TheFirstAcceptableOfSeveralIsAccepted)
{
    std::string response;
    const auto agreed =
        negotiateDeflate({"other; a=b", "permessage-deflate; server_max_window_bits=7",
                          "Permessage-Deflate; server_max_window_bits=10", "permessage-deflate"},
                         {}, response);
    EXPECT_TRUE(agreed->isEnabled);
    EXPECT_EQ(agreed->serverMaxWindowBits, 10);
}

TEST(DeflateOffers, MustFailTheHandshakeWhenTheyAreMalformed)
{
    for (const char* const offer : {"permessage-deflate; =1", "permessage deflate", "a; b=\"c",
                                    "permessage-deflate;", "a; b=\"not a token\"", ";"}) {
        std::string response;
        EXPECT_FALSE(negotiateDeflate({offer}, {}, response)) << offer;
    }
}

TEST(Deflater, MakesMessagesThatAnyWindowInflates)
{
    for (const int bits : {8, 9, 10, 12, 15}) {
        for (const size_t size : {size_t{300}, size_t{5000}, size_t{200000}}) {
            SCOPED_TRACE(testing::Message() << bits << " bits, " << size << " bytes");
            EXPECT_TRUE(inflated(compressed(words(size), bits), bits) == words(size));
        }
    }
}

TEST(Deflater, TellsThatAMessageDoesNotShrink)
{
    std::mt19937 dice(1);
    std::string noise(1000, '\0');
    for (char& c : noise)
        c = static_cast<char>(dice());
    Deflater deflater(15, 6, 8);
    Buffer out;
    EXPECT_FALSE(deflater.compress(BinaryView(std::string_view(noise)), out));
    EXPECT_EQ(out.size(), 0u);
    deflater.reset();
    const std::string text = words(1000);
    EXPECT_TRUE(deflater.compress(BinaryView(std::string_view(text)), out));
    EXPECT_EQ(inflated({reinterpret_cast<const char*>(out.data()), out.size()}, 15), text);
}

TEST(Inflater, RestoresMessagesWithAndWithoutContext)
{
    Inflater inflater;
    Compressing client;
    for (unsigned i = 0; i < 20; ++i) {
        const auto [result, message] = decompress(inflater, client.compress(words(3000, i % 3)));
        EXPECT_EQ(result, Inflater::Result::Ok);
        EXPECT_EQ(message, words(3000, i % 3));
    }
    for (unsigned i = 0; i < 5; ++i) {
        inflater.reset();
        EXPECT_EQ(decompress(inflater, Compressing().compress(words(3000, i))).second,
                  words(3000, i));
    }
    inflater.reset();
    EXPECT_EQ(decompress(inflater, Compressing().compress("")).second, "");
}

TEST(Inflater, AcceptsFinalBlocksAndKeepsTheWindow)
{
    // The example of RFC 7692, 7.2.3.4, and the same without its last byte.
    const std::string hello("\xf3\x48\xcd\xc9\xc9\x07\x00\x00", 8);
    Inflater first;
    EXPECT_EQ(decompress(first, hello).second, "Hello");
    EXPECT_EQ(decompress(first, hello.substr(0, 7)).second, "Hello");
    EXPECT_EQ(decompress(first, hello).second, "Hello");

    Inflater inflater;
    const std::string text = words(3000);
    EXPECT_EQ(decompress(inflater, Compressing(true).compress(text)).second, text);
    // The next message refers to the one before.
    z_stream stream{};
    deflateInit2(&stream, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    deflateSetDictionary(&stream, reinterpret_cast<const Bytef*>(text.data()), 3000);
    std::string out(4000, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = 3000;
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = 4000;
    deflate(&stream, Z_SYNC_FLUSH);
    out.resize(4000 - stream.avail_out - 4);
    deflateEnd(&stream);
    EXPECT_LT(out.size(), 100u) << "the compressor does not refer to the dictionary";
    EXPECT_EQ(decompress(inflater, out).second, text);
}

TEST(Inflater, LimitsTheMessageAsItIsProduced)
{
    const std::string bomb = Compressing().compress(std::string(100000000, '\0'));
    EXPECT_LT(bomb.size(), 200000u);
    for (const size_t limit : {size_t{1000}, size_t{1048576}}) {
        Inflater inflater;
        Buffer out;
        EXPECT_EQ(inflater.decompress(BinaryView(std::string_view(bomb)), out, limit),
                  Inflater::Result::TooLong);
        EXPECT_LE(out.capacity(), 2 * limit + 20000);
    }
    Inflater inflater;
    EXPECT_EQ(decompress(inflater, Compressing().compress(words(5000)), 5000).first,
              Inflater::Result::Ok);
    inflater.reset();
    EXPECT_EQ(decompress(inflater, Compressing().compress(words(5001)), 5000).first,
              Inflater::Result::TooLong);
}

TEST(Inflater, RefusesMalformedMessages)
{
    for (const std::string& message :
         {std::string("\xff\xff\xff"), std::string("\x06"), words(100)}) {
        Inflater inflater;
        EXPECT_EQ(decompress(inflater, message).first, Inflater::Result::Corrupt);
    }
}

TEST(Inflater, RefusesAMessageOfManyFinalBlocks)
{
    std::string blocks;
    for (int i = 0; i < 16; ++i)
        blocks += std::string("\x03\x00", 2);
    Inflater few;
    EXPECT_EQ(decompress(few, blocks).first, Inflater::Result::Ok);
    Inflater many;
    EXPECT_EQ(decompress(many, blocks + std::string("\x03\x00", 2)).first,
              Inflater::Result::Corrupt);
}

Agreement deflating(bool serverNoContext, bool clientNoContext, int bits = 15)
{
    Agreement agreement;
    agreement.deflate = {true, serverNoContext, clientNoContext, bits, 15};
    return agreement;
}

// A frame of the server, decompressed when it is compressed.
std::string receiveText(Peer& peer, Inflater& inflater, bool resets)
{
    const std::string frame = peer.receive();
    if (frame.substr(0, 3) != "c1:")
        return "plain " + frame;
    if (resets)
        inflater.reset();
    return decompress(inflater, frame.substr(3)).second;
}

TEST(DeflateSession, EchoesCompressedMessages)
{
    for (const bool serverNoContext : {false, true}) {
        for (const bool clientNoContext : {false, true}) {
            SCOPED_TRACE(testing::Message() << serverNoContext << ' ' << clientNoContext);
            SessionRun run({}, deflating(serverNoContext, clientNoContext));
            run.recorder->whenText = [](Session& session, std::string_view text) {
                session.sendText(text);
            };
            Peer& peer = run.open();
            Compressing context;
            Inflater inflater;
            for (unsigned i = 0; i < 10; ++i) {
                const std::string text = words(1000 + i * 4000, i % 2);
                const std::string payload =
                    clientNoContext ? Compressing().compress(text) : context.compress(text);
                peer.send(rawFrame(kRsv1 | 1, payload.substr(0, 100)) + frame(Opcode::Ping, "") +
                          frame(Opcode::Continuation, payload.substr(100)));
                EXPECT_EQ(peer.receive(), "8a:");
                EXPECT_EQ(receiveText(peer, inflater, serverNoContext), text);
            }
            peer.send(frame(Opcode::Text, "short"));
            EXPECT_EQ(peer.receive(), "81:short");
        }
    }
}

TEST(DeflateSession, MixesSharedAndOwnMessages)
{
    for (const bool noContext : {false, true}) {
        SessionRun run({}, deflating(noContext, true));
        Peer& peer = run.open();
        Inflater inflater;
        const auto shared = PreparedMessage::text(words(5000));
        for (unsigned i = 0; i < 5; ++i) {
            run.session->sendText(words(2000, i));
            run.session->send(shared);
            EXPECT_EQ(receiveText(peer, inflater, noContext), words(2000, i));
            EXPECT_EQ(receiveText(peer, inflater, noContext), words(5000));
        }
    }
}

TEST(DeflateSession, CompressesASharedMessageForEachWindow)
{
    const auto shared = PreparedMessage::text(words(50000));
    for (const int bits : {8, 9, 12, 15}) {
        SessionRun run({}, deflating(true, true, bits));
        Peer& peer = run.open();
        run.session->send(shared);
        run.session->send(shared);
        const std::string frame = peer.receive();
        EXPECT_EQ(inflated(frame.substr(3), bits), words(50000)) << bits;
        EXPECT_EQ(peer.receive(), frame);
    }
    SessionRun run;
    Peer& peer = run.open();
    run.session->send(shared);
    EXPECT_EQ(peer.receive(), "81:" + words(50000));
}

TEST(DeflateSession, FailsBombsCorruptMessagesAndInvalidText)
{
    const struct
    {
        const char* name;
        std::string payload;
        uint16_t code;
    } rows[] = {
        {"bomb", Compressing().compress(std::string(50000000, 'x')), 1009},
        {"corrupt", "\xff\xff\xff", 1007},
        {"invalid text", Compressing().compress("text \xff"), 1007},
        {"cut-off character", Compressing().compress("text \xe2\x82"), 1007},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SessionRun run({}, deflating(true, true));
        Peer& peer = run.open();
        peer.send(rawFrame(kFin | kRsv1 | 1, row.payload));
        EXPECT_EQ(peer.receive().substr(0, 5), closed(row.code));
        EXPECT_EQ(run.recorder->events().size(), run.recorder->closed() == "nothing" ? 0u : 2u);
    }
}

// One loop; each message is a turn's worth of decompression.
TEST(DeflateSession, HandlesMessagesOfOthersBetweenBombs)
{
    constexpr int kBombs = 12;
    WebSocketOptions options;
    options.maxMessageBytes = 2 << 20;
    SessionRun run(options, deflating(true, true));
    std::unique_ptr<Peer> other;
    bool isSent = false;
    run.recorder->whenBinary = [&](Session&, BinaryView bytes) {
        EXPECT_EQ(bytes.size(), size_t{2} << 20);
        if (!std::exchange(isSent, true))
            other->send(frame(Opcode::Text, "other"));  // to the same loop
    };
    run.open();
    other = std::move(run.peer);
    Peer& peer = run.open();
    EXPECT_EQ(run.recorder->event(2), "open");
    std::string bytes;
    for (int i = 0; i < kBombs; ++i)
        bytes += rawFrame(kFin | kRsv1 | 2, Compressing().compress(std::string(2 << 20, '\0')));
    ASSERT_LT(bytes.size(), 65536u) << "they are received at once";
    peer.send(bytes + frame(Opcode::Text, "end"));
    std::vector<std::string> order;
    ASSERT_TRUE(waitUntil([&] {
        order = run.recorder->events();
        return order.size() == kBombs + 4;
    }));
    EXPECT_EQ(order.back(), "text:end");
    const auto at = std::find(order.begin(), order.end(), "text:other");
    ASSERT_NE(at, order.end());
    EXPECT_LE(std::count_if(order.begin(), at, [](const auto& e) { return e[0] == 'b'; }),
              kBombs / 2);
}

// The input of a session waits while its peer takes nothing.
TEST(DeflateSession, HandlesTheRestOfItsInputWhenItsPeerReadsAgain)
{
    constexpr int kMessages = 20;
    WebSocketOptions options;
    options.sendQueueBytes = 5 << 20;
    options.minDeflateBytes = SIZE_MAX;
    SessionRun run(options, deflating(true, true), {}, 4096);
    const std::string message(1000000, 'm');
    run.recorder->whenBinary = [](Session& session, BinaryView bytes) {
        session.sendBinary(bytes);
    };
    Peer& peer = run.open();
    std::string bytes;
    for (int i = 0; i < kMessages; ++i)
        bytes += rawFrame(kFin | kRsv1 | 2, Compressing().compress(message));
    peer.send(bytes + closeFrame(1000));
    EXPECT_TRUE(waitUntil([&] { return run.session->bufferedBytes() > 1 << 20; }));
    EXPECT_LE(run.session->bufferedBytes(), size_t{5} << 20);
    for (int i = 0; i < kMessages; ++i)
        ASSERT_TRUE(peer.receive() == "82:" + message) << i;
    EXPECT_EQ(peer.receive(), closed(1000));
    EXPECT_EQ(run.recorder->closed(), "close:1000::clean");
}

}  // namespace

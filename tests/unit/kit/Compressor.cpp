// Codings, held against the decoders of the libraries.

#include "Compressor.h"

#include <gtest/gtest.h>

#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::kit
{
namespace
{

using Step = Compressor::Step;
using Result = Compressor::Result;

// All that can be decoded so far.
std::string decodeGzip(const std::string& coded)
{
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(coded.data()));
    stream.avail_in = static_cast<uInt>(coded.size());
    std::string text;
    std::array<char, 4096> block{};
    int result = Z_OK;
    do {
        stream.next_out = reinterpret_cast<Bytef*>(block.data());
        stream.avail_out = block.size();
        result = inflate(&stream, Z_SYNC_FLUSH);
        text.append(block.data(), block.size() - stream.avail_out);
    } while (result == Z_OK && stream.avail_out == 0);
    inflateEnd(&stream);
    return text;
}

std::string decodeZstd(const std::string& coded)
{
    const std::unique_ptr<ZSTD_DStream, size_t (*)(ZSTD_DStream*)> stream(ZSTD_createDStream(),
                                                                          &ZSTD_freeDStream);
    ZSTD_inBuffer in{coded.data(), coded.size(), 0};
    std::string text;
    std::array<char, 4096> block{};
    for (;;) {
        ZSTD_outBuffer out{block.data(), block.size(), 0};
        const size_t left = ZSTD_decompressStream(stream.get(), &out, &in);
        EXPECT_EQ(ZSTD_isError(left), 0u);
        text.append(block.data(), out.pos);
        if (ZSTD_isError(left) != 0 || (in.pos == in.size && out.pos < block.size()))
            return text;
    }
}

std::string decode(const std::string& coded, Coding coding)
{
    return coding == Coding::Gzip ? decodeGzip(coded) : decodeZstd(coded);
}

std::string takeStep(Compressor& compressor, std::string_view input, Step step, size_t bufferBytes)
{
    std::string coded;
    std::vector<char> buffer(bufferBytes);
    Result result = Result::More;
    while (result == Result::More) {
        size_t written = 0;
        result = compressor.step(input, step, buffer.data(), buffer.size(), written);
        EXPECT_NE(result, Result::Failed);
        coded.append(buffer.data(), written);
    }
    return coded;
}

std::string textOf(size_t bytes)
{
    std::mt19937 random(7);
    std::string text;
    while (text.size() < bytes)
        text += "line " + std::to_string(random() % 1000) + "\n";
    text.resize(bytes);
    return text;
}

constexpr std::array<Coding, 2> kBoth{Coding::Gzip, Coding::Zstd};

TEST(Compressor, RestoresEverythingInAnyPieces)
{
    for (const Coding coding : kBoth) {
        for (const size_t size : {0, 1, 1000, 300000}) {
            for (const size_t bufferBytes : {1, 100, 65536}) {
                if (size > 1000 && bufferBytes == 1)
                    continue;
                SCOPED_TRACE(std::string(nameOf(coding)) + " " + std::to_string(size));
                const std::string text = textOf(size);
                Compressor compressor(coding);
                std::string coded;
                for (size_t at = 0; at < size; at += 777)
                    coded += takeStep(compressor, std::string_view(text).substr(at, 777),
                                      Step::Continue, bufferBytes);
                coded += takeStep(compressor, {}, Step::End, bufferBytes);
                EXPECT_EQ(decode(coded, coding), text);
            }
        }
    }
}

TEST(Compressor, FlushesAllThatItHasTaken)
{
    for (const Coding coding : kBoth) {
        Compressor compressor(coding);
        std::string coded;
        std::string text;
        for (int i = 0; i < 50; ++i) {
            const std::string event = "event " + std::to_string(i) + "\n";
            text += event;
            coded += takeStep(compressor, event, Step::Continue, 1000);
            coded += takeStep(compressor, {}, Step::Flush, 7);
            ASSERT_EQ(decode(coded, coding), text);
        }
    }
}

TEST(Compressor, TakesBoundedMemory)
{
    Compressor compressor(Coding::Zstd);
    std::string noise(4 << 20, '\0');
    std::mt19937 random(7);
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
    takeStep(compressor, noise + textOf(4 << 20), Step::End, 65536);
    EXPECT_GT(compressor.usedBytes(), Compressor::kMaxBytes / 2);
    EXPECT_LE(compressor.usedBytes(), Compressor::kMaxBytes);
}

// RFC 9110, section 12.5.3.
TEST(Compressor, IsChosenByTheClient)
{
    const struct
    {
        const char* accept;
        Coding coding;
    } rows[] = {
        {"", Coding::Identity},
        {"gzip", Coding::Gzip},
        {"zstd", Coding::Zstd},
        {"GZIP", Coding::Gzip},
        {"gzip, deflate, br, zstd", Coding::Zstd},
        {"gzip, deflate, br", Coding::Gzip},
        {"gzip, zstd;q=0.5", Coding::Gzip},
        {"gzip;q=0, zstd;q=0", Coding::Identity},
        {"*", Coding::Zstd},
        {"zstd;q=0, *", Coding::Gzip},
        {"*;q=0", Coding::Identity},
        {"br", Coding::Identity},
        {"identity", Coding::Identity},
        {"identity, gzip;q=0.9", Coding::Identity},
        {"identity;q=0.5, gzip", Coding::Gzip},
        {"identity;q=0, gzip;q=0.1", Coding::Gzip},
        {"gzip;q=x", Coding::Identity},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.accept);
        const std::string accept = row.accept;
        EXPECT_EQ(chooseCoding(&accept), row.coding);
    }
    EXPECT_EQ(chooseCoding(nullptr), Coding::Identity);
}

// A source that gives `pieces` one after the other; an empty one is "not yet".
std::string readAll(BodySource& source, size_t bufferBytes, std::vector<size_t>* pauses = nullptr)
{
    std::string coded;
    std::vector<char> buffer(bufferBytes);
    for (;;) {
        const BodyRead part = source.read(coded.size(), buffer.data(), buffer.size());
        if (part.state == BodyRead::Data)
            coded.append(buffer.data(), part.bytes);
        else if (part.state == BodyRead::NotYet && pauses && pauses->size() < 100)
            pauses->push_back(coded.size());
        else
            return part.state == BodyRead::End ? coded : "failed";
    }
}

TEST(CompressedSource, FlushesBeforeEachPause)
{
    for (const Coding coding : kBoth) {
        const std::vector<std::string> pieces = {"first ", "", "second ", "third ", "", "", "end"};
        size_t next = 0;
        auto source = BodySource::fromCallback(
            [&](uint64_t, char* buffer, size_t) -> BodyRead {
                if (next == pieces.size())
                    return {BodyRead::End};
                const std::string& piece = pieces[next++];
                if (piece.empty())
                    return {BodyRead::NotYet};
                return {BodyRead::Data, piece.copy(buffer, piece.size())};
            },
            BodyResumer());
        auto coded = compressSource(source, coding, MemoryAccount());
        EXPECT_EQ(source, nullptr);
        EXPECT_EQ(coded->getLength(), -1);
        std::vector<size_t> pauses;
        const std::string bytes = readAll(*coded, 5, &pauses);
        EXPECT_EQ(decode(bytes, coding), "first second third end");
        // The first pause is used for the flush; the source is asked once more.
        ASSERT_GE(pauses.size(), 1u);
        EXPECT_EQ(decode(bytes.substr(0, pauses.front()), coding), "first second third ");
    }
}

TEST(CompressedSource, RestoresBodiesOfAnyKind)
{
    const std::string texts[] = {"", "x", textOf(1000000), std::string(5000000, 'a')};
    for (const Coding coding : kBoth) {
        for (const std::string& text : texts) {
            auto source = BodySource::fromString(std::make_shared<const std::string>(text));
            EXPECT_EQ(
                decode(readAll(*compressSource(source, coding, MemoryAccount()), 4096), coding),
                text);
        }
        auto failing = BodySource::fromCallback(
            [](uint64_t offset, char* buffer, size_t) -> BodyRead {
                *buffer = 'x';
                return {offset < 10 ? BodyRead::Data : BodyRead::Failed, 1};
            },
            BodyResumer());
        EXPECT_EQ(readAll(*compressSource(failing, coding, MemoryAccount()), 4096), "failed");
    }
}

// A source of `length` bytes, negative: not known, whose reads all have this result.
std::unique_ptr<BodySource> makeAlways(const BodyRead& result, int64_t length)
{
    return BodySource::fromCallback([result](uint64_t, char*, size_t) { return result; },
                                    BodyResumer(), length);
}

TEST(CompressedSource, FailsWithASourceThatBreaksItsContract)
{
    const struct
    {
        const char* name;
        BodyRead result;
        int64_t length;
    } rows[] = {
        {"no bytes", {BodyRead::Data, 0}, -1},
        {"more than the buffer", {BodyRead::Data, 16385}, -1},
        {"far more", {BodyRead::Data, SIZE_MAX}, -1},
        {"more than its length", {BodyRead::Data, 101}, 100},
        {"fewer than its length", {BodyRead::End}, 100},
    };
    for (const Coding coding : kBoth) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            auto source = makeAlways(row.result, row.length);
            EXPECT_EQ(readAll(*compressSource(source, coding, MemoryAccount()), 4096), "failed");
            if (row.length < 0)
                continue;
            source = makeAlways(row.result, row.length);
            const BodySource* const before = source.get();
            EXPECT_FALSE(compressWhole(source, coding, MemoryAccount()));
            EXPECT_EQ(source.get(), before);
        }
    }
}

// A body in memory, which is not read in another way.
class LentSource : public BodySource
{
public:
    explicit LentSource(std::string text)
        : mText(std::make_shared<const std::string>(std::move(text)))
    {}
    int64_t getLength() const override { return static_cast<int64_t>(mText->size()); }
    BodyRead read(uint64_t, char*, size_t) override { return {BodyRead::Failed}; }
    std::shared_ptr<const char> getMemory() const override { return {mText, mText->data()}; }

private:
    const std::shared_ptr<const std::string> mText;
};

TEST(CompressedSource, TakesMemoryWhereItIs)
{
    const std::string text = textOf(1000000);
    for (const Coding coding : kBoth) {
        std::unique_ptr<BodySource> source = std::make_unique<LentSource>(text);
        EXPECT_EQ(decode(readAll(*compressSource(source, coding, MemoryAccount()), 4096), coding),
                  text);
        source = std::make_unique<LentSource>(text);
        ASSERT_TRUE(compressWhole(source, coding, MemoryAccount()));
        ASSERT_GE(source->getLength(), 0);
        EXPECT_LT(source->getLength(), 500000);
        ASSERT_NE(source->getMemory(), nullptr);
        EXPECT_EQ(
            decode({source->getMemory().get(), static_cast<size_t>(source->getLength())}, coding),
            text);
    }
}

}  // namespace
}  // namespace qv::kit

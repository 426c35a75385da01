// The strict UTF-8 check against the grammar of RFC 3629, written down here range by range.

#include "request/Utf8.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace qv::impl
{
namespace
{

struct ByteRange
{
    unsigned first;
    unsigned last;

    bool has(unsigned byte) const { return byte >= first && byte <= last; }
};

constexpr ByteRange kTail{0x80, 0xBF};

// The productions UTF8-1 to UTF8-4.
const std::vector<std::vector<ByteRange>>& Productions()
{
    static const std::vector<std::vector<ByteRange>> productions = {
        {{0x00, 0x7F}},
        {{0xC2, 0xDF}, kTail},
        {{0xE0, 0xE0}, {0xA0, 0xBF}, kTail},
        {{0xE1, 0xEC}, kTail, kTail},
        {{0xED, 0xED}, {0x80, 0x9F}, kTail},
        {{0xEE, 0xEF}, kTail, kTail},
        {{0xF0, 0xF0}, {0x90, 0xBF}, kTail, kTail},
        {{0xF1, 0xF3}, kTail, kTail, kTail},
        {{0xF4, 0xF4}, {0x80, 0x8F}, kTail, kTail},
    };
    return productions;
}

bool Matches(const std::vector<ByteRange>& production, const std::string& text, size_t at)
{
    if (text.size() - at < production.size())
        return false;
    for (size_t i = 0; i < production.size(); ++i) {
        if (!production[i].has(static_cast<unsigned char>(text[at + i])))
            return false;
    }
    return true;
}

// Where the grammar stops: the position of the first character that no production matches.
size_t ReferenceStop(const std::string& text)
{
    size_t at = 0;
    while (at < text.size()) {
        size_t step = 0;
        for (const auto& production : Productions()) {
            if (Matches(production, text, at))
                step = production.size();
        }
        if (step == 0)
            break;
        at += step;
    }
    return at;
}

size_t Stop(const std::string& text)
{
    return static_cast<size_t>(FindInvalidUtf8(text.data(), text.data() + text.size()) -
                               text.data());
}

std::string Hex(const std::string& text)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string hex;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        hex += {digits[byte >> 4], digits[byte & 15], ' '};
    }
    return hex;
}

// Counts the differences from the grammar and keeps the first one.
class Comparison
{
public:
    void check(const std::string& text)
    {
        ++mChecked;
        if (Stop(text) == ReferenceStop(text) &&
            IsValidUtf8(text) == (ReferenceStop(text) == text.size()))
            return;
        if (mWrong++ == 0)
            mFirst = Hex(text);
    }

    void expectClean(size_t checked) const
    {
        EXPECT_EQ(mWrong, 0u) << "first: " << mFirst;
        EXPECT_EQ(mChecked, checked);
    }

private:
    size_t mChecked = 0;
    size_t mWrong = 0;
    std::string mFirst;
};

std::string Encoded(uint32_t codePoint)
{
    const auto tail = [codePoint](unsigned shift) {
        return static_cast<char>(0x80 | ((codePoint >> shift) & 0x3F));
    };
    if (codePoint < 0x80)
        return {static_cast<char>(codePoint)};
    if (codePoint < 0x800)
        return {static_cast<char>(0xC0 | (codePoint >> 6)), tail(0)};
    if (codePoint < 0x10000)
        return {static_cast<char>(0xE0 | (codePoint >> 12)), tail(6), tail(0)};
    return {static_cast<char>(0xF0 | (codePoint >> 18)), tail(12), tail(6), tail(0)};
}

TEST(Utf8, TellsWhereTheFirstInvalidSequenceBegins)
{
    const struct
    {
        const char* name;
        std::string text;
        size_t stop;
    } rows[] = {
        {"empty", "", 0},
        {"one ASCII character", "a", 1},
        {"a NUL inside", std::string("a\0b", 3), 3},
        {"the last ASCII byte", "\x7F", 1},
        {"a stray continuation byte, lowest", "ab\x80", 2},
        {"a stray continuation byte, highest", "\xBF", 0},
        {"overlong NUL", "x\xC0\x80", 1},
        {"overlong, lead C1", "\xC1\xBF", 0},
        {"first of two bytes, U+0080", "\xC2\x80", 2},
        {"last of two bytes, U+07FF", "\xDF\xBF", 2},
        {"two bytes, no continuation", "\xC3(", 0},
        {"two bytes, second is a lead", "\xC3\xC3\xA4", 0},
        {"two bytes, cut off", "ok\xC3", 2},
        {"overlong in three bytes, U+07FF", "\xE0\x9F\xBF", 0},
        {"first of three bytes, U+0800", "\xE0\xA0\x80", 3},
        {"last before the surrogates, U+D7FF", "\xED\x9F\xBF", 3},
        {"first surrogate, U+D800", "\xED\xA0\x80", 0},
        {"last surrogate, U+DFFF", "\xED\xBF\xBF", 0},
        {"first after the surrogates, U+E000", "\xEE\x80\x80", 3},
        {"last of three bytes, U+FFFF", "\xEF\xBF\xBF", 3},
        {"three bytes, one missing", "price \xE2\x82", 6},
        {"three bytes, two missing", "\xE2", 0},
        {"three bytes, wrong second", "\xE2(\xAC", 0},
        {"three bytes, wrong third", "\xE2\x82(", 0},
        {"overlong in four bytes, U+FFFF", "\xF0\x8F\xBF\xBF", 0},
        {"first of four bytes, U+10000", "\xF0\x90\x80\x80", 4},
        {"last character, U+10FFFF", "\xF4\x8F\xBF\xBF", 4},
        {"above U+10FFFF", "\xF4\x90\x80\x80", 0},
        {"lead F5", "\xF5\x80\x80\x80", 0},
        {"lead F7", "\xF7\xBF\xBF\xBF", 0},
        {"lead F8", "\xF8\x88\x80\x80\x80", 0},
        {"lead FC", "\xFC\x84\x80\x80\x80\x80", 0},
        {"byte FE", "\xFE", 0},
        {"byte FF", "\xFF", 0},
        {"four bytes, one missing", "\xF0\x9F\x98", 0},
        {"four bytes, wrong second", "\xF0(\x98\x80", 0},
        {"four bytes, wrong third", "\xF0\x9F(\x80", 0},
        {"four bytes, wrong fourth", "\xF0\x9F\x98(", 0},
        {"all lengths in one text", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z", 11},
        {"invalid after all lengths", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\xC3", 10},
        {"the first of two errors", "a\x80\xFF", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Stop(row.text), row.stop);
        EXPECT_EQ(IsValidUtf8(row.text), row.stop == row.text.size());
    }
}

TEST(Utf8, AgreesWithTheGrammarOnEveryStringOfOneAndTwoBytes)
{
    Comparison comparison;
    for (unsigned first = 0; first < 256; ++first) {
        comparison.check({static_cast<char>(first)});
        for (unsigned second = 0; second < 256; ++second)
            comparison.check({static_cast<char>(first), static_cast<char>(second)});
    }
    comparison.expectClean(256 + 65536);
}

TEST(Utf8, AgreesWithTheGrammarOnStringsOfThreeBytes)
{
    const std::array<unsigned, 8> leads = {0x7F, 0xC2, 0xE0, 0xE1, 0xEC, 0xED, 0xEF, 0xF0};
    Comparison comparison;
    for (const unsigned lead : leads) {
        for (unsigned rest = 0; rest < 65536; ++rest)
            comparison.check({static_cast<char>(lead), static_cast<char>(rest >> 8),
                              static_cast<char>(rest & 0xFF)});
    }
    comparison.expectClean(leads.size() * 65536);
}

// How many strings end in which place: as counted with the strict decoder of Python 3.11, which
// reports the same position.
TEST(Utf8, AgreesWithAnotherDecoderOnEveryStringOfTwoAndThreeBytes)
{
    std::array<size_t, 3> stopsOfTwo{};
    std::array<size_t, 4> stopsOfThree{};
    for (unsigned two = 0; two < 65536; ++two) {
        char text[] = {static_cast<char>(two >> 8), static_cast<char>(two & 0xFF), '\0'};
        ++stopsOfTwo[static_cast<size_t>(FindInvalidUtf8(text, text + 2) - text)];
        for (unsigned third = 0; third < 256; ++third) {
            text[2] = static_cast<char>(third);
            ++stopsOfThree[static_cast<size_t>(FindInvalidUtf8(text, text + 3) - text)];
        }
    }
    EXPECT_EQ(stopsOfTwo, (std::array<size_t, 3>{30848, 16384, 18304}));
    EXPECT_EQ(stopsOfThree, (std::array<size_t, 4>{7835648, 3948544, 2342912, 2650112}));
}

TEST(Utf8, AgreesWithTheGrammarOnRandomTexts)
{
    constexpr size_t kTexts = 20000;
    std::mt19937 random(20240229);
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random() % limit);
    };
    Comparison comparison;
    for (size_t i = 0; i < kTexts; ++i) {
        std::string text;
        for (uint32_t characters = below(40); characters > 0; --characters)
            text += Encoded(below(0x110000) >> below(15));
        // Half of them with one byte changed, put in or taken out.
        if (!text.empty() && below(2) == 0) {
            const size_t at = below(static_cast<uint32_t>(text.size()));
            const char byte = static_cast<char>(below(256));
            switch (below(3)) {
            case 0:
                text[at] = byte;
                break;
            case 1:
                text.insert(at, 1, byte);
                break;
            default:
                text.erase(at, 1);
            }
        }
        comparison.check(text);
    }
    comparison.expectClean(kTexts);
}

TEST(Utf8, AgreesWithTheGrammarOnStringsOfFourBytes)
{
    const std::array<unsigned, 8> leads = {0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xF7, 0xF8};
    const std::array<unsigned, 8> tails = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0xBF, 0xC0, 0xFF};
    Comparison comparison;
    for (const unsigned lead : leads) {
        for (unsigned second = 0; second < 256; ++second) {
            for (const unsigned third : tails) {
                for (const unsigned fourth : tails)
                    comparison.check({static_cast<char>(lead), static_cast<char>(second),
                                      static_cast<char>(third), static_cast<char>(fourth)});
            }
        }
    }
    comparison.expectClean(leads.size() * 256 * tails.size() * tails.size());
}

TEST(Utf8, TakesEveryCharacterButSurrogates)
{
    size_t wrong = 0;
    for (uint32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
        const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
        if (IsValidUtf8(Encoded(codePoint)) == surrogate)
            ++wrong;
    }
    EXPECT_EQ(wrong, 0u);
}

// Long texts are checked in blocks. Each sequence is tried before, at and behind their edges.
TEST(Utf8, FindsTheSameAtEveryPlaceOfALongText)
{
    const std::vector<std::string> pieces = {"\xC3\xA4",
                                             "\xE2\x82\xAC",
                                             "\xF0\x9F\x98\x80",
                                             "\x80",
                                             "\xC3",
                                             "\xE2\x82",
                                             "\xF0\x9F\x98",
                                             "\xFF",
                                             "\xC3\xC3\xA4",
                                             "\xE2\x82\xE2\x82\xAC",
                                             "\xED\xA0\x80",
                                             "\xF0\x9F\x98\x80\x80"};
    const std::vector<std::string> fillings = {"a", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
    constexpr size_t kBefore = 140;
    constexpr size_t kBehind = 140;
    Comparison comparison;
    size_t texts = 0;
    for (const std::string& filling : fillings) {
        for (const std::string& piece : pieces) {
            for (size_t shift = 0; shift < kBefore; ++shift) {
                std::string text(shift % 5, 'x');
                while (text.size() < shift)
                    text += filling;
                text += piece;
                for (size_t behind = 0; behind < kBehind; behind += filling.size())
                    text += filling;
                comparison.check(text);
                comparison.check(text.substr(0, shift + piece.size()));
                texts += 2;
            }
        }
    }
    comparison.expectClean(texts);
}

TEST(Utf8, FindsASingleByteAmongZeros)
{
    constexpr size_t kBytes = 130;
    for (size_t at = 0; at < kBytes; ++at) {
        for (const char byte : {'\x80', '\xC0', '\xFF'}) {
            std::string text(kBytes, '\0');
            text[at] = byte;
            EXPECT_EQ(Stop(text), at);
        }
    }
}

TEST(Utf8, LooksAtNothingBehindTheEndOfTheRange)
{
    const std::string whole = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
    for (size_t length = 0; length <= whole.size(); ++length) {
        SCOPED_TRACE(length);
        const auto exact = std::make_unique<char[]>(length + 1);  // one byte that would complete
        whole.copy(exact.get(), length);
        exact[length] = '\x80';
        const char* end = exact.get() + length;
        EXPECT_EQ(FindInvalidUtf8(exact.get(), end) - exact.get(),
                  static_cast<ptrdiff_t>(ReferenceStop(whole.substr(0, length))));
    }
}

TEST(Utf8, TakesAnEmptyRangeWithoutMemory)
{
    EXPECT_EQ(FindInvalidUtf8(nullptr, nullptr), nullptr);
}

}  // namespace
}  // namespace qv::impl

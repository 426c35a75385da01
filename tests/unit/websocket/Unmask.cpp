// Taking the mask off, against a loop over single bytes.

#include "websocket/Unmask.h"

#include "websocket/Support.h"

namespace qv::tests
{
namespace
{

constexpr MaskKey kKey{0x01, 0x20, 0x46, 0x9b};
constexpr uint8_t kGuard = 0x5a;

Bytes Expected(const Bytes& masked, size_t from, size_t count, size_t keyIndex)
{
    Bytes plain;
    for (size_t i = 0; i < count; ++i)
        plain.push_back(masked[from + i] ^ kKey[(keyIndex + i) & 3]);
    return plain;
}

TEST(Unmask, IsTheSameForAnyLengthPhaseAndAlignment)
{
    const Bytes masked = Pattern(200);
    for (size_t keyIndex = 0; keyIndex < 4; ++keyIndex) {
        for (size_t from = 0; from < 16; ++from) {
            for (size_t count = 0; count <= 150; ++count) {
                const size_t to = (from * 7 + count) % 16 + 1;
                Bytes out(to + count + 16, kGuard);
                const size_t next = impl::Unmask(out.data() + to, masked.data() + from, count,
                                                 kKey.data(), keyIndex);
                Bytes expected(to, kGuard);
                expected = expected + Expected(masked, from, count, keyIndex) + Bytes(16, kGuard);
                ASSERT_EQ(out, expected)
                    << "phase " << keyIndex << ", from " << from << ", " << count << " bytes";
                ASSERT_EQ(next, (keyIndex + count) % 4) << "phase " << keyIndex;
            }
        }
    }
}

TEST(Unmask, WorksInPlace)
{
    for (size_t keyIndex = 0; keyIndex < 4; ++keyIndex) {
        const Bytes masked = Pattern(1000 + keyIndex);
        Bytes bytes = masked;
        EXPECT_EQ(impl::Unmask(bytes.data(), bytes.data(), bytes.size(), kKey.data(), keyIndex),
                  (keyIndex + bytes.size()) % 4);
        EXPECT_EQ(bytes, Expected(masked, 0, masked.size(), keyIndex));
    }
}

TEST(Unmask, GivesThePhaseForTheNextPiece)
{
    const Bytes masked = Pattern(97);
    for (size_t first = 0; first <= 40; ++first) {
        for (size_t second = 0; first + second <= masked.size(); ++second) {
            Bytes out(masked.size());
            size_t keyIndex = 0;
            size_t at = 0;
            for (const size_t count : {first, second, masked.size() - first - second}) {
                keyIndex =
                    impl::Unmask(out.data() + at, masked.data() + at, count, kKey.data(), keyIndex);
                at += count;
            }
            ASSERT_EQ(out, Expected(masked, 0, masked.size(), 0)) << first << " + " << second;
        }
    }
}

}  // namespace
}  // namespace qv::tests

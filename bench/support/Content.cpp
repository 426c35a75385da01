// The bytes that all servers send.

#include "support/Content.h"

#include <algorithm>
#include <cstring>

namespace bench
{
namespace
{

constexpr size_t kAlphabetLetters = 26;

std::string makePiece()
{
    std::string piece(kPieceBytes, '\0');
    for (size_t i = 0; i < piece.size(); ++i)
        piece[i] = static_cast<char>('a' + i % kAlphabetLetters);
    return piece;
}

std::string makeBig()
{
    std::string big(kBigBytes, '\0');
    fillStream(0, big.data(), big.size());
    return big;
}

}  // namespace

const std::string kHello = "Hello, World!";
const std::string kNotFound = "Not found";

const std::string& streamPiece()
{
    static const std::string piece = makePiece();
    return piece;
}

const std::string& bigBody()
{
    static const std::string big = makeBig();
    return big;
}

void fillStream(uint64_t position, char* out, size_t count)
{
    const char* piece = streamPiece().data();
    while (count > 0) {
        const size_t offset = position % kPieceBytes;
        const size_t part = std::min(count, kPieceBytes - offset);
        std::memcpy(out, piece + offset, part);
        position += part;
        out += part;
        count -= part;
    }
}

}  // namespace bench

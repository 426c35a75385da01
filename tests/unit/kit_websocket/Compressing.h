// Compressed messages of a client.
#ifndef WENDREL_TESTS_UNIT_KIT_WEBSOCKET_COMPRESSING_H
#define WENDREL_TESTS_UNIT_KIT_WEBSOCKET_COMPRESSING_H

#include <zlib.h>

#include <cstddef>
#include <random>
#include <string>

namespace websockettests
{

// A client's compressor, which compresses anything.
class Compressing
{
public:
    explicit Compressing(bool finishes = false) : mFinishes(finishes)
    {
        deflateInit2(&mStream, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    }
    ~Compressing() { deflateEnd(&mStream); }

    std::string compress(const std::string& message)
    {
        std::string out(message.size() + 100, '\0');
        mStream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(message.data()));
        mStream.avail_in = static_cast<uInt>(message.size());
        mStream.next_out = reinterpret_cast<Bytef*>(out.data());
        mStream.avail_out = static_cast<uInt>(out.size());
        deflate(&mStream, mFinishes ? Z_FINISH : Z_SYNC_FLUSH);
        out.resize(out.size() - mStream.avail_out);
        // Nothing when it flushes twice without a byte between.
        if (!mFinishes && !out.empty())
            out.resize(out.size() - 4);
        return out;
    }

private:
    z_stream mStream{};
    const bool mFinishes;
};

inline std::string words(size_t size, unsigned seed = 1)
{
    std::mt19937 dice(seed);
    std::string text;
    while (text.size() < size)
        text += "word" + std::to_string(dice() % 1000) + ' ';
    text.resize(size);
    return text;
}

}  // namespace websockettests

#endif

// UTF-8 by RFC 3629, as a table of states; for the fuzz targets, which trust no code of the
// library.
#ifndef WENDREL_TESTS_FUZZ_REFERENCEUTF8_H
#define WENDREL_TESTS_FUZZ_REFERENCEUTF8_H

#include <cstddef>
#include <string_view>

namespace fuzz
{

// A range of bytes that is valid in a state, and the next state.
struct Utf8Step
{
    enum State { Start, Tail1, Tail2, Tail3, AfterE0, AfterED, AfterF0, AfterF4, Bad };

    State in;
    unsigned first;
    unsigned last;
    State next;
};

inline constexpr Utf8Step kUtf8Steps[] = {
    {Utf8Step::Start, 0x00, 0x7F, Utf8Step::Start},
    {Utf8Step::Start, 0xC2, 0xDF, Utf8Step::Tail1},
    {Utf8Step::Start, 0xE0, 0xE0, Utf8Step::AfterE0},
    {Utf8Step::Start, 0xE1, 0xEC, Utf8Step::Tail2},
    {Utf8Step::Start, 0xED, 0xED, Utf8Step::AfterED},
    {Utf8Step::Start, 0xEE, 0xEF, Utf8Step::Tail2},
    {Utf8Step::Start, 0xF0, 0xF0, Utf8Step::AfterF0},
    {Utf8Step::Start, 0xF1, 0xF3, Utf8Step::Tail3},
    {Utf8Step::Start, 0xF4, 0xF4, Utf8Step::AfterF4},
    {Utf8Step::Tail1, 0x80, 0xBF, Utf8Step::Start},
    {Utf8Step::Tail2, 0x80, 0xBF, Utf8Step::Tail1},
    {Utf8Step::Tail3, 0x80, 0xBF, Utf8Step::Tail2},
    {Utf8Step::AfterE0, 0xA0, 0xBF, Utf8Step::Tail1},
    {Utf8Step::AfterED, 0x80, 0x9F, Utf8Step::Tail1},
    {Utf8Step::AfterF0, 0x90, 0xBF, Utf8Step::Tail2},
    {Utf8Step::AfterF4, 0x80, 0x8F, Utf8Step::Tail2},
};

// The position of the first byte that begins no whole character; the size when all is valid.
inline size_t FirstBadUtf8(std::string_view text)
{
    Utf8Step::State state = Utf8Step::Start;
    size_t begin = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        if (state == Utf8Step::Start)
            begin = at;
        const unsigned byte = static_cast<unsigned char>(text[at]);
        Utf8Step::State next = Utf8Step::Bad;
        for (const Utf8Step& step : kUtf8Steps) {
            if (step.in == state && byte >= step.first && byte <= step.last)
                next = step.next;
        }
        if (next == Utf8Step::Bad)
            return begin;
        state = next;
    }
    return state == Utf8Step::Start ? text.size() : begin;
}

}  // namespace fuzz

#endif

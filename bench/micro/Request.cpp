// A request: construction and destruction, intake of its values, and the check of UTF-8 text.

#include "Support.h"

#include "request/Utf8.h"

#include <array>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>

namespace qv::bench
{
namespace
{

// Values go into the same request one after the other, as in a walk of the daemon. It is made anew
// after so many: a request has that many, and looking among more would take longer.
constexpr size_t kValuesPerRequest = 16;

void makeAndDestroy(benchmark::State& state)
{
    for (auto _ : state) {
        Request request;
        benchmark::DoNotOptimize(&request);
        benchmark::ClobberMemory();
    }
    SetItems(state);
}
BENCHMARK(makeAndDestroy)->Name("Request/makeAndDestroy");

// The time of one value. A sixteenth of Request/makeAndDestroy is part of it.
template <typename Add> void intake(benchmark::State& state, Add add)
{
    bool good = true;
    while (state.KeepRunningBatch(kValuesPerRequest)) {
        Request request;
        for (size_t i = 0; i < kValuesPerRequest; ++i)
            add(request, i);
        good = !request.hasParseError() && good;
        benchmark::DoNotOptimize(&request);
        benchmark::ClobberMemory();
    }
    if (!good)
        state.SkipWithError("a value was refused");
    SetItems(state);
}

constexpr std::array<const char*, kValuesPerRequest> kNames = {
    "X-First",      "X-Second",     "X-Third",     "X-Fourth",   "X-Fifth",    "X-Sixth",
    "X-Seventh",    "X-Eighth",     "X-Ninth",     "X-Tenth",    "X-Eleventh", "X-Twelfth",
    "X-Thirteenth", "X-Fourteenth", "X-Fifteenth", "X-Sixteenth"};

constexpr const char* kHost = "shop.example.com";
constexpr const char* kUserAgent =
    "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 "
    "Safari/537.36";
constexpr const char* kAccept =
    "text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8";
constexpr const char* kCookies =
    "session=5f1d3c9a7b2e4680a1c3e5f708192a3b; theme=dark; locale=en-GB; basket=1042.7; "
    "consent=necessary-statistics";

void addHeader(benchmark::State& state, const char* value)
{
    intake(state, [value](Request& request, size_t i) { request.addHeader(kNames.at(i), value); });
}
BENCHMARK_CAPTURE(addHeader, Host, kHost)->Name("Intake/addHeader/likeHost");
BENCHMARK_CAPTURE(addHeader, UserAgent, kUserAgent)->Name("Intake/addHeader/likeUserAgent");
BENCHMARK_CAPTURE(addHeader, Accept, kAccept)->Name("Intake/addHeader/likeAccept");
BENCHMARK_CAPTURE(addHeader, Cookie, kCookies)->Name("Intake/addHeader/likeCookie");

void addCookie(benchmark::State& state)
{
    intake(state, [](Request& request, size_t i) {
        request.addCookie(kNames.at(i), "5f1d3c9a7b2e4680a1c3e5f708192a3b");
    });
}
BENCHMARK(addCookie)->Name("Intake/addCookie");

void addQueryParameter(benchmark::State& state)
{
    intake(state, [](Request& request, size_t i) {
        request.addQueryParameter(kNames.at(i), "garden furniture");
    });
}
BENCHMARK(addQueryParameter)->Name("Intake/addQueryParameter");

std::string longTarget()
{
    constexpr size_t kTargetBytes = 2048;
    std::string target = "/search?";
    for (size_t i = 0; target.size() < kTargetBytes; ++i)
        target += "field" + std::to_string(i) + "=some%20text%20of%20it&";
    target.resize(kTargetBytes, 'x');
    return target;
}

// Includes the copy that the context of a connection would have been.
void parseTarget(benchmark::State& state, const std::string& target)
{
    Request request;
    for (auto _ : state) {
        request.setOriginalFullUrl(std::string(target));
        benchmark::DoNotOptimize(&request);
        benchmark::ClobberMemory();
    }
    if (request.hasParseError())
        return state.SkipWithError(request.getParseError().c_str());
    SetItems(state);
    SetBytes(state, target.size());
}
BENCHMARK_CAPTURE(parseTarget, short, "/hello")->Name("Target/short");
BENCHMARK_CAPTURE(parseTarget, query,
                  "/catalogue/garden?category=garden&sort=price&page=3&text=b%C3%A4nk&view=list")
    ->Name("Target/withQuery");
BENCHMARK_CAPTURE(parseTarget, long, longTarget())->Name("Target/2KiB");

// Words of one kind of text.
struct Vocabulary
{
    unsigned percent;  // of the words
    std::array<std::string_view, 4> words;
};

// Percent of words; of the bytes, with a space after each word, about 72 % are ASCII.
constexpr std::array<Vocabulary, 5> kMixed = {{
    {60, {"the", "garden", "and", "furniture"}},
    {15, {"b\u00e4nke", "caf\u00e9", "gar\u00e7on", "sm\u00f8rrebr\u00f8d"}},
    {10,
     {"\u03ba\u03ae\u03c0\u03bf\u03c2", "\u0441\u0430\u0434",
      "\u043c\u0435\u0431\u0435\u043b"
      "\u044c",
      "\u03ba\u03b1\u03b9"}},
    {10, {"\u5ead\u5712", "\u5bb6\u5177", "\u3068", "\uc815\uc6d0"}},
    {5, {"\U0001F333", "\U0001F600", "\U0001F6CB", "\U0001F33F"}},
}};

constexpr std::array<Vocabulary, 1> kAscii = {{{100, {"the", "garden", "and", "furniture"}}}};

template <size_t kinds>
const Vocabulary& pick(const std::array<Vocabulary, kinds>& vocabularies, unsigned percent)
{
    for (const Vocabulary& vocabulary : vocabularies) {
        if (percent < vocabulary.percent)
            return vocabulary;
        percent -= vocabulary.percent;
    }
    return vocabularies.back();
}

// Words separated by spaces; the same at each run. Filled up with full stops, so that no
// character is cut.
template <size_t kinds>
std::string textOf(const std::array<Vocabulary, kinds>& vocabularies, size_t bytes)
{
    std::mt19937 random;  // its sequence is the same everywhere
    std::string text;
    for (;;) {
        const Vocabulary& vocabulary = pick(vocabularies, random() % 100);
        const std::string_view word = vocabulary.words.at(random() % vocabulary.words.size());
        if (text.size() + word.size() + 1 > bytes)
            break;
        (text += word) += ' ';
    }
    text.resize(bytes, '.');
    return text;
}

// Not one byte of ASCII: characters of two, three and four bytes in turn.
std::string multiByteText(size_t bytes)
{
    constexpr std::string_view kThree = "\u043c\u5ead\U0001F333";
    std::string text;
    while (text.size() + kThree.size() <= bytes)
        text += kThree;
    while (text.size() + 2 <= bytes)
        text += "\u043c";
    return text;
}

void checkUtf8(benchmark::State& state, std::string (*make)(size_t bytes))
{
    const std::string text = make(static_cast<size_t>(state.range(0)));
    if (!impl::IsValidUtf8(text))
        return state.SkipWithError("the text is not UTF-8");
    for (auto _ : state) {
        const char* begin = text.data();
        benchmark::DoNotOptimize(begin);
        benchmark::DoNotOptimize(impl::FindInvalidUtf8(begin, begin + text.size()));
    }
    SetBytes(state, text.size());
}

std::string asciiText(size_t bytes)
{
    return textOf(kAscii, bytes);
}

std::string mixedText(size_t bytes)
{
    return textOf(kMixed, bytes);
}

#define WENDREL_BENCH_SIZES Arg(64)->Arg(1024)->Arg(65536)
BENCHMARK_CAPTURE(checkUtf8, ascii, &asciiText)->Name("Utf8/ascii")->WENDREL_BENCH_SIZES;
BENCHMARK_CAPTURE(checkUtf8, mixed, &mixedText)->Name("Utf8/mixed")->WENDREL_BENCH_SIZES;
BENCHMARK_CAPTURE(checkUtf8, multi, &multiByteText)->Name("Utf8/multiByte")->WENDREL_BENCH_SIZES;

}  // namespace
}  // namespace qv::bench

// Cookies of responses: none that passes its check can begin an attribute or end the line. Signed
// cookies: a text verifies when it has been signed, and only then.

#include "support/Check.h"

#include <Wendrel/kit/Cookie.h>
#include <Wendrel/kit/CookieSigner.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>

namespace
{

using qv::kit::Cookie;
using qv::kit::CookieSigner;

const CookieSigner::Clock::time_point kNow{std::chrono::seconds(1700000000)};

size_t Count(std::string_view text, char c)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), c));
}

void TryCookie(FuzzedDataProvider& input)
{
    Cookie cookie(input.ConsumeRandomLengthString(100), input.ConsumeRandomLengthString(5000));
    cookie.path(input.ConsumeRandomLengthString(100)).domain(input.ConsumeRandomLengthString(100));
    cookie.maxAge(std::chrono::seconds(input.ConsumeIntegral<int64_t>()));
    if (input.ConsumeBool())
        cookie.httpOnly().secure().sameSite(Cookie::SameSite::None);
    if (!cookie.error().empty())
        return;
    const std::string line = cookie.name() + "=" + cookie.value() + "; " + cookie.attributes();
    FUZZ_CHECK(std::none_of(line.begin(), line.end(),
                            [](unsigned char c) { return c < ' ' || c == 0x7f; }));
    FUZZ_CHECK(line.size() <= Cookie::kMaxBytes + 3);
    FUZZ_CHECK(Count(cookie.name() + cookie.value(), ';') == 0);
    FUZZ_CHECK(Count(line, ';') <= 8);
}

void TrySigner(FuzzedDataProvider& input)
{
    const CookieSigner signer({std::string(32, 'k'), std::string(32, 'l')});
    const std::string name = input.ConsumeRandomLengthString(20);
    const std::string other = input.ConsumeRandomLengthString(20);
    const std::string text = input.ConsumeRandomLengthString(5000);
    const std::string value = input.ConsumeRemainingBytesAsString().substr(0, Cookie::kMaxBytes);
    const std::string isSigned = signer.sign(name, value, std::chrono::seconds(10), kNow).value();
    const bool isKept = isSigned.size() <= Cookie::kMaxBytes;
    FUZZ_CHECK(signer.verify(name, isSigned, kNow).has_value() == isKept);
    FUZZ_CHECK(!isKept || signer.verify(name, isSigned, kNow) == value);
    FUZZ_CHECK(name == other || !signer.verify(other, isSigned, kNow));
    FUZZ_CHECK(text == isSigned || !signer.verify(name, text, kNow));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool())
        TryCookie(input);
    else
        TrySigner(input);
    return 0;
}

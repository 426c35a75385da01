// Base64 text against a decoder that looks every character up for itself; digests in memory of
// exactly their size; the accept key of the opening handshake out of both.

#include "support/Check.h"

#include <Wendrel/WebSocket.h>
#include <qvOpenSSL/Base64.h>
#include <qvOpenSSL/HashHelper.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using qv::Base64CharSet;
using qv::HashHelper;
using qv::HashType;

constexpr std::string_view kLettersAndDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr char kUntouched = '\x5a';

// Strict: only the given two marks, no bit set that stands for nothing.
std::optional<std::string> Decode(std::string_view text, std::string_view marks)
{
    const std::string alphabet = std::string(kLettersAndDigits) + std::string(marks);
    std::string bytes;
    unsigned held = 0;
    int heldBits = 0;
    for (const char c : text) {
        const size_t value = alphabet.find(c);
        if (value == std::string::npos)
            return std::nullopt;
        held = held * 64 + static_cast<unsigned>(value);
        heldBits += 6;
        if (heldBits >= 8) {
            heldBits -= 8;
            bytes += static_cast<char>(held >> heldBits);
            held &= (1u << heldBits) - 1;
        }
    }
    if (heldBits == 6 || held != 0)
        return std::nullopt;
    return bytes;
}

void TryBase64(const std::string& bytes)
{
    const std::string before = "kept=+/";
    std::string standard = before;
    qv::base64Encode(bytes.data(), bytes.size(), standard, Base64CharSet::Standard);
    FUZZ_CHECK(standard.compare(0, before.size(), before) == 0);
    standard.erase(0, before.size());
    FUZZ_CHECK(standard.size() == (bytes.size() + 2) / 3 * 4);
    const size_t padding = (3 - bytes.size() % 3) % 3;
    FUZZ_CHECK(standard.substr(standard.size() - padding) == std::string(padding, '='));
    FUZZ_CHECK(Decode(standard.substr(0, standard.size() - padding), "+/") == bytes);

    std::string urlSafe = before;
    qv::base64Encode(bytes.data(), bytes.size(), urlSafe, Base64CharSet::UrlSafe);
    FUZZ_CHECK(urlSafe.compare(0, before.size(), before) == 0);
    FUZZ_CHECK(urlSafe.size() == before.size() + standard.size() - padding);
    FUZZ_CHECK(Decode(urlSafe.substr(before.size()), "-_") == bytes);
}

void TryHash(FuzzedDataProvider& input)
{
    constexpr unsigned long kSizes[] = {0, 16, 0, 20, 32, 64};
    const auto number = input.ConsumeIntegralInRange<int>(-2, 9);
    const auto capacity = input.ConsumeIntegralInRange<unsigned long>(0, 80);
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    const unsigned long wanted = number >= 0 && number <= 5 ? kSizes[number] : 0;

    const HashHelper helper(static_cast<HashType>(number));
    FUZZ_CHECK(helper.getDigestSize() == wanted);
    const auto out = std::make_unique<char[]>(capacity);
    std::fill_n(out.get(), capacity, kUntouched);
    const unsigned long size = helper.hash(bytes.data(), bytes.size(), out.get(), capacity);
    FUZZ_CHECK(size == (wanted <= capacity ? wanted : 0));
    FUZZ_CHECK(std::all_of(out.get() + size, out.get() + capacity,
                           [](char c) { return c == kUntouched; }));

    if (size == 0)
        return;
    std::vector<char> again(size);
    FUZZ_CHECK(helper.hash(bytes.data(), bytes.size(), again.data(), size) == size);
    FUZZ_CHECK(std::equal(again.begin(), again.end(), out.get()));
}

void TryAcceptKey(const std::string& key)
{
    const std::string secret = qv::http::WebSocket::ComputeSecret(key.c_str());
    if (std::string_view(key.c_str()).size() != 24) {
        FUZZ_CHECK(secret.empty());
        return;
    }
    FUZZ_CHECK(secret.size() == 28 && secret.back() == '=');
    const auto digest = Decode(std::string_view(secret).substr(0, 27), "+/");
    FUZZ_CHECK(digest.has_value() && digest->size() == 20);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto kind = input.ConsumeIntegralInRange<unsigned>(0, 3);
    if (kind == 0)
        TryHash(input);
    else if (kind == 1)
        TryAcceptKey(input.ConsumeRemainingBytesAsString());
    else
        TryBase64(input.ConsumeRemainingBytesAsString());
    return 0;
}

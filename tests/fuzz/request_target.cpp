// Request targets, and the URL parser behind them. A target in origin form is judged by a reading
// of the rules of its own; everything that is accepted must hold together and parse again.

#include "support/Check.h"
#include "support/FuzzRequest.h"
#include "support/ReferenceUtf8.h"

#include <Ostrand/HttpUrl.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace
{

using qv::Url;
using qv::http::HttpUrl;

constexpr size_t kTargetLimitBytes = 4096;
constexpr std::string_view kBase = "http://127.0.0.1:80";
constexpr std::string_view kRefusedPrefix = "fail to parse request URI, ";

// Without the escapes; nothing when one is broken.
std::optional<std::string> Unescape(std::string_view text)
{
    std::string plain;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            plain += text[at];
            continue;
        }
        if (text.size() - at < 3 || !std::isxdigit(static_cast<unsigned char>(text[at + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(text[at + 2])))
            return std::nullopt;
        const std::string digits(text.substr(at + 1, 2));
        plain += static_cast<char>(std::strtoul(digits.c_str(), nullptr, 16));
        at += 2;
    }
    return plain;
}

bool IsUtf8(std::string_view text)
{
    return fuzz::FirstBadUtf8(text) == text.size();
}

// Whether a target has no escaped control character but those of a text's lines in its query.
bool IsFreeOfEscapedControls(std::string_view target)
{
    target = target.substr(0, target.find('#'));
    const size_t mark = std::min(target.find('?'), target.size());
    const auto path = Unescape(target.substr(0, mark));
    const auto query = Unescape(target.substr(mark));
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
    const auto isRefusedInQuery = [&](char c) {
        return isControl(c) && c != '\t' && c != '\n' && c != '\r';
    };
    return path && query && std::none_of(path->begin(), path->end(), isControl) &&
           std::none_of(query->begin(), query->end(), isRefusedInQuery);
}

// Whether the text behind an authority is well formed.
bool IsGoodTail(std::string_view tail, bool strictUtf8)
{
    for (const char c : tail) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= ' ' || byte == 0x7F)
            return false;
    }
    const auto plain = Unescape(tail);
    if (!plain || !IsUtf8(tail) || (strictUtf8 && !IsUtf8(*plain)))
        return false;
    const size_t hash = tail.find('#');
    return hash == std::string_view::npos ||
           tail.find_first_of("#|\\^`{}\"<>[]", hash + 1) == std::string_view::npos;
}

// The last number of an error text.
size_t PlaceOf(const std::string& error)
{
    const size_t at = error.rfind(" at byte ");
    FUZZ_CHECK(at != std::string::npos);
    return std::strtoul(error.c_str() + at + 9, nullptr, 10);
}

std::string Joined(const std::vector<std::string>& segments)
{
    std::string path;
    for (const std::string& segment : segments)
        path += '/' + segment;
    return path;
}

// Characters that a URL may contain in every component: letters, marks and escapes.
bool IsAsciiText(std::string_view text)
{
    return text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  "-._~!$&'()*+,;=:@/?%") == std::string_view::npos;
}

void CheckAccepted(const Url& url)
{
    FUZZ_CHECK(IsAsciiText(url.encodedPath()) && IsAsciiText(url.query()));
    FUZZ_CHECK(Unescape(url.encodedPath()) == url.path());
    FUZZ_CHECK(Unescape(url.query()).has_value());
    std::string joined = Joined(url.pathSegments());
    if (url.encodedPath().empty() || url.encodedPath()[0] != '/')
        joined.erase(0, 1);
    FUZZ_CHECK(url.path() == joined || (url.path() == "/" && joined.empty()));
    for (const char c : url.scheme())
        FUZZ_CHECK(!(c >= 'A' && c <= 'Z'));
}

void CheckParsesAgain(const Url& url, std::string_view head, bool strictUtf8)
{
    Url again;
    std::string text(head);
    text += url.encodedPath();
    if (!url.query().empty())
        text += '?' + url.query();
    std::string error;
    FUZZ_CHECK(again.fromEncodedUtf8String(text, &error, strictUtf8, 3 * text.size()));
    FUZZ_CHECK(again.encodedPath() == url.encodedPath());
    FUZZ_CHECK(again.pathSegments() == url.pathSegments());
    FUZZ_CHECK(again.query() == url.query());
}

void CheckKeepsNothing(const Url& url)
{
    FUZZ_CHECK(!url.isValid());
    FUZZ_CHECK(url.scheme().empty() && url.host().empty() && url.port() == 0);
    FUZZ_CHECK(url.path().empty() && url.encodedPath().empty() && url.pathSegments().empty());
    FUZZ_CHECK(url.query().empty() && url.fragment().empty());
}

void TryTarget(const std::string& target)
{
    fuzz::FuzzRequest request;
    request.setOriginalFullUrl(std::string(target));
    const HttpUrl& url = request.getUrl();
    FUZZ_CHECK(url.isValid() == !request.hasParseError());
    if (request.hasParseError()) {
        FUZZ_CHECK(request.getOriginalFullUrl() == "Invalid URI");
        const std::string& error = request.getParseError();
        const bool tooLong = target.size() > kTargetLimitBytes;
        FUZZ_CHECK((error == "URI is too long") == tooLong);
        if (!tooLong) {
            FUZZ_CHECK(error.compare(0, kRefusedPrefix.size(), kRefusedPrefix) == 0);
            FUZZ_CHECK(error.find(" at byte ") > kRefusedPrefix.size());
            FUZZ_CHECK(PlaceOf(error) >= 1 && PlaceOf(error) <= target.size());
            CheckKeepsNothing(url);
        }
    } else {
        FUZZ_CHECK(request.getOriginalFullUrl() == target);
        FUZZ_CHECK(IsUtf8(url.path()));
        CheckAccepted(url);
    }
    if (!target.empty() && std::string_view("/?#").find(target[0]) == std::string_view::npos)
        return;
    FUZZ_CHECK(url.isValid() == (target.size() <= kTargetLimitBytes && IsGoodTail(target, true) &&
                                 IsFreeOfEscapedControls(target)));
    if (!url.isValid())
        return;
    FUZZ_CHECK(url.host() == "127.0.0.1" && url.port() == 80);
    CheckParsesAgain(url, kBase, true);
}

void TryUrl(FuzzedDataProvider& input)
{
    const bool strictUtf8 = input.ConsumeBool();
    const auto maxLength = input.ConsumeIntegralInRange<unsigned long>(0, 300);
    const std::string text = input.ConsumeRemainingBytesAsString();
    HttpUrl url;
    std::string error;
    const bool result = url.fromEncodedUtf8String(text, &error, strictUtf8, maxLength);
    const bool isValid = static_cast<const Url&>(url).isValid();
    FUZZ_CHECK(result == isValid);
    FUZZ_CHECK(error.empty() == result);
    FUZZ_CHECK(HttpUrl().fromEncodedUtf8String(text, nullptr, strictUtf8, maxLength) == result);
    if (!result) {
        FUZZ_CHECK(PlaceOf(error) >= 1 && PlaceOf(error) <= text.size() + 1);
        CheckKeepsNothing(url);
        return;
    }
    FUZZ_CHECK(url.isValid() ==
               ((url.scheme() == "http" || url.scheme() == "https") && !url.host().empty()));
    CheckAccepted(url);
    if (strictUtf8)
        FUZZ_CHECK(IsUtf8(url.host()) && IsUtf8(url.path()) && IsUtf8(url.fragment()));
    const size_t tail = text.find_first_of("/?#", text.find("://") + 3);
    if (url.isValid())
        CheckParsesAgain(url, std::string_view(text).substr(0, tail), strictUtf8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto kind = input.ConsumeIntegralInRange<unsigned>(0, 2);
    if (kind == 2) {
        TryUrl(input);
        return 0;
    }
    std::string target = input.ConsumeRemainingBytesAsString();
    TryTarget(kind == 0 ? target : '/' + target);
    return 0;
}

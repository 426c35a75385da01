// Headers, cookies and query parameters added one after the other, against a model of each check:
// its order, its error text, the stored values and the counters.

#include "support/Check.h"
#include "support/FuzzRequest.h"
#include "support/ReferenceUtf8.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <map>
#include <string>

namespace
{

using qv::HttpBaseRequest;

constexpr size_t kPairLimitBytes = 8096;
constexpr size_t kMaxPairs = 64;

// The expected state of a request.
struct Expected
{
    HttpBaseRequest::ValueMap headers;
    HttpBaseRequest::ValueMap cookies;
    HttpBaseRequest::ValueMap parameters;
    std::map<std::string, std::string> lines;
    std::string parseError;
    bool hasParseError = false;
    uint64_t headBytes = 0;

    void fail(const std::string& text)
    {
        hasParseError = true;
        if (parseError.empty())
            parseError = text;
    }

    // Whether `text` may be stored; fails with the text for `part` otherwise.
    bool takes(const std::string& text, const std::string& part)
    {
        if (fuzz::FirstBadUtf8(text) != text.size())
            fail(part + " is non utf8");
        else if (std::any_of(text.begin(), text.end(), [](char c) {
                     const auto byte = static_cast<unsigned char>(c);
                     return byte < 32 || byte == 127;
                 }))
            fail(part + " contains ASCII forbidden characters");
        else
            return true;
        return false;
    }

    void addHeader(const std::string& name, const std::string& value)
    {
        if (name.size() + value.size() > kPairLimitBytes)
            return fail("header too long");
        if (!takes(name, "header name"))
            return;
        std::string key = name;
        for (char& c : key) {
            if (c >= 'A' && c <= 'Z')
                c = static_cast<char>(c + 32);
        }
        // How a value falls apart has a target of its own.
        std::list<std::string> values;
        if (!qv::http::HttpHeaders::ParseMultiValueHeader(value.c_str(), values))
            return fail("fail to parse header '" + key + "'");
        headBytes += name.size() + value.size() + 3;
        auto& known = headers[key];
        known.splice(known.end(), values);
        const auto [line, isNew] = lines.try_emplace(key, value);
        if (!isNew)
            line->second += ", " + value;
    }

    void addCookie(const std::string& name, const std::string& value)
    {
        if (name.size() + value.size() > kPairLimitBytes)
            return fail("cookie too long");
        if (!takes(name, "cookie name") || !takes(value, "cookie data"))
            return;
        headBytes += name.size() + value.size() + 11;
        cookies[name].push_back(value);
    }

    void addQueryParameter(const std::string& name, const std::string& value)
    {
        if (takes(name, "query parameter name") && takes(value, "query parameter value"))
            parameters[name].push_back(value);
    }
};

// Up to the first NUL, as the daemon hands over every text.
std::string ConsumeText(FuzzedDataProvider& input)
{
    std::string text = input.ConsumeRandomLengthString();
    if (input.ConsumeIntegral<uint8_t>() == 0)
        text += std::string(input.ConsumeIntegralInRange<size_t>(0, 2 * kPairLimitBytes), 'a');
    return text.c_str();
}

bool Holds(const std::list<std::string>* found, const std::list<std::string>& values)
{
    return found && *found == values;
}

void Compare(const HttpBaseRequest& request, const Expected& expected)
{
    FUZZ_CHECK(request.hasParseError() == expected.hasParseError);
    FUZZ_CHECK(request.getParseError() == expected.parseError);
    FUZZ_CHECK(request.getRequestHeadBytes() == expected.headBytes);
    FUZZ_CHECK(request.getCookies() == expected.cookies);
    FUZZ_CHECK(request.getQueryParameters() == expected.parameters);
    FUZZ_CHECK(HttpBaseRequest::ValueMap(request.getHeaders().begin(),
                                         request.getHeaders().end()) == expected.headers);
    for (const auto& [name, values] : expected.headers)
        FUZZ_CHECK(Holds(request.getHeader(name.c_str()), values));
    for (const auto& [name, line] : expected.lines)
        FUZZ_CHECK(*request.getHeaders().findLine(name) == line);
    for (const auto& [name, values] : expected.cookies)
        FUZZ_CHECK(Holds(request.getCookie(name.c_str()), values));
    for (const auto& [name, values] : expected.parameters)
        FUZZ_CHECK(Holds(request.getQueryParameter(name.c_str()), values));
}

void AddOne(FuzzedDataProvider& input, HttpBaseRequest& request, Expected& expected)
{
    const auto kind = input.ConsumeIntegralInRange<unsigned>(0, 3);
    // A cookie or parameter without "=" has no value at all.
    const bool hasValue = input.ConsumeBool() || kind == 0;
    const std::string name = ConsumeText(input);
    const std::string text = hasValue ? ConsumeText(input) : std::string();
    const char* value = hasValue ? text.c_str() : nullptr;
    if (kind == 0) {
        request.addHeader(name.c_str(), value);
        expected.addHeader(name, text);
    } else if (kind == 1) {
        request.addCookie(name.c_str(), value);
        expected.addCookie(name, text);
    } else if (kind == 2) {
        request.addQueryParameter(name.c_str(), value);
        expected.addQueryParameter(name, text);
    } else {
        request.setParseError(std::string(name));
        expected.fail(name);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    fuzz::FuzzRequest request;
    Expected expected;
    for (size_t i = 0; i < kMaxPairs && input.remaining_bytes() > 0; ++i)
        AddOne(input, request, expected);
    Compare(request, expected);
    return 0;
}

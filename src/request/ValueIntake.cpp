// Headers, cookies and query arguments: checked one by one, stored or recorded as the
// request's parse error.

#include <Wendrel/HttpRequest.h>

#include "request/Utf8.h"

#include <qvSystem/qvStringUtils.h>

#include <string_view>

namespace qv
{
namespace
{

// Name and value of a header or cookie together.
constexpr size_t kPairLimitBytes = 8096;

// Required: what each stored pair counts beyond its text differs, and arguments count nothing.
constexpr uint64_t kHeaderOverheadBytes = 3;
constexpr uint64_t kCookieOverheadBytes = 11;

void foldToLowerCase(std::string& text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
}

// Why `text` is refused, or null.
const char* refusal(const std::string& text, const char* notUtf8, const char* forbidden)
{
    if (!impl::IsValidUtf8(text))
        return notUtf8;
    if (qvStringUtils::ContainsAsciiNonPrintableChar(text))
        return forbidden;
    return nullptr;
}

std::string textOrEmpty(const char* value)
{
    return value ? std::string(value) : std::string();
}

// Should memory run out, no name is left behind without a value.
void appendValue(HttpBaseRequest::ValueMap& map, const std::string& name, std::string&& value)
{
    std::list<std::string> values;
    values.push_back(std::move(value));
    std::list<std::string>& known = map[name];
    known.splice(known.end(), values);
}

}  // namespace

void HttpBaseRequest::addHeader(const char* name, const char* value)
{
    std::string key(name);
    const std::string_view line(value);
    const size_t pairBytes = key.size() + line.size();
    if (pairBytes > kPairLimitBytes)
        return setParseError("header too long");
    if (const char* why = refusal(key, "header name is non utf8",
                                  "header name contains ASCII forbidden characters"))
        return setParseError(why);
    foldToLowerCase(key);
    std::list<std::string> values;
    if (!http::HttpHeaders::ParseMultiValueHeader(value, values))
        return setParseError("fail to parse header '" + key + "'");
    mHeaders.addHeaderValues(std::move(key), std::move(values), line);
    mRequestHeadBytes += pairBytes + kHeaderOverheadBytes;
}

void HttpBaseRequest::addCookie(const char* name, const char* value)
{
    const std::string key(name);
    std::string text = textOrEmpty(value);
    const size_t pairBytes = key.size() + text.size();
    if (pairBytes > kPairLimitBytes)
        return setParseError("cookie too long");
    if (const char* why = refusal(key, "cookie name is non utf8",
                                  "cookie name contains ASCII forbidden characters"))
        return setParseError(why);
    if (const char* why = refusal(text, "cookie data is non utf8",
                                  "cookie data contains ASCII forbidden characters"))
        return setParseError(why);
    appendValue(mCookies, key, std::move(text));
    mRequestHeadBytes += pairBytes + kCookieOverheadBytes;
}

// Required: no length limit here, and the name is judged before the value is looked at.
void HttpBaseRequest::addQueryParameter(const char* name, const char* value)
{
    const std::string key(name);
    if (const char* why = refusal(key, "query parameter name is non utf8",
                                  "query parameter name contains ASCII forbidden characters"))
        return setParseError(why);
    std::string text = textOrEmpty(value);
    if (const char* why = refusal(text, "query parameter value is non utf8",
                                  "query parameter value contains ASCII forbidden characters"))
        return setParseError(why);
    appendValue(mQueryParameters, key, std::move(text));
}

}  // namespace qv

// Lines of the access log: every field is escaped. Written for each request, so that numbers and
// unescaped bytes are appended without a text of their own.

#include "AccessText.h"

#include "Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace qv::kit
{
namespace
{

using Time = std::chrono::system_clock::time_point;
using std::chrono::microseconds;

constexpr uint64_t kMicrosecondsPerSecond = 1000000;
constexpr int kFirstYear = 1900;

// In English in every locale.
constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The text of the second in which the latest request of this thread has begun.
struct SecondText
{
    std::time_t second = 0;
    AccessLog format = AccessLog::Combined;
    int size = 0;  // 0: none
    std::array<char, 64> text{};
};

void formatSecond(SecondText& second)
{
    tm time{};
    gmtime_r(&second.second, &time);
    const int year = time.tm_year + kFirstYear;
    second.size = second.format == AccessLog::Combined
                      ? std::snprintf(second.text.data(), second.text.size(),
                                      "[%02d/%s/%04d:%02d:%02d:%02d +0000] ", time.tm_mday,
                                      kMonths.at(static_cast<size_t>(time.tm_mon)), year,
                                      time.tm_hour, time.tm_min, time.tm_sec)
                      : std::snprintf(second.text.data(), second.text.size(),
                                      "%04d-%02d-%02dT%02d:%02d:%02d", year, time.tm_mon + 1,
                                      time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
}

void appendSecond(std::string& line, std::time_t second, AccessLog format)
{
    static thread_local SecondText known;
    if (known.size == 0 || known.second != second || known.format != format) {
        known.second = second;
        known.format = format;
        formatSecond(known);
    }
    line.append(known.text.data(), static_cast<size_t>(known.size));
}

void appendNumber(std::string& line, uint64_t number)
{
    std::array<char, 20> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number);
    line.append(text.data(), end.ptr);
}

// Behind a point, with all six digits.
void appendMicroseconds(std::string& line, uint64_t count)
{
    std::array<char, 7> text;
    for (size_t at = text.size() - 1; at > 0; --at, count /= 10)
        text[at] = static_cast<char>('0' + count % 10);
    text[0] = '.';
    line.append(text.data(), text.size());
}

void appendSeconds(std::string& line, microseconds duration)
{
    const auto count = static_cast<uint64_t>(std::max<int64_t>(duration.count(), 0));
    appendNumber(line, count / kMicrosecondsPerSecond);
    appendMicroseconds(line, count % kMicrosecondsPerSecond);
}

constexpr size_t kByteValues = 256;

constexpr std::array<bool, kByteValues> plainBytes()
{
    std::array<bool, kByteValues> plain{};
    for (unsigned char c = ' '; c < '\x7f'; ++c)
        plain[c] = c != '"' && c != '\\';
    return plain;
}

// Whether a quoted text may have the byte as it is.
bool isPlain(char c)
{
    static constexpr std::array<bool, kByteValues> kPlain = plainBytes();
    return kPlain[static_cast<unsigned char>(c)];
}

// Bytes that could end the field become \xHH.
void appendEscaped(std::string& line, std::string_view text, bool isQuoted)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    const char extra = isQuoted ? '"' : ' ';
    const auto mustEscape = [extra](char c) { return !isPlain(c) || c == extra; };
    const char* at = text.data();
    const char* const end = at + text.size();
    for (;;) {
        const char* const found = std::find_if(at, end, mustEscape);
        line.append(at, found);
        if (found == end)
            return;
        const auto byte = static_cast<unsigned char>(*found);
        line += '\\';
        if (byte == '"' || byte == '\\')
            line += *found;
        else
            line.append(1, 'x').append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xf]);
        at = found + 1;
    }
}

void appendField(std::string& line, std::string_view text)
{
    if (text.empty())
        line += '-';
    else
        appendEscaped(line, text, false);
    line += ' ';
}

void appendQuoted(std::string& line, std::string_view text)
{
    line += '"';
    appendEscaped(line, text.empty() ? std::string_view("-") : text, true);
    line += "\" ";
}

void appendStatus(std::string& line, uint32_t status, const char* none)
{
    if (status == 0)
        line += none;
    else
        appendNumber(line, status);
}

void appendCombined(std::string& line, const CompletedRequest& request, std::time_t second)
{
    appendField(line, request.clientAddress.toString());
    line += "- ";
    appendField(line, request.user);
    appendSecond(line, second, AccessLog::Combined);
    line += '"';
    appendEscaped(line, request.method.empty() ? std::string_view("-") : request.method, true);
    line += ' ';
    appendEscaped(line, request.target, true);
    line += " HTTP/1.1\" ";
    appendStatus(line, request.status, "-");
    line += ' ';
    appendNumber(line, request.sentBytes);
    line += ' ';
    appendQuoted(line, request.referer);
    appendQuoted(line, request.userAgent);
    appendSeconds(line, request.duration);
    line += ' ';
    appendQuoted(line, request.route);
    appendField(line, request.requestId);
    appendField(line, request.abortReason);
    line.pop_back();
}

void appendMember(std::string& line, std::string_view name, const std::string& text)
{
    using nlohmann::json;
    line.append(",\"").append(name).append("\":");
    if (std::all_of(text.begin(), text.end(), isPlain))
        line.append(1, '"').append(text).append(1, '"');
    else
        line += json(text).dump(-1, ' ', true, json::error_handler_t::replace);
}

void appendJson(std::string& line, const CompletedRequest& request, std::time_t second,
                uint64_t fraction)
{
    line += R"({"time":")";
    appendSecond(line, second, AccessLog::Json);
    appendMicroseconds(line, fraction);
    line += "Z\"";
    appendMember(line, "client", request.clientAddress.toString());
    appendMember(line, "user", request.user);
    appendMember(line, "method", request.method);
    appendMember(line, "target", request.target);
    appendMember(line, "route", request.route);
    line += ",\"status\":";
    appendStatus(line, request.status, "null");
    line += ",\"sentBytes\":";
    appendNumber(line, request.sentBytes);
    line += ",\"receivedBytes\":";
    appendNumber(line, request.receivedBytes);
    line += ",\"seconds\":";
    appendSeconds(line, request.duration);
    appendMember(line, "referer", request.referer);
    appendMember(line, "userAgent", request.userAgent);
    appendMember(line, "requestId", request.requestId);
    appendMember(line, "abortReason", request.abortReason);
    line += '}';
}

}  // namespace

void appendAccessLine(std::string& line, const CompletedRequest& request, AccessLog format,
                      Time now)
{
    using std::chrono::duration_cast;
    const Time began = now - duration_cast<Time::duration>(request.duration);
    const auto second = std::chrono::floor<std::chrono::seconds>(began);
    const std::time_t clock = std::chrono::system_clock::to_time_t(second);
    if (format == AccessLog::Combined)
        appendCombined(line, request, clock);
    else
        appendJson(line, request, clock,
                   static_cast<uint64_t>(duration_cast<microseconds>(began - second).count()));
}

}  // namespace qv::kit

// Lines of the access log: every field is escaped.

#include "AccessText.h"

#include "Text.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace qv::kit
{
namespace
{

using Time = std::chrono::system_clock::time_point;
using std::chrono::microseconds;

constexpr int kMicrosecondsPerSecond = 1000000;
constexpr int kFirstYear = 1900;

// In English in every locale.
constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::string combinedTime(const tm& time)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "[%02d/%s/%04d:%02d:%02d:%02d +0000]", time.tm_mday,
                  kMonths.at(static_cast<size_t>(time.tm_mon)), time.tm_year + kFirstYear,
                  time.tm_hour, time.tm_min, time.tm_sec);
    return text.data();
}

std::string isoTime(const tm& time, int fraction)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ",
                  time.tm_year + kFirstYear, time.tm_mon + 1, time.tm_mday, time.tm_hour,
                  time.tm_min, time.tm_sec, fraction);
    return text.data();
}

std::string secondsOf(microseconds duration)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%lld.%06d",
                  static_cast<long long>(duration.count() / kMicrosecondsPerSecond),
                  static_cast<int>(duration.count() % kMicrosecondsPerSecond));
    return text.data();
}

// Bytes that could end the field become \xHH.
void appendEscaped(std::string& line, std::string_view text, bool isQuoted)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            line += '\\';
            line += c;
        } else if (isControl(c) || byte > '\x7f' || (c == ' ' && !isQuoted)) {
            line.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xf]);
        } else {
            line += c;
        }
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

std::string statusOf(const CompletedRequest& request, const char* none)
{
    return request.status == 0 ? none : std::to_string(request.status);
}

std::string combinedLine(const CompletedRequest& request, const tm& time)
{
    std::string line;
    appendField(line, request.clientAddress.toString());
    line += "- ";
    appendField(line, request.user);
    line += combinedTime(time) + ' ';
    appendQuoted(line, (request.method.empty() ? "-" : request.method) + ' ' + request.target +
                           " HTTP/1.1");
    line += statusOf(request, "-") + ' ' + std::to_string(request.sentBytes) + ' ';
    appendQuoted(line, request.referer);
    appendQuoted(line, request.userAgent);
    appendField(line, secondsOf(request.duration));
    appendQuoted(line, request.route);
    appendField(line, request.requestId);
    appendField(line, request.abortReason);
    line.pop_back();
    return line;
}

void appendMember(std::string& line, const char* name, const std::string& text)
{
    using nlohmann::json;
    line.append(",\"").append(name).append("\":");
    line += json(text).dump(-1, ' ', true, json::error_handler_t::replace);
}

std::string jsonLine(const CompletedRequest& request, const tm& time, int fraction)
{
    std::string line = R"({"time":")" + isoTime(time, fraction) + '"';
    appendMember(line, "client", request.clientAddress.toString());
    appendMember(line, "user", request.user);
    appendMember(line, "method", request.method);
    appendMember(line, "target", request.target);
    appendMember(line, "route", request.route);
    line += ",\"status\":" + statusOf(request, "null");
    line += ",\"sentBytes\":" + std::to_string(request.sentBytes);
    line += ",\"receivedBytes\":" + std::to_string(request.receivedBytes);
    line += ",\"seconds\":" + secondsOf(request.duration);
    appendMember(line, "referer", request.referer);
    appendMember(line, "userAgent", request.userAgent);
    appendMember(line, "requestId", request.requestId);
    appendMember(line, "abortReason", request.abortReason);
    return line + '}';
}

}  // namespace

std::string accessLine(const CompletedRequest& request, AccessLog format, Time now)
{
    using std::chrono::duration_cast;
    const Time began = now - duration_cast<Time::duration>(request.duration);
    const auto second = std::chrono::floor<std::chrono::seconds>(began);
    const std::time_t clock = std::chrono::system_clock::to_time_t(second);
    tm time{};
    gmtime_r(&clock, &time);
    if (format == AccessLog::Combined)
        return combinedLine(request, time);
    return jsonLine(request, time,
                    static_cast<int>(duration_cast<microseconds>(began - second).count()));
}

}  // namespace qv::kit

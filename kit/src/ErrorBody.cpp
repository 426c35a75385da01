// Errors as JSON, as a page and as a text.

#include "ErrorBody.h"

#include "Accept.h"
#include "Markup.h"
#include "ReasonPhrase.h"

#include <algorithm>

namespace qv::kit
{
namespace
{

constexpr const char* kProblem = "application/problem+json";

std::string titleOf(int status)
{
    return std::to_string(status) + " " + ReasonPhrase(status);
}

std::string makeProblem(int status, const std::string& message)
{
    std::string text = R"({"title":")" + std::string(ReasonPhrase(status)) + R"(","status":)" +
                       std::to_string(status);
    if (!message.empty())
        text += R"(,"detail":)" + jsonText(message);
    return text + "}";
}

std::string makePage(int status, const std::string& message)
{
    const std::string title = titleOf(status);
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head><meta charset=\"utf-8\"><title>" + title +
        "</title></head>\n<body>\n<h1>" + title + "</h1>\n";
    if (!message.empty())
        page += "<p>" + htmlText(message) + "</p>\n";
    return page + "</body>\n</html>\n";
}

std::string makeText(int status, const std::string& message)
{
    const std::string text = titleOf(status) + "\n";
    return message.empty() ? text : text + message + "\n";
}

}  // namespace

ErrorBody makeErrorBody(std::string_view accept, int status, const std::string& message)
{
    bool isHtmlNamed = false;
    bool isProblemNamed = false;
    bool isJsonNamed = false;
    const int html = weightOfType(accept, "text/html", isHtmlNamed);
    const int json = std::max(weightOfType(accept, kProblem, isProblemNamed),
                              weightOfType(accept, "application/json", isJsonNamed));
    const bool isTie = html == json && !isProblemNamed && !isJsonNamed;
    if (isHtmlNamed && html > 0 && (html > json || isTie))
        return {makePage(status, message), ContentType::html()};
    if (json > 0)
        return {makeProblem(status, message), ContentType(kProblem)};
    return {makeText(status, message), ContentType::text()};
}

}  // namespace qv::kit

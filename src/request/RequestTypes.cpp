// The request methods: their names, their bits and the way between the two.

#include <Wendrel/HttpRequest.h>

namespace qv
{
namespace
{

// Handed out by reference for the life of the process.
const std::string kUnknownText = "UNKNOWN_HTTP_METHOD";
const std::string kGetText = "GET";
const std::string kPostText = "POST";
const std::string kPutText = "PUT";
const std::string kDeleteText = "DELETE";
const std::string kOptionsText = "OPTIONS";
const std::string kHeadText = "HEAD";
const std::string kConnectText = "CONNECT";
const std::string kTraceText = "TRACE";
const std::string kPatchText = "PATCH";

struct Method
{
    HttpBaseRequest::RequestType type;
    const std::string* text;
};

// The order in which methods are listed in a text, which is not the order of their bits.
constexpr Method kMethods[] = {
    {HttpBaseRequest::GET, &kGetText},         {HttpBaseRequest::POST, &kPostText},
    {HttpBaseRequest::PUT, &kPutText},         {HttpBaseRequest::DELETE, &kDeleteText},
    {HttpBaseRequest::OPTIONS, &kOptionsText}, {HttpBaseRequest::HEAD, &kHeadText},
    {HttpBaseRequest::CONNECT, &kConnectText}, {HttpBaseRequest::TRACE, &kTraceText},
    {HttpBaseRequest::PATCH, &kPatchText},
};

void appendToList(std::string& list, const std::string& text)
{
    if (!list.empty())
        list += ',';
    list += text;
}

}  // namespace

std::map<std::string, HttpBaseRequest::RequestType> HttpBaseRequest::sRequestTypes;

void HttpBaseRequest::InitRequestTypes()
{
    sRequestTypes.clear();
    for (const Method& method : kMethods)
        sRequestTypes[*method.text] = method.type;
}

void HttpBaseRequest::ClearRequestTypes()
{
    sRequestTypes.clear();
}

const std::string& HttpBaseRequest::RequestTypeToString(RequestType type)
{
    for (const Method& method : kMethods) {
        if (method.type == type)
            return *method.text;
    }
    return kUnknownText;
}

std::string HttpBaseRequest::RequestTypeBitFieldToString(int bits)
{
    std::string list;
    for (const Method& method : kMethods) {
        if (bits & method.type)
            appendToList(list, *method.text);
    }
    if (bits & UNKNOWN_HTTP_METHOD)
        appendToList(list, kUnknownText);
    return list;
}

void HttpBaseRequest::setHttpMethod(const std::string& method)
{
    const auto found = sRequestTypes.find(method);
    if (found == sRequestTypes.end()) {
        setParseError("Unexpected HTTP method");
        return;
    }
    mRequestType = found->second;
}

}  // namespace qv

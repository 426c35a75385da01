// The request methods: their names, their bits and the way between the two.

#include <Wendrel/HttpRequest.h>

#include <iterator>

namespace qv
{
namespace
{

struct Method
{
    HttpBaseRequest::RequestType type;
    std::string text;
};

// Static objects of an application may initialise the library and terminate it. In a static
// build only a priority makes them come after these objects, and go before them.
#define WENDREL_MADE_FIRST [[gnu::init_priority(101)]]

// The order in which methods are listed in a text, which is not the order of their bits. The
// texts are handed out by reference for the life of the process.
WENDREL_MADE_FIRST const Method kMethods[] = {
    {HttpBaseRequest::GET, "GET"},
    {HttpBaseRequest::POST, "POST"},
    {HttpBaseRequest::PUT, "PUT"},
    {HttpBaseRequest::DELETE, "DELETE"},
    {HttpBaseRequest::OPTIONS, "OPTIONS"},
    {HttpBaseRequest::HEAD, "HEAD"},
    {HttpBaseRequest::CONNECT, "CONNECT"},
    {HttpBaseRequest::TRACE, "TRACE"},
    {HttpBaseRequest::PATCH, "PATCH"},
    {HttpBaseRequest::UNKNOWN_HTTP_METHOD, "UNKNOWN_HTTP_METHOD"},
};

void appendToList(std::string& list, const std::string& text)
{
    if (!list.empty())
        list += ',';
    list += text;
}

}  // namespace

WENDREL_MADE_FIRST std::map<std::string, HttpBaseRequest::RequestType>
    HttpBaseRequest::sRequestTypes;

void HttpBaseRequest::InitRequestTypes()
{
    sRequestTypes.clear();
    for (const Method& method : kMethods) {
        if (method.type != UNKNOWN_HTTP_METHOD)
            sRequestTypes[method.text] = method.type;
    }
}

void HttpBaseRequest::ClearRequestTypes()
{
    sRequestTypes.clear();
}

const std::string& HttpBaseRequest::RequestTypeToString(RequestType type)
{
    for (const Method& method : kMethods) {
        if (method.type == type)
            return method.text;
    }
    return std::rbegin(kMethods)->text;
}

std::string HttpBaseRequest::RequestTypeBitFieldToString(int bits)
{
    std::string list;
    for (const Method& method : kMethods) {
        if (bits & method.type)
            appendToList(list, method.text);
    }
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

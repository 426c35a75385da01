// The head of an answer.

#include <Wendrel/kit/ResponseHead.h>

#include <algorithm>
#include <cctype>

namespace qv::kit
{
namespace
{

// Lower case as key: the daemon wants "connection" before "date".
std::string keyOf(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return name;
}

}  // namespace

ResponseHead::ResponseHead()
{
    setContentType("text/plain; charset=utf-8");
}

void ResponseHead::setHeader(const std::string& name, const std::string& value)
{
    if (value.empty())
        mHeaders.erase(keyOf(name));
    else
        mHeaders[keyOf(name)] = {name, value};
}

std::string ResponseHead::getHeader(const std::string& name) const
{
    const auto found = mHeaders.find(keyOf(name));
    return found == mHeaders.end() ? std::string() : found->second.second;
}

void ResponseHead::addCookie(const std::string& name, const std::string& value)
{
    mCookies.insert_or_assign(name, std::string(value));
}

std::string ResponseHead::describe()
{
    std::string text = std::to_string(mStatus);
    const std::string type = getHeader("content-type");
    if (!type.empty())
        text += " " + type;
    if (mContentLength >= 0)
        text += ", " + std::to_string(mContentLength) + " bytes";
    return text;
}

}  // namespace qv::kit
